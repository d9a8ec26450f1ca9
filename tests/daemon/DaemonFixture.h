#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {

// An application uid that holds no OS permission (no permission service runs in these tests).
constexpr uid_t kAppUid = 10123;
// Integer keys stream_0 ... stream_<kStreamKeys - 1> of the test schema, default 0.
constexpr int kStreamKeys = 400;

// Starts `argv` as `uid` after the shell commands `prefix`, its standard output and error
// appended to `logPath`.
std::unique_ptr<ChildProcess> startLogged(const std::string& logPath,
                                          const std::vector<std::string>& argv, uid_t uid = 0,
                                          const std::string& prefix = "");
// True once `path` is a socket; false when `process` ended before, or after two minutes.
bool waitForSocket(const std::string& path, ChildProcess& process);
// The whole text of the file at `path` (empty when it cannot be read).
std::string readFile(const std::string& path);

// A daemon on directories of its own: service directory, data directory (not created
// beforehand), legacy directory, and a device configuration made of the example device's files
// plus native/daemon.test.json, which declares for the daemon's own uid (root) the system keys
// test_integer, test_long, test_float, test_double, test_boolean, test_string (defaults 1, 2,
// 3.5, 4.25, false, "five"), autosleep_time (7), seeded_a, seeded_b (1) and the stream keys.
// BINDER_DIR is set for the clients the test runs. The daemon's ASan quarantine is kept small,
// so that its resident size follows what it really holds. A daemon still running at the end is
// stopped as stop() does; on failure the daemons' output is printed.
class DaemonTest : public ::testing::Test {
protected:
    static constexpr const char* kService = "PreferencesService";

    void SetUp() override;
    void TearDown() override;

    // preferencesd with this test's directories, then `extra`.
    std::vector<std::string> daemonArgs(const std::vector<std::string>& extra = {}) const;
    // Starts the daemon (after the shell commands `shellPrefix`, e.g. "ulimit -n 256;") and
    // waits until its socket exists.
    void start(const std::vector<std::string>& extra = {}, const std::string& shellPrefix = "");
    // Ends the daemon with `signal`; returns its wait status. After SIGKILL the socket left
    // behind, as a crash leaves it, is removed, so that the next start's readiness can be seen.
    int killDaemon(int signal);
    // SIGTERM; expects exit status 0, the store closed (no write-ahead log left) and the socket
    // gone.
    void stop();
    void restart(const std::vector<std::string>& extra = {}) {
        stop();
        start(extra);
    }

    // The argument list that runs the test client as `uid` on the service with `ops`.
    std::vector<std::string> clientArgs(const std::vector<std::string>& ops, uid_t uid = 0) const;
    // Runs the test client as `uid`; returns its output lines and expects exit status 0.
    std::vector<std::string> client(const std::vector<std::string>& ops, uid_t uid = 0) {
        return runToEnd(clientArgs(ops, uid));
    }
    // The single answer line of one operation.
    std::string call(const std::vector<std::string>& op, uid_t uid = 0);
    // The dump text for `args` as `uid`, then the line "dump STATUS".
    std::string dump(const std::vector<std::string>& args = {}, uid_t uid = 0);

    std::string socketPath() const { return mBinderDir + "/" + kService; }
    // Everything the processes of this test wrote to the log.
    std::string log() const { return readFile(mLogPath); }

    TempDir mRoot;
    std::string mBinderDir;
    std::string mDataDir;
    std::string mLegacyDir;
    std::string mConfigDir;
    std::string mLogPath;
    std::unique_ptr<ChildProcess> mDaemon;
};

}  // namespace Halo::OS::testing
