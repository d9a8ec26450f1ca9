// prefs-bench: measures the preferences service against the floor the machine allows, in one run,
// and prints one "name: value" line per figure. See docs/performance.md.
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "BenchClient.h"
#include "CacheBenchClient.h"
#include "InProcessBench.h"
#include "IpcBench.h"

namespace {

using Halo::OS::BenchClient;
using Halo::OS::InProcessBench;
using Halo::OS::IpcBench;

constexpr const char* kUsage =
        "usage: prefs-bench [--samples N] [--fillers N] [--throughput-seconds S]\n"
        "                   [--schema-packages N] [--daemon PATH] [--appinfo PATH]\n"
        "                   [--only reads|ipc|schema] [--cpu N | --split C,S]\n"
        "  --samples N              timed calls per latency figure (default 20000)\n"
        "  --fillers N              packages of 20 keys declared besides the bench package\n"
        "                           (default 50)\n"
        "  --throughput-seconds S   length of each throughput run (default 2)\n"
        "  --schema-packages N      packages of 20 keys in the schema list (default 500)\n"
        "  --daemon PATH            preferencesd (default: the one built with prefs-bench)\n"
        "  --appinfo PATH           prefs-appinfo (default: the one built with prefs-bench)\n"
        "  --only PART              measure one part only and print its figures (for\n"
        "                           profiling): in-process reads, IPC, or schema lists\n"
        "  --cpu N                  run everything (this process, the daemon, prefs-appinfo\n"
        "                           and the clients) on CPU N only\n"
        "  --split C,S              run the clients on CPU C and everything else (this\n"
        "                           process, the daemon, prefs-appinfo, the floor's echo\n"
        "                           process) on CPU S\n"
        "The IPC figures run clients under an app uid and need root.\n";

std::string selfPath() {
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) return "";
    return std::string(path, static_cast<size_t>(n));
}

void print(const char* name, double value) {
    printf("%s: %.2f\n", name, value);
}

