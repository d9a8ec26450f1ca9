#include "CacheBenchClient.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unordered_map>

#include "BenchSchemas.h"
#include "LatencySamples.h"
#include "client/PreferencesClient.h"

namespace Halo::OS {
namespace {

using Clock = LatencySamples::Clock;

constexpr size_t kWarmup = 20000;
constexpr int kPassedFd = 3;
constexpr int kTimeoutMs = 5000;

std::unique_ptr<PreferencesClient> connectCached() {
    std::unique_ptr<PreferencesClient> client = PreferencesClient::connect();
    if (client == nullptr || client->cacheStatistics().capacity == 0) {
        fprintf(stderr, "prefs-bench client: no cached client\n");
        return nullptr;
    }
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    int32_t value = 0;
    while (!client->getInteger(BenchSchemas::readKey(0), &value).isOk()) {
        if (Clock::now() >= deadline) return nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return client;
}

bool timeCachedGets(PreferencesClient& client, const std::vector<std::string>& keys, size_t count,
                    LatencySamples* samples) {
    for (size_t i = 0; i < count; ++i) {
        int32_t value = 0;
        const Clock::time_point start = Clock::now();
        const bool ok = client.getInteger(keys[i % keys.size()], &value).isOk();
        if (samples != nullptr) samples->add(Clock::now() - start);
        if (!ok || value != BenchSchemas::kReadValue) {
            fprintf(stderr, "prefs-bench client: cached getInteger failed\n");
            return false;
        }
    }
    return true;
}

int cachedLatency(size_t count) {
    std::unique_ptr<PreferencesClient> client = connectCached();
    if (client == nullptr) return 1;
    const std::vector<std::string> keys = BenchSchemas::readKeys();
    std::unordered_map<std::string, std::string> map;
    for (const std::string& key : keys) map[key] = std::to_string(BenchSchemas::kReadValue);
    LatencySamples floor;
    LatencySamples cached;
    std::string copy;
    if (!timeCachedGets(*client, keys, kWarmup, nullptr)) return 1;
    for (size_t i = 0; i < count; ++i) {
        const Clock::time_point start = Clock::now();
        auto found = map.find(keys[i % keys.size()]);
        if (found != map.end()) copy = found->second;
        floor.add(Clock::now() - start);
    }
    if (copy.empty() || !timeCachedGets(*client, keys, count, &cached)) return 1;
    printf("floor_map_ns %.1f\n", floor.medianMicros() * 1000);
    printf("cached_p50_ns %.1f\n", cached.medianMicros() * 1000);
    printf("cached_p99_ns %.1f\n", cached.percentileMicros(99) * 1000);
    return 0;
}

int cachedThroughput(double seconds) {
    std::unique_ptr<PreferencesClient> client = connectCached();
    if (client == nullptr) return 1;
    const std::vector<std::string> keys = BenchSchemas::readKeys();
    if (!timeCachedGets(*client, keys, kWarmup, nullptr)) return 1;
    printf("ready\n");
    fflush(stdout);
    char byte;
    while (read(kPassedFd, &byte, 1) > 0) {
    }
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(seconds));
    uint64_t ops = 0;
    while (Clock::now() < end) {
        if (!timeCachedGets(*client, keys, 256, nullptr)) return 1;
        ops += 256;
    }
    printf("ops %llu\n", static_cast<unsigned long long>(ops));
    return 0;
}

int64_t nowNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
            .count();
}

int coherenceWatch() {
    std::unique_ptr<PreferencesClient> client = connectCached();
    if (client == nullptr) return 1;
    printf("ready\n");
    fflush(stdout);
    int32_t last = INT32_MIN;
    for (uint64_t round = 0;; ++round) {
        int32_t value = 0;
        if (client->getInteger(BenchSchemas::kSetKey, &value).isOk() && value != last) {
            last = value;
            const int64_t record[2] = {value, nowNanos()};
            if (write(kPassedFd, record, sizeof(record)) != sizeof(record)) return 1;
        }
        if (round % 4096 == 0) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            char byte;
            if (poll(&input, 1, 0) == 1 && read(STDIN_FILENO, &byte, 1) <= 0) return 0;
        }
    }
}

int coherence(size_t count) {
    std::unique_ptr<PreferencesClient> client = connectCached();
    if (client == nullptr) return 1;
    LatencySamples samples;
    for (size_t i = 0; i < count + 100; ++i) {
        const auto value = static_cast<int32_t>(i + 1);
        if (!client->setInteger(BenchSchemas::kSetKey, value).isOk()) return 1;
        const int64_t returned = nowNanos();
        for (;;) {
            pollfd pfd{kPassedFd, POLLIN, 0};
            int64_t record[2];
            if (poll(&pfd, 1, kTimeoutMs) != 1 ||
                read(kPassedFd, record, sizeof(record)) != sizeof(record)) {
                fprintf(stderr, "prefs-bench client: the watcher did not see set %zu\n", i);
                return 1;
            }
            if (record[0] != value) continue;
            if (i >= 100) samples.addNanos(std::max<int64_t>(0, record[1] - returned));
            break;
        }
    }
    printf("coherence_p50_us %.3f\n", samples.medianMicros());
    return 0;
}

}  // namespace

bool CacheBenchClient::run(const std::vector<std::string>& args, int* status) {
    const std::string role = args.empty() ? "" : args[0];
    if (role == "coherence-watch" && args.size() == 1) {
        *status = coherenceWatch();
        return true;
    }
    if (args.size() != 2) return false;
    const double number = strtod(args[1].c_str(), nullptr);
    if (role == "cached-latency") {
        *status = number >= 1 ? cachedLatency(static_cast<size_t>(number)) : 2;
    } else if (role == "cached-throughput") {
        *status = number > 0 ? cachedThroughput(number) : 2;
    } else if (role == "coherence") {
        *status = number >= 1 ? coherence(static_cast<size_t>(number)) : 2;
    } else {
        return false;
    }
    return true;
}

}  // namespace Halo::OS
