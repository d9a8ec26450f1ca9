#pragma once

#include <cstddef>
#include <string>

namespace Halo::OS {

// The measurements over Binder: a BenchDaemon, and client processes running prefs-bench's client
// roles (BenchClient) under the bench app's uid (and the privileged package's for one figure).
// Needs root, to start processes under those uids.
class IpcBench {
public:
    struct Options {
        std::string selfPath;     // this executable, run again for the client roles
        std::string daemonPath;   // preferencesd
        std::string appInfoPath;  // prefs-appinfo
        size_t fillers = 0;       // filler packages declared besides the bench package
        size_t samples = 0;       // timed calls per latency figure
        double throughputSeconds = 0;
        // When not negative, clients run on clientCpu and the floor's echo process on
        // serviceCpu (the CPU the daemon and prefs-appinfo inherit from prefs-bench).
        int clientCpu = -1;
        int serviceCpu = -1;
    };
    struct Figures {
        // Raw socket round trip, measured by the get client: placed as the scheduler likes, as
        // the service's processes are, and with both ends on one CPU.
        double floorRttMicros = 0;
        double floorOneCpuRttMicros = 0;
        double getP50Micros = 0;
        double getP99Micros = 0;
        // The same gets from the privileged package's uid, which skips the OS permission check.
        double privilegedFloorRttMicros = 0;
        double privilegedGetP50Micros = 0;
        double setP50Micros = 0;
        double opsOne = 0;   // gets per second, one client
        double opsFour = 0;  // gets per second, four clients together
        double notifyP50Micros = 0;
        // Ten setInteger calls against one setBatch of the same ten keys; the notification of
        // a batch to a listener of its ten keys, its onChanged calls per batch and keys per call.
        double set10P50Micros = 0;
        double batchSet10P50Micros = 0;
        double notifyBatchP50Micros = 0;
        double notifyBatchCallsPerBatch = 0;
        double notifyBatchKeysPerCall = 0;
        // Through libprefsclient's read cache (CacheBenchClient).
        double floorMapNanos = 0;
        double cachedP50Nanos = 0;
        double cachedP99Nanos = 0;
        double cachedOpsOne = 0;
        double cachedOpsFour = 0;
        double coherenceMicros = 0;
        long daemonRssKb = -1;  // after every measurement, before the daemon stops
    };

    // False (reason on stderr) when the device does not start or a client fails.
    static bool measure(const Options& options, Figures* out);
};

}  // namespace Halo::OS