bool parseSize(const char* text, size_t* out) {
    char* end = nullptr;
    const unsigned long long value = strtoull(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value == 0) return false;
    *out = static_cast<size_t>(value);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "--client") == 0) {
        const std::vector<std::string> role(argv + 2, argv + argc);
        int status = 0;
        if (Halo::OS::CacheBenchClient::run(role, &status)) return status;
        return BenchClient::run(role);
    }
    IpcBench::Options ipc;
    ipc.selfPath = selfPath();
    ipc.daemonPath = PREFS_BENCH_DAEMON;
    ipc.appInfoPath = PREFS_BENCH_APPINFO;
    ipc.fillers = 50;
    ipc.samples = 20000;
    ipc.throughputSeconds = 2;
    size_t schemaPackages = 500;
    std::string only;
    long cpu = -1;
    for (int i = 1; i < argc; i += 2) {
        const std::string flag = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        bool ok = value != nullptr;
        if (flag == "--help") {
            fputs(kUsage, stdout);
            return 0;
        } else if (ok && flag == "--samples") {
            ok = parseSize(value, &ipc.samples);
        } else if (ok && flag == "--fillers") {
            ok = parseSize(value, &ipc.fillers);
        } else if (ok && flag == "--schema-packages") {
            ok = parseSize(value, &schemaPackages);
        } else if (ok && flag == "--throughput-seconds") {
            ipc.throughputSeconds = strtod(value, nullptr);
            ok = ipc.throughputSeconds > 0;
        } else if (ok && flag == "--daemon") {
            ipc.daemonPath = value;
        } else if (ok && flag == "--appinfo") {
            ipc.appInfoPath = value;
        } else if (ok && flag == "--cpu") {
            char* end = nullptr;
            cpu = strtol(value, &end, 10);
            ok = *value != '\0' && *end == '\0' && cpu >= 0 && cpu < CPU_SETSIZE;
        } else if (ok && flag == "--split") {
            char* end = nullptr;
            const long client = strtol(value, &end, 10);
            const long service = *end == ',' ? strtol(end + 1, &end, 10) : -1;
            ok = *end == '\0' && client >= 0 && client < CPU_SETSIZE && service >= 0 &&
                 service < CPU_SETSIZE && client != service;
            ipc.clientCpu = static_cast<int>(client);
            ipc.serviceCpu = static_cast<int>(service);
        } else if (ok && flag == "--only") {
            only = value;
            ok = only == "reads" || only == "ipc" || only == "schema";
        } else {
            ok = false;
        }
        if (!ok) {
            fprintf(stderr, "prefs-bench: bad argument %s\n%s", flag.c_str(), kUsage);
            return 2;
        }
    }
    if (geteuid() != 0) {
        fprintf(stderr, "prefs-bench: must run as root (the clients run under an app uid)\n");
        return 2;
    }

    if (cpu >= 0 && ipc.serviceCpu >= 0) {
        fprintf(stderr, "prefs-bench: --cpu and --split exclude each other\n%s", kUsage);
        return 2;
    }
    if (ipc.clientCpu >= 0) {
        cpu_set_t allowed;
        if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0 ||
            !CPU_ISSET(ipc.clientCpu, &allowed)) {
            fprintf(stderr, "prefs-bench: cannot run clients on CPU %d\n", ipc.clientCpu);
            return 2;
        }
        cpu = ipc.serviceCpu;
    }
    if (cpu >= 0) {
        // Every process started from here on inherits the affinity (clients of --split then
        // move to their own CPU).
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<int>(cpu), &set);
        if (sched_setaffinity(0, sizeof(set), &set) != 0) {
            fprintf(stderr, "prefs-bench: cannot run on CPU %ld: %s\n", cpu, strerror(errno));
            return 2;
        }
    }

    const bool all = only.empty();
    InProcessBench::ReadFigures reads;
    if (all || only == "reads") {
        fprintf(stderr, "prefs-bench: in-process reads\n");
        if (!InProcessBench::measureReads(ipc.fillers, ipc.samples, &reads)) return 1;
    }
    IpcBench::Figures calls;
    if ((all || only == "ipc") && !IpcBench::measure(ipc, &calls)) return 1;
    InProcessBench::SchemaFigures schema;
    if (all || only == "schema") {
        fprintf(stderr, "prefs-bench: schema lists\n");
        if (!InProcessBench::measureSchema(schemaPackages, 20, &schema)) return 1;
    }

    if (all || only == "ipc") {
        print("floor_socket_rtt_us", calls.floorRttMicros);
        print("floor_socket_rtt_one_cpu_us", calls.floorOneCpuRttMicros);
        print("ipc_get_p50_us", calls.getP50Micros);
        print("ipc_get_p99_us", calls.getP99Micros);
        print("ipc_get_ratio", calls.getP50Micros / calls.floorRttMicros);
        print("ipc_get_privileged_p50_us", calls.privilegedGetP50Micros);
        print("ipc_get_privileged_ratio",
              calls.privilegedGetP50Micros / calls.privilegedFloorRttMicros);
    }
    if (all || only == "reads") {
        print("floor_sqlite_select_us", reads.floorSelectMicros);
        print("inproc_get_us", reads.getMicros);
        print("inproc_get_ratio", reads.getMicros / reads.floorSelectMicros);
        print("floor_sqlite_write_us", reads.floorWriteMicros);
    }
    if (all) {
        print("ipc_set_p50_us", calls.setP50Micros);
        print("ipc_set_ratio",
              calls.setP50Micros / (calls.floorRttMicros + reads.floorWriteMicros));
    } else if (only == "ipc") {
        print("ipc_set_p50_us", calls.setP50Micros);
    }
    if (all || only == "ipc") {
        print("get_ops_1", calls.opsOne);
        print("get_ops_4", calls.opsFour);
        print("get_scaling", calls.opsFour / calls.opsOne);
        print("notify_p50_us", calls.notifyP50Micros);
        print("notify_ratio", calls.notifyP50Micros / calls.floorRttMicros);
        print("set_10_us", calls.set10P50Micros);
        print("batch_set_10_us", calls.batchSet10P50Micros);
        print("batch_set_10_ratio", calls.batchSet10P50Micros / calls.set10P50Micros);
        print("notify_batch_us", calls.notifyBatchP50Micros);
        print("notify_batch_calls_per_listener", calls.notifyBatchCallsPerBatch);
        print("notify_batch_keys_per_call", calls.notifyBatchKeysPerCall);
        print("floor_map_lookup_ns", calls.floorMapNanos);
        print("cached_get_p50_ns", calls.cachedP50Nanos);
        print("cached_get_p99_ns", calls.cachedP99Nanos);
        print("cached_get_ratio", calls.cachedP50Nanos / calls.floorMapNanos);
        print("cached_get_ops_1", calls.cachedOpsOne);
        print("cached_get_ops_4", calls.cachedOpsFour);
        print("cache_coherence_us", calls.coherenceMicros);
    }
    if (all || only == "schema") {
        print("schema_cold_ms", schema.coldMillis);
        print("schema_warm_ms", schema.warmMillis);
    }
    if (all || only == "ipc") printf("daemon_rss_kb: %ld\n", calls.daemonRssKb);
    return 0;
}
