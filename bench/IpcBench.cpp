#include "IpcBench.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

#include "BenchClient.h"
#include "BenchDaemon.h"
#include "BenchSchemas.h"
#include "ClientProcess.h"

namespace Halo::OS {
namespace {

using Results = std::map<std::string, double>;

constexpr auto kClientTimeout = std::chrono::seconds(300);
constexpr auto kReadyTimeout = std::chrono::seconds(60);

ClientProcess::Options clientOptions(const IpcBench::Options& options, const BenchDaemon& device,
                                     std::vector<std::string> role, int passFd = -1,
                                     uid_t uid = BenchSchemas::kBenchUid) {
    ClientProcess::Options client;
    client.argv = {options.selfPath, "--client"};
    client.argv.insert(client.argv.end(), role.begin(), role.end());
    client.env = {"BINDER_DIR=" + device.binderDir()};
    client.uid = uid;
    client.passFd = passFd;
    client.cpu = options.clientCpu;
    if (options.serviceCpu >= 0) {
        client.env.push_back(std::string(BenchClient::kEchoCpuVariable) + "=" +
                             std::to_string(options.serviceCpu));
    }
    return client;
}

// Reads "name value" lines until the output ends; false when the client fails.
bool collect(ClientProcess& client, const char* what, Results* results) {
    while (std::optional<std::string> line = client.readLine(kClientTimeout)) {
        const size_t blank = line->find(' ');
        if (blank == std::string::npos) continue;
        (*results)[line->substr(0, blank)] += strtod(line->c_str() + blank + 1, nullptr);
    }
    const int status = client.wait(std::chrono::seconds(10));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "prefs-bench: the %s client failed (status 0x%x)\n", what, status);
        return false;
    }
    return true;
}

bool runClient(const IpcBench::Options& options, const BenchDaemon& device,
               std::vector<std::string> role, Results* results,
               uid_t uid = BenchSchemas::kBenchUid) {
    const std::string what = role[0];
    ClientProcess client(clientOptions(options, device, std::move(role), -1, uid));
    return client.started() && collect(client, what.c_str(), results);
}

// Gets per second of `count` clients of `role` started together.
bool throughput(const IpcBench::Options& options, const BenchDaemon& device, size_t count,
                double* opsPerSecond, const char* role = "throughput") {
    int gate[2];
    if (pipe2(gate, O_CLOEXEC) != 0) return false;
    std::vector<std::unique_ptr<ClientProcess>> clients;
    bool ok = true;
    for (size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<ClientProcess>(clientOptions(
                options, device, {role, std::to_string(options.throughputSeconds)}, gate[0])));
    }
    close(gate[0]);
    for (auto& client : clients) {
        const std::optional<std::string> ready = client->readLine(kReadyTimeout);
        if (!ready.has_value() || *ready != "ready") ok = false;
    }
    // Every client is blocked reading the gate: closing it starts them all at once.
    close(gate[1]);
    Results results;
    for (auto& client : clients) ok = collect(*client, "throughput", &results) && ok;
    *opsPerSecond = results["ops"] / options.throughputSeconds;
    return ok;
}

// From a set returning in one process to a cached read in another answering the new value.
bool coherence(const IpcBench::Options& options, const BenchDaemon& device, Results* results) {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) return false;
    ClientProcess watcher(clientOptions(options, device, {"coherence-watch"}, channel[1]));
    close(channel[1]);
    const std::optional<std::string> ready = watcher.readLine(kReadyTimeout);
    if (!ready.has_value() || *ready != "ready") {
        close(channel[0]);
        fprintf(stderr, "prefs-bench: the cache watcher did not start\n");
        return false;
    }
    ClientProcess setter(clientOptions(
            options, device, {"coherence", std::to_string(options.samples / 10)}, channel[0]));
    close(channel[0]);
    const bool measured = collect(setter, "coherence", results);
    watcher.closeInput();
    return collect(watcher, "coherence-watch", results) && measured;
}

