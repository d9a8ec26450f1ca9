#pragma once

#include <string>
#include <vector>

namespace Halo::OS {

// The client side of the read-cache measurements, run like BenchClient's roles ("--client ROLE")
// in processes of the bench app's uid, through libprefsclient with its read cache on:
//   cached-latency COUNT  times COUNT lookups and copies of the read keys' texts in an
//                         std::unordered_map and COUNT cached getInteger calls of the same keys:
//                         floor_map_ns, cached_p50_ns, cached_p99_ns
//   cached-throughput SECONDS
//                         as BenchClient's throughput, with cached getInteger calls: ops N
//   coherence-watch       prints "ready", then reads the set key through its cache in a loop
//                         and writes (value, steady-clock nanoseconds) to descriptor 3 each
//                         time the answer changes; ends when standard input ends
//   coherence COUNT       sets the set key COUNT times, each time reading from descriptor 3 when
//                         the watcher saw the new value: coherence_p50_us
class CacheBenchClient {
public:
    // True when `role` is one of these roles; then `*status` is the process exit status.
    static bool run(const std::vector<std::string>& args, int* status);
};

}  // namespace Halo::OS
