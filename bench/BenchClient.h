#pragma once

#include <string>
#include <vector>

namespace Halo::OS {

// The client side of the IPC measurements: prefs-bench runs itself with "--client ROLE ..." in
// processes of the bench app's uid, and each role talks to the daemon through the generated
// IPreferencesService proxy (BINDER_DIR names the daemon's service directory). Results are
// printed on standard output as "name value" lines, times in microseconds.
//
// Roles:
//   get-latency COUNT [store]
//                        times COUNT getInteger calls of the read keys and as many raw socket
//                        round trips of the same sizes, in alternating blocks: floor_p50_us,
//                        floor_one_cpu_p50_us, get_p50_us, get_p99_us; with "store", first
//                        stores their values. The echo process of the round trips runs on the
//                        CPU named by the variable kEchoCpuVariable, when it is set
//   set-latency COUNT    times COUNT setInteger calls: set_p50_us
//   throughput SECONDS   prints "ready", waits until descriptor 3 reaches its end, then calls
//                        getInteger back to back for SECONDS: ops N
//   listen               registers a listener for the notify key, prints "ready", writes the
//                        steady-clock time (int64 nanoseconds) of every onChanged to
//                        descriptor 3, and ends when standard input ends, printing
//                        listen_calls and listen_keys (the onChanged calls and the keys they
//                        carried)
//   notify COUNT         sets the notify key COUNT times, each time reading from descriptor 3
//                        the time its onChanged arrived: notify_p50_us, sets N
//   listen-batch         as listen, for the ten keys of a batch (the notify key first)
//   notify-batch COUNT   as notify, with one setBatch of the ten keys each time:
//                        notify_batch_p50_us, sets N
//   batch-latency COUNT  times COUNT rounds of ten setInteger calls and of one setBatch of the
//                        same ten keys: set_10_p50_us, batch_set_10_p50_us
class BenchClient {
public:
    static constexpr const char* kEchoCpuVariable = "PREFS_BENCH_ECHO_CPU";

    // Runs a role; returns the process exit status (0 when it measured, 1 when it failed, 2 for
    // an unknown role or bad arguments).
    static int run(const std::vector<std::string>& args);
};

}  // namespace Halo::OS