// `batch`: the listener watches the ten keys of a batch, and each change is one setBatch.
bool notify(const IpcBench::Options& options, const BenchDaemon& device, Results* results,
            bool batch = false) {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) return false;
    ClientProcess listener(
            clientOptions(options, device, {batch ? "listen-batch" : "listen"}, channel[1]));
    close(channel[1]);
    const std::optional<std::string> ready = listener.readLine(kReadyTimeout);
    if (!ready.has_value() || *ready != "ready") {
        close(channel[0]);
        fprintf(stderr, "prefs-bench: the listener did not register\n");
        return false;
    }
    ClientProcess setter(clientOptions(
            options, device,
            {batch ? "notify-batch" : "notify", std::to_string(options.samples / 4)}, channel[0]));
    close(channel[0]);
    const bool measured = collect(setter, "notify", results);
    listener.closeInput();
    return collect(listener, "listen", results) && measured;
}

}  // namespace

bool IpcBench::measure(const Options& options, Figures* out) {
    BenchDaemon device(options.daemonPath, options.appInfoPath);
    if (!device.start(options.fillers)) return false;
    const std::string samples = std::to_string(options.samples);
    Results app;
    Results privileged;
    Results writes;
    fprintf(stderr, "prefs-bench: get latency\n");
    if (!runClient(options, device, {"get-latency", samples, "store"}, &app) ||
        !runClient(options, device, {"get-latency", samples}, &privileged,
                   BenchSchemas::kPrivilegedUid)) {
        return false;
    }
    fprintf(stderr, "prefs-bench: set latency\n");
    if (!runClient(options, device, {"set-latency", std::to_string(options.samples / 4)},
                   &writes)) {
        return false;
    }
    fprintf(stderr, "prefs-bench: throughput\n");
    if (!throughput(options, device, 1, &out->opsOne) ||
        !throughput(options, device, 4, &out->opsFour)) {
        return false;
    }
    fprintf(stderr, "prefs-bench: notification\n");
    if (!notify(options, device, &writes)) return false;
    fprintf(stderr, "prefs-bench: batches\n");
    Results batches;
    Results batchNotify;
    if (!runClient(options, device, {"batch-latency", std::to_string(options.samples / 20)},
                   &batches) ||
        !notify(options, device, &batchNotify, true)) {
        return false;
    }
    out->set10P50Micros = batches["set_10_p50_us"];
    out->batchSet10P50Micros = batches["batch_set_10_p50_us"];
    out->notifyBatchP50Micros = batchNotify["notify_batch_p50_us"];
    out->notifyBatchCallsPerBatch = batchNotify["listen_calls"] / batchNotify["sets"];
    out->notifyBatchKeysPerCall = batchNotify["listen_keys"] / batchNotify["listen_calls"];
    fprintf(stderr, "prefs-bench: cached reads\n");
    Results cached;
    if (!runClient(options, device, {"cached-latency", samples}, &cached) ||
        !throughput(options, device, 1, &out->cachedOpsOne, "cached-throughput") ||
        !throughput(options, device, 4, &out->cachedOpsFour, "cached-throughput") ||
        !coherence(options, device, &cached)) {
        return false;
    }
    out->floorMapNanos = cached["floor_map_ns"];
    out->cachedP50Nanos = cached["cached_p50_ns"];
    out->cachedP99Nanos = cached["cached_p99_ns"];
    out->coherenceMicros = cached["coherence_p50_us"];
    out->floorRttMicros = app["floor_p50_us"];
    out->floorOneCpuRttMicros = app["floor_one_cpu_p50_us"];
    out->getP50Micros = app["get_p50_us"];
    out->getP99Micros = app["get_p99_us"];
    out->privilegedFloorRttMicros = privileged["floor_p50_us"];
    out->privilegedGetP50Micros = privileged["get_p50_us"];
    out->setP50Micros = writes["set_p50_us"];
    out->notifyP50Micros = writes["notify_p50_us"];
    out->daemonRssKb = device.daemonRssKb();
    if (!device.stop()) {
        fprintf(stderr, "prefs-bench: preferencesd did not stop cleanly\n");
        return false;
    }
    return true;
}

}  // namespace Halo::OS
