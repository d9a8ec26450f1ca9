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

// The arguments that run `argv` as `uid` through setpriv; `argv` itself for uid 0.
std::vector<std::string> asUid(uid_t uid, std::vector<std::string> argv);

// preferencesd started as a child process (as `uid` unless 0), its standard output and error
// appended to `logPath`.
class DaemonProcess {
public:
    DaemonProcess(const std::vector<std::string>& args, const std::string& logPath, uid_t uid = 0);

    pid_t pid() const { return mChild.pid(); }
    // True once `socket` exists; false when the daemon ended before, or after two minutes.
    bool waitForSocket(const std::string& socket);
    // Sends `signal` and returns the wait status.
    int stop(int signal = SIGTERM);
    // Waits for the daemon to end by itself; returns the wait status.
    int wait() { return mChild.wait(); }

private:
    ChildProcess mChild;
};

// A daemon on directories of its own: service directory, data directory (not created
// beforehand), legacy directory, and a device configuration made of the example device's files
// plus native/daemon.test.json, which declares for the daemon's own uid (root) the system keys
// test_integer, test_long, test_float, test_double, test_boolean, test_string (defaults 1, 2,
// 3.5, 4.25, false, "five"), autosleep_time (7), seeded_a, seeded_b (1) and the stream keys.
// BINDER_DIR is set for the clients the test runs.
class DaemonTest : public ::testing::Test {
protected:
    static constexpr const char* kService = "PreferencesService";

    void SetUp() override;
    void TearDown() override;

    // preferencesd with this test's directories, then `extra`.
    std::vector<std::string> daemonArgs(const std::vector<std::string>& extra = {}) const;
    // Starts the daemon and waits until its socket exists.
    void start(const std::vector<std::string>& extra = {});
    // SIGTERM; expects exit status 0 and the store closed (no write-ahead log left).
    void stop();
    void restart(const std::vector<std::string>& extra = {}) {
        stop();
        start(extra);
    }

    // The argument list that runs the test client on the service with `ops`.
    std::vector<std::string> clientArgs(const std::vector<std::string>& ops) const;
    // Runs the test client as `uid`; returns its output lines and expects exit status 0.
    std::vector<std::string> client(const std::vector<std::string>& ops, uid_t uid = 0);
    // The single answer line of one operation.
    std::string call(const std::vector<std::string>& op, uid_t uid = 0);
    // The dump text for `args` as `uid`, then the line "dump STATUS".
    std::string dump(const std::vector<std::string>& args, uid_t uid = 0);

    std::string socketPath() const { return mBinderDir + "/" + kService; }
    // Everything the daemons of this test wrote to standard output and error.
    std::string log() const;

    TempDir mRoot;
    std::string mBinderDir;
    std::string mDataDir;
    std::string mLegacyDir;
    std::string mConfigDir;
    std::string mLogPath;
    std::unique_ptr<DaemonProcess> mDaemon;
};

}  // namespace Halo::OS::testing
