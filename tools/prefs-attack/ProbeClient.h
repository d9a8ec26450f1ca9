#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "prefs-attack/AppProcess.h"

namespace Halo::OS {

// A well-behaved app that keeps using the service while an attack runs: it alternately sets its
// own key to the next number of a sequence and reads it back, until the deadline, and times every
// call. Afterwards `writesKept` reads the key again in a new process: it must hold the last write
// that the service acknowledged (nobody else writes it).
class ProbeClient {
public:
    struct Figures {
        long calls = 0;
        long failed = 0;
        double p50Us = 0;
        double p99Us = 0;
        long lastAcknowledged = -1;
        bool ran = false;
    };

    ProbeClient(uid_t uid, std::string key) : mUid(uid), mKey(std::move(key)) {}

    void start(std::chrono::steady_clock::time_point deadline);
    // Waits for the deadline's end of the run.
    Figures finish();
    // True when the key holds `figures.lastAcknowledged` (or nothing was acknowledged). Reads
    // refused meanwhile are retried for up to 30 s.
    bool writesKept(const Figures& figures) const;

private:
    uid_t mUid;
    std::string mKey;
    std::unique_ptr<AppProcess> mProcess;
};

}  // namespace Halo::OS
