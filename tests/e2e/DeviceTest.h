#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "e2e/CommandResult.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {

// A whole simulated device in a temporary folder: prefs-appinfo on packages/, preferencesd on
// data/ with the example device's configuration, services in binder/, and the prefs tool run as
// root or, through setpriv, as any app uid. Every folder is open to other uids so that apps can
// reach the services. BINDER_DIR is set for this process too.
class DeviceTest : public ::testing::Test {
protected:
    static constexpr const char* kService = "PreferencesService";
    static constexpr const char* kInquirer = "PreferencesAppInfoInquirer";

    void SetUp() override;
    void TearDown() override;

    // Writes `text` to packages/`name` (in place, as an editor that saves the file does).
    void writePackageFile(const std::string& name, const std::string& text);
    void removePackageFile(const std::string& name);

    // Starts prefs-appinfo and waits until its services answer.
    void startAppInfo();
    // Ends prefs-appinfo with `signal`; returns its wait status.
    int stopAppInfo(int signal = SIGTERM);
    // Starts preferencesd and waits until its service answers.
    void startDaemon();
    // Ends preferencesd with SIGTERM and expects exit status 0.
    void stopDaemon();
    pid_t daemonPid() const;

    // Runs `prefs ARGS` as `uid` (through setpriv unless 0).
    CommandResult prefs(const std::vector<std::string>& args, uid_t uid = 0) const;
    // The arguments that run prefs with `args` as `uid`.
    std::vector<std::string> prefsArgs(const std::vector<std::string>& args, uid_t uid) const;
    // The output line of a successful `prefs get` as root with `args` (the key first).
    std::string rootGet(const std::vector<std::string>& args) const;

    // True when a connection to the service `name` is accepted now.
    bool answers(const std::string& name) const;

    const std::string& binderDir() const { return mBinderDir; }
    const std::string& dataDir() const { return mDataDir; }
    const std::string& packagesDir() const { return mPackagesDir; }

private:
    std::unique_ptr<TempDir> mRoot;
    std::string mBinderDir;
    std::string mDataDir;
    std::string mLegacyDir;
    std::string mPackagesDir;
    std::unique_ptr<ChildProcess> mAppInfo;
    std::unique_ptr<ChildProcess> mDaemon;
};

}  // namespace Halo::OS::testing
