#pragma once

#include <signal.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon/DaemonFixture.h"
#include "support/SqlRows.h"

namespace Halo::OS::testing {

// Applications of the test device (packages/ of every test): both hold READ_SETTINGS and
// WRITE_SETTINGS. Alpha declares alpha_sys (system), alpha_user (user), alpha_cross (crossUser),
// integers with default 1, and alpha_text (string, system, default "a"); beta declares beta_sys
// (integer, system, default 2). Users 0 and 10 exist; 0 is current.
constexpr uid_t kAlphaUid = 10057;
constexpr uid_t kBetaUid = 10058;

// A whole device for tests that attack it: the daemon of DaemonTest, and prefs-appinfo on
// packages/, which also answers the daemon's permission checks. Hostile clients (the test
// client's misbehaving operations) run as root or, through setpriv, as app uids.
class ReliabilityTest : public DaemonTest {
protected:
    static constexpr const char* kInquirer = "PreferencesAppInfoInquirer";

    void SetUp() override;
    void TearDown() override;

    // Starts prefs-appinfo and waits until its socket exists.
    void startAppInfo();
    // Ends prefs-appinfo with `signal`.
    void stopAppInfo(int signal);
    // prefs-appinfo, then the daemon (see DaemonTest::start); returns once alpha's keys arrived.
    void startDevice(const std::string& shellPrefix = "");

    // Starts the test client with the operations `ops` as `uid`; the caller reads its lines.
    std::unique_ptr<ChildProcess> hostile(const std::vector<std::string>& ops, uid_t uid = 0) {
        return std::make_unique<ChildProcess>(clientArgs(ops, uid));
    }

    // Writes packages/`name` (a whole package file).
    void writePackage(const std::string& name, const std::string& text);
    // A package file for `uid` and `package` declaring `keys` as writable integer system keys
    // (default 0), holding both settings permissions.
    static std::string packageText(uid_t uid, const std::string& package,
                                   const std::vector<std::string>& keys);

    static long residentKb(pid_t pid);
    static int openDescriptors(pid_t pid);
    // How many times `needle` occurs in `text`.
    static int countOf(const std::string& text, const std::string& needle);
    // Every row of `sql` on the database at `path`, columns joined by '|'.
    static std::vector<std::string> query(const std::string& path, const std::string& sql) {
        return sqlRows(path, sql);
    }

    std::string mPackagesDir;
    std::unique_ptr<ChildProcess> mAppInfo;
};

}  // namespace Halo::OS::testing
