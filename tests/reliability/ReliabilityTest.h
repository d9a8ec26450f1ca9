#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {

// Applications of the test device (packages/ of every test): both hold READ_SETTINGS and
// WRITE_SETTINGS. Alpha declares alpha_sys (system), alpha_user (user), alpha_cross (crossUser),
// integers with default 1, and alpha_text (string, system, default "a"); beta declares beta_sys
// (integer, system, default 2). Users 0 and 10 exist; 0 is current.
constexpr uid_t kAlphaUid = 10057;
constexpr uid_t kBetaUid = 10058;
// Integer system keys stream_0 ... stream_<kStreamKeys - 1> (default 0) declared by a native
// schema of the daemon's own uid (root).
constexpr int kStreamKeys = 64;

// A whole device in a temporary folder, for tests that attack it: prefs-appinfo on packages/,
// preferencesd on data/ with the example device's configuration plus the stream keys, services
// in binder/; clients (prefs_test_client, prefs_hostile_client) run as root or, through setpriv,
// as app uids. BINDER_DIR is set for this process too. The daemon's ASan quarantine is kept
// small so that its resident size follows what it really holds.
class ReliabilityTest : public ::testing::Test {
protected:
    static constexpr const char* kService = "PreferencesService";
    static constexpr const char* kInquirer = "PreferencesAppInfoInquirer";

    void SetUp() override;
    void TearDown() override;

    // Starts prefs-appinfo and waits until its socket exists.
    void startAppInfo();
    // Ends prefs-appinfo with `signal`; returns its wait status.
    int stopAppInfo(int signal = SIGTERM);
    // Starts preferencesd (after the shell commands `shellPrefix`, e.g. "ulimit -n 256;") and
    // waits until its socket exists.
    void startDaemon(const std::string& shellPrefix = "");
    // Ends preferencesd with `signal`; returns its wait status. SIGKILL leaves the socket behind,
    // as a crash does; it is removed here so that the next start's readiness can be seen.
    int stopDaemon(int signal = SIGTERM);
    pid_t daemonPid() const;
    bool daemonRunning() const { return mDaemon != nullptr; }

    // Runs prefs_test_client as `uid` with `ops`; its output lines (exit status 0 expected).
    std::vector<std::string> client(const std::vector<std::string>& ops, uid_t uid = 0);
    std::string call(const std::vector<std::string>& op, uid_t uid = 0);
    // The argument list of prefs_test_client with `ops`, as `uid`.
    std::vector<std::string> clientArgs(const std::vector<std::string>& ops, uid_t uid) const;
    // Starts prefs_hostile_client with `args` as `uid`; the caller reads its lines.
    std::unique_ptr<ChildProcess> hostile(const std::vector<std::string>& args, uid_t uid = 0);
    // Runs prefs_hostile_client to its end; its output lines.
    std::vector<std::string> hostileLines(const std::vector<std::string>& args, uid_t uid = 0);

    // Writes packages/`name` (a whole package file).
    void writePackage(const std::string& name, const std::string& text);
    // A package file for `uid` and `package` declaring `keys` as writable integer system keys
    // (default 0), holding both settings permissions.
    static std::string packageText(uid_t uid, const std::string& package,
                                   const std::vector<std::string>& keys);

    // The default dump ("dump 0") as root.
    std::string dump();

    // Polls `condition` every 50 ms until it holds; false after two minutes.
    static bool eventually(const std::function<bool()>& condition);
    static long residentKb(pid_t pid);
    static int openDescriptors(pid_t pid);

    // "ok", or what PRAGMA integrity_check (or opening) reported for the database at `path`.
    static std::string integrity(const std::string& path);
    // Every row of `sql` on the database at `path` (opened read-only), columns joined by '|'.
    static std::vector<std::string> query(const std::string& path, const std::string& sql);

    // The daemon's and prefs-appinfo's output so far.
    std::string log() const;

    std::unique_ptr<TempDir> mRoot;
    std::string mBinderDir;
    std::string mDataDir;
    std::string mPackagesDir;
    std::string mConfigDir;
    std::string mLegacyDir;
    std::string mLogPath;
    std::unique_ptr<ChildProcess> mAppInfo;
    std::unique_ptr<ChildProcess> mDaemon;
};

}  // namespace Halo::OS::testing
