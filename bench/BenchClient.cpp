#include "BenchClient.h"

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <halo/preferences/IPreferencesExtension.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <lumen/preferences/IPreferencesService.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "BenchSchemas.h"
#include "LatencySamples.h"
#include "SocketFloor.h"

namespace Halo::OS {
namespace {

using android::sp;
using android::String16;
using android::binder::Status;
using halo::preferences::BatchEntry;
using halo::preferences::IPreferencesExtension;
using lumen::preferences::IPreferencesService;
using Clock = LatencySamples::Clock;

constexpr size_t kRounds = 20;
constexpr size_t kWarmup = 2000;
constexpr auto kReadyTimeout = std::chrono::seconds(30);
constexpr int kNotifyTimeoutMs = 5000;
constexpr int kPassedFd = 3;

// Frame sizes of docs/wire.md: header, fixed transaction body, fixed reply body.
constexpr size_t kFrameHeader = 8;
constexpr size_t kTransactionBody = 48;
constexpr size_t kReplyBody = 24;

// Bytes on the socket for a getInteger call and its answer (Status ok and the int32).
size_t getRequestBytes(const String16& key) {
    android::Parcel data;
    data.writeInterfaceToken(IPreferencesService::descriptor);
    data.writeString16(key);
    return kFrameHeader + kTransactionBody + data.dataSize();
}

constexpr size_t kGetReplyBytes = kFrameHeader + kReplyBody + 8;

sp<IPreferencesService> connect() {
    sp<android::IBinder> binder =
            android::defaultServiceManager()->getService(String16("PreferencesService"));
    if (binder == nullptr) {
        fprintf(stderr, "prefs-bench client: PreferencesService not found\n");
        return nullptr;
    }
    return android::interface_cast<IPreferencesService>(binder);
}

// Waits until the bench package's schema has reached the store.
bool waitUntilDeclared(const sp<IPreferencesService>& service) {
    const String16 key(BenchSchemas::readKey(0).c_str());
    const auto deadline = Clock::now() + kReadyTimeout;
    for (;;) {
        int32_t value = 0;
        const Status status = service->getInteger(key, &value);
        if (status.isOk()) return true;
        if (Clock::now() >= deadline) {
            fprintf(stderr, "prefs-bench client: %s never became readable: %s\n",
                    BenchSchemas::readKey(0).c_str(), status.toString8().string());
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::vector<String16> readKeys16() {
    std::vector<String16> keys;
    for (const std::string& key : BenchSchemas::readKeys()) keys.emplace_back(key.c_str());
    return keys;
}

bool timeGets(const sp<IPreferencesService>& service, const std::vector<String16>& keys,
              size_t count, LatencySamples* samples) {
    for (size_t i = 0; i < count; ++i) {
        int32_t value = 0;
        const Clock::time_point start = Clock::now();
        const Status status = service->getInteger(keys[i % keys.size()], &value);
        if (samples != nullptr) samples->add(Clock::now() - start);
        if (!status.isOk() || value != BenchSchemas::kReadValue) {
            fprintf(stderr, "prefs-bench client: getInteger: %s, %d\n", status.toString8().string(),
                    value);
            return false;
        }
    }
    return true;
}

int getLatency(size_t count, bool store) {
    const std::vector<String16> keys = readKeys16();
    // Forked before the first Binder call, while the process has a single thread. Placed where
    // prefs-bench asks: on the services' CPU when clients and services are split.
    const char* echoCpu = getenv(BenchClient::kEchoCpuVariable);
    SocketFloor floor(getRequestBytes(keys[0]), kGetReplyBytes,
                      echoCpu != nullptr ? atoi(echoCpu) : -1);
    sp<IPreferencesService> service = connect();
    if (!floor.ok() || service == nullptr || !waitUntilDeclared(service)) return 1;
    for (size_t i = 0; store && i < keys.size(); ++i) {
        const Status status = service->setInteger(keys[i], BenchSchemas::kReadValue);
        if (!status.isOk()) {
            fprintf(stderr, "prefs-bench client: setInteger: %s\n", status.toString8().string());
            return 1;
        }
    }
    using Placement = SocketFloor::Placement;
    LatencySamples floorSamples;
    LatencySamples oneCpuSamples;
    LatencySamples getSamples;
    if (!timeGets(service, keys, kWarmup, nullptr) ||
        !floor.measure(kWarmup, Placement::AsScheduled, &floorSamples)) {
        return 1;
    }
    floorSamples = LatencySamples();
    const size_t block = std::max<size_t>(1, count / kRounds);
    for (size_t round = 0; round < kRounds; ++round) {
        if (!floor.measure(block, Placement::AsScheduled, &floorSamples) ||
            !timeGets(service, keys, block, &getSamples) ||
            !floor.measure(block / 4, Placement::OneCpu, &oneCpuSamples)) {
            return 1;
        }
    }
    printf("floor_p50_us %.3f\n", floorSamples.medianMicros());
    printf("floor_one_cpu_p50_us %.3f\n", oneCpuSamples.medianMicros());
    printf("get_p50_us %.3f\n", getSamples.medianMicros());
    printf("get_p99_us %.3f\n", getSamples.percentileMicros(99));
    return 0;
}

int setLatency(size_t count) {
    sp<IPreferencesService> service = connect();
    if (service == nullptr || !waitUntilDeclared(service)) return 1;
    const String16 key(BenchSchemas::kSetKey);
    LatencySamples samples;
    for (size_t i = 0; i < kWarmup + count; ++i) {
        const Clock::time_point start = Clock::now();
        const Status status = service->setInteger(key, static_cast<int32_t>(i));
        if (i >= kWarmup) samples.add(Clock::now() - start);
        if (!status.isOk()) {
            fprintf(stderr, "prefs-bench client: setInteger: %s\n", status.toString8().string());
            return 1;
        }
    }
    printf("set_p50_us %.3f\n", samples.medianMicros());
    return 0;
}

int throughput(double seconds) {
    sp<IPreferencesService> service = connect();
    if (service == nullptr || !waitUntilDeclared(service)) return 1;
    const std::vector<String16> keys = readKeys16();
    if (!timeGets(service, keys, kWarmup / 4, nullptr)) return 1;
    printf("ready\n");
    fflush(stdout);
    char byte;
    while (read(kPassedFd, &byte, 1) > 0) {
    }
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(seconds));
    uint64_t ops = 0;
    while (Clock::now() < end) {
        if (!timeGets(service, keys, 16, nullptr)) return 1;
        ops += 16;
    }
    printf("ops %llu\n", static_cast<unsigned long long>(ops));
    return 0;
}

class TimestampListener : public lumen::preferences::BnPreferencesListener {
public:
    Status onChanged(const std::vector<String16>& keys) override {
        ++calls;
        changedKeys += keys.size();
        const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                    Clock::now().time_since_epoch())
                                    .count();
        if (write(kPassedFd, &now, sizeof(now)) != sizeof(now)) {
            fprintf(stderr, "prefs-bench client: cannot pass a notification on\n");
        }
        return Status::ok();
    }

    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> changedKeys{0};
};

// The keys written by one batch: the notify key and the first read keys, kBatchSize in all.
constexpr size_t kBatchSize = 10;
std::vector<String16> batchKeys() {
    std::vector<String16> keys = {String16(BenchSchemas::kNotifyKey)};
    for (size_t i = 0; keys.size() < kBatchSize; ++i) {
        keys.emplace_back(BenchSchemas::readKey(i).c_str());
    }
    return keys;
}

// One batch writing `notifyValue` to the notify key and the read value to the others.
std::vector<BatchEntry> batchOf(const std::vector<String16>& keys, int32_t notifyValue) {
    std::vector<BatchEntry> entries(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        entries[i] = BatchEntry{};
        entries[i].key = keys[i];
        entries[i].type = 0;  // integer
        entries[i].integerValue = i == 0 ? notifyValue : BenchSchemas::kReadValue;
    }
    return entries;
}

sp<IPreferencesExtension> extensionOf(const sp<IPreferencesService>& service) {
    sp<android::IBinder> extension;
    if (android::IInterface::asBinder(service)->getExtension(&extension) != android::OK ||
        extension == nullptr) {
        fprintf(stderr, "prefs-bench client: the service has no extension\n");
        return nullptr;
    }
    return android::interface_cast<IPreferencesExtension>(extension);
}

// Ten single setInteger calls against one setBatch of the same ten keys, in alternating blocks.
int batchLatency(size_t count) {
    sp<IPreferencesService> service = connect();
    if (service == nullptr || !waitUntilDeclared(service)) return 1;
    sp<IPreferencesExtension> extension = extensionOf(service);
    if (extension == nullptr) return 1;
    const std::vector<String16> keys = batchKeys();
    const std::vector<BatchEntry> batch = batchOf(keys, 1);
    LatencySamples singles;
    LatencySamples batches;
    const size_t warmup = kWarmup / 20;
    const size_t block = std::max<size_t>(1, count / kRounds);
    for (size_t round = 0; round <= kRounds; ++round) {
        const size_t n = round == 0 ? warmup : block;
        for (size_t i = 0; i < n; ++i) {
            Clock::time_point start = Clock::now();
            for (size_t k = 0; k < keys.size(); ++k) {
                const Status status = service->setInteger(keys[k], batch[k].integerValue);
                if (!status.isOk()) {
                    fprintf(stderr, "prefs-bench client: setInteger: %s\n",
                            status.toString8().string());
                    return 1;
                }
            }
            if (round != 0) singles.add(Clock::now() - start);
            start = Clock::now();
            const Status status =
                    extension->setBatch(batch, IPreferencesExtension::FLAVOUR_CALLER, 0);
            if (round != 0) batches.add(Clock::now() - start);
            if (!status.isOk()) {
                fprintf(stderr, "prefs-bench client: setBatch: %s\n", status.toString8().string());
                return 1;
            }
        }
    }
    printf("set_10_p50_us %.3f\n", singles.medianMicros());
    printf("batch_set_10_p50_us %.3f\n", batches.medianMicros());
    return 0;
}

int listen(bool batch) {
    sp<IPreferencesService> service = connect();
    if (service == nullptr || !waitUntilDeclared(service)) return 1;
    sp<TimestampListener> listener = new TimestampListener();
    const Status status = service->registerListener(
            listener,
            batch ? batchKeys() : std::vector<String16>{String16(BenchSchemas::kNotifyKey)}, false);
    if (!status.isOk()) {
        fprintf(stderr, "prefs-bench client: registerListener: %s\n", status.toString8().string());
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    service->unregisterListener(listener);
    printf("listen_calls %llu\n", static_cast<unsigned long long>(listener->calls.load()));
    printf("listen_keys %llu\n", static_cast<unsigned long long>(listener->changedKeys.load()));
    return 0;
}

bool readNotification(int64_t* nanos) {
    pollfd pfd{kPassedFd, POLLIN, 0};
    if (poll(&pfd, 1, kNotifyTimeoutMs) != 1) return false;
    return read(kPassedFd, nanos, sizeof(*nanos)) == sizeof(*nanos);
}

int notify(size_t count, bool batch) {
    sp<IPreferencesService> service = connect();
    if (service == nullptr || !waitUntilDeclared(service)) return 1;
    sp<IPreferencesExtension> extension = batch ? extensionOf(service) : nullptr;
    if (batch && extension == nullptr) return 1;
    const String16 key(BenchSchemas::kNotifyKey);
    const std::vector<String16> keys = batchKeys();
    LatencySamples samples;
    const size_t warmup = kWarmup / 10;
    for (size_t i = 0; i < warmup + count; ++i) {
        const Clock::time_point start = Clock::now();
        const int32_t value = static_cast<int32_t>(i + 1);
        const Status status = batch ? extension->setBatch(batchOf(keys, value),
                                                          IPreferencesExtension::FLAVOUR_CALLER, 0)
                                    : service->setInteger(key, value);
        int64_t arrived = 0;
        if (!status.isOk() || !readNotification(&arrived)) {
            fprintf(stderr, "prefs-bench client: no notification for set %zu: %s\n", i,
                    status.toString8().string());
            return 1;
        }
        if (i >= warmup) {
            samples.addNanos(arrived - std::chrono::duration_cast<std::chrono::nanoseconds>(
                                               start.time_since_epoch())
                                               .count());
        }
    }
    printf(batch ? "notify_batch_p50_us %.3f\n" : "notify_p50_us %.3f\n", samples.medianMicros());
    printf("sets %zu\n", warmup + count);
    return 0;
}

bool parseCount(const std::string& text, size_t* out) {
    char* end = nullptr;
    const unsigned long long value = strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value == 0) return false;
    *out = static_cast<size_t>(value);
    return true;
}

}  // namespace

int BenchClient::run(const std::vector<std::string>& args) {
    if (args.empty()) return 2;
    const std::string& role = args[0];
    size_t count = 0;
    if (role == "listen" && args.size() == 1) return listen(false);
    if (role == "listen-batch" && args.size() == 1) return listen(true);
    if (role == "get-latency" && args.size() == 3 && args[2] == "store") {
        return parseCount(args[1], &count) ? getLatency(count, true) : 2;
    }
    if (args.size() != 2) return 2;
    if (role == "throughput") {
        const double seconds = strtod(args[1].c_str(), nullptr);
        return seconds > 0 ? throughput(seconds) : 2;
    }
    if (!parseCount(args[1], &count)) return 2;
    if (role == "get-latency") return getLatency(count, false);
    if (role == "set-latency") return setLatency(count);
    if (role == "notify") return notify(count, false);
    if (role == "notify-batch") return notify(count, true);
    if (role == "batch-latency") return batchLatency(count);
    return 2;
}

}  // namespace Halo::OS
