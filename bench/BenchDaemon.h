#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "BenchTempDir.h"
#include "ClientProcess.h"

namespace Halo::OS {

// The device the IPC measurements run against, in a temporary directory: prefs-appinfo serving
// the bench package and the filler packages (and the "permission" service that grants the bench
// package READ_SETTINGS and WRITE_SETTINGS), and preferencesd with its own data directory and no
// device configuration. Both are started as the current user; both write their logs to files in
// the directory. Stopped (SIGTERM, then reaped) on destruction.
class BenchDaemon {
public:
    BenchDaemon(std::string daemonPath, std::string appInfoPath);
    ~BenchDaemon();
    BenchDaemon(const BenchDaemon&) = delete;
    BenchDaemon& operator=(const BenchDaemon&) = delete;

    // Writes the package files, starts both processes and waits until their services are
    // published. False (reason on stderr, with the logs' paths) when one does not come up.
    bool start(size_t fillers);
    // Sends SIGTERM to both and waits for them; true when the daemon exited with status 0.
    bool stop();

    const std::string& binderDir() const { return mBinderDir; }
    // The daemon's resident set size now, in KiB; -1 when it cannot be read.
    long daemonRssKb() const;

private:
    std::string mDaemonPath;
    std::string mAppInfoPath;
    BenchTempDir mDir;
    std::string mBinderDir;
    std::unique_ptr<ClientProcess> mAppInfo;
    std::unique_ptr<ClientProcess> mDaemon;
};

}  // namespace Halo::OS
