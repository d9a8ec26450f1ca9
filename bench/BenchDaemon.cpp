#include "BenchDaemon.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "BenchSchemas.h"

namespace Halo::OS {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(30);
constexpr auto kStopTimeout = std::chrono::seconds(20);

bool waitForFile(const std::string& path, const ClientProcess& process) {
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (access(path.c_str(), F_OK) == 0) return true;
        if (kill(process.pid(), 0) != 0) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

BenchDaemon::BenchDaemon(std::string daemonPath, std::string appInfoPath)
    : mDaemonPath(std::move(daemonPath)),
      mAppInfoPath(std::move(appInfoPath)),
      mDir("prefs-bench-device"),
      mBinderDir(mDir.makeDirectory("binder")) {}

BenchDaemon::~BenchDaemon() {
    stop();
}

bool BenchDaemon::start(size_t fillers) {
    const std::string packages = mDir.makeDirectory("packages");
    if (!BenchSchemas::writePackageFiles(packages, BenchSchemas::devicePackages(fillers))) {
        fprintf(stderr, "prefs-bench: cannot write the package files into %s\n", packages.c_str());
        return false;
    }
    ClientProcess::Options appInfo;
    appInfo.argv = {mAppInfoPath, "--packages", packages, "--binder-dir", mBinderDir};
    appInfo.logFile = mDir.file("prefs-appinfo.log");
    mAppInfo = std::make_unique<ClientProcess>(appInfo);
    if (!mAppInfo->started() || !waitForFile(mBinderDir + "/permission", *mAppInfo) ||
        !waitForFile(mBinderDir + "/PreferencesAppInfoInquirer", *mAppInfo)) {
        fprintf(stderr, "prefs-bench: %s did not start (log: %s)\n", mAppInfoPath.c_str(),
                appInfo.logFile->c_str());
        return false;
    }

    ClientProcess::Options daemon;
    daemon.argv = {mDaemonPath,         "--binder-dir",    mBinderDir,
                   "--data-dir",        mDir.file("data"), "--legacy-dir",
                   mDir.file("legacy"), "--config-dir",    mDir.file("config")};
    daemon.logFile = mDir.file("preferencesd.log");
    mDaemon = std::make_unique<ClientProcess>(daemon);
    if (!mDaemon->started() || !waitForFile(mBinderDir + "/PreferencesService", *mDaemon)) {
        fprintf(stderr, "prefs-bench: %s did not start (log: %s)\n", mDaemonPath.c_str(),
                daemon.logFile->c_str());
        return false;
    }
    return true;
}

bool BenchDaemon::stop() {
    bool clean = true;
    if (mDaemon != nullptr) {
        mDaemon->kill(SIGTERM);
        const int status = mDaemon->wait(kStopTimeout);
        clean = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        mDaemon.reset();
    }
    if (mAppInfo != nullptr) {
        mAppInfo->kill(SIGTERM);
        mAppInfo->wait(kStopTimeout);
        mAppInfo.reset();
    }
    return clean;
}

long BenchDaemon::daemonRssKb() const {
    if (mDaemon == nullptr) return -1;
    std::ifstream status("/proc/" + std::to_string(mDaemon->pid()) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

}  // namespace Halo::OS
