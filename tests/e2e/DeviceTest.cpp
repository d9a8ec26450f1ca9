#include "e2e/DeviceTest.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace Halo::OS::testing {

void DeviceTest::SetUp() {
    mRoot = std::make_unique<TempDir>();
    chmod(mRoot->path().c_str(), 0755);
    mBinderDir = mRoot->file("binder");
    mDataDir = mRoot->file("data");
    mLegacyDir = mRoot->file("legacy");
    mPackagesDir = mRoot->file("packages");
    for (const std::string& dir : {mBinderDir, mLegacyDir, mPackagesDir}) {
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755)) << dir;
    }
    setenv("BINDER_DIR", mBinderDir.c_str(), 1);
}

void DeviceTest::TearDown() {
    if (mDaemon) stopDaemon();
    if (mAppInfo) stopAppInfo();
    mRoot.reset();
}

void DeviceTest::writePackageFile(const std::string& name, const std::string& text) {
    std::ofstream file(mPackagesDir + "/" + name, std::ios::trunc);
    file << text;
    file.close();
    ASSERT_TRUE(file.good()) << name;
}

void DeviceTest::removePackageFile(const std::string& name) {
    ASSERT_EQ(0, unlink((mPackagesDir + "/" + name).c_str())) << name;
}

void DeviceTest::startAppInfo() {
    mAppInfo = std::make_unique<ChildProcess>(std::vector<std::string>{
            PREFS_APPINFO, "--packages", mPackagesDir, "--binder-dir", mBinderDir});
    ASSERT_TRUE(eventually([this] { return answers(kInquirer) && answers("permission"); }))
            << "prefs-appinfo did not publish its services";
}

int DeviceTest::stopAppInfo(int signal) {
    if (!mAppInfo) return -1;
    mAppInfo->kill(signal);
    const int status = mAppInfo->wait();
    mAppInfo.reset();
    return status;
}

void DeviceTest::startDaemon() {
    mDaemon = std::make_unique<ChildProcess>(std::vector<std::string>{
            PREFERENCESD, "--binder-dir", mBinderDir, "--data-dir", mDataDir, "--legacy-dir",
            mLegacyDir, "--config-dir", PREFS_EXAMPLE_CONFIG_DIR});
    ASSERT_TRUE(eventually([this] { return answers(kService); }))
            << "preferencesd did not publish its service";
}

void DeviceTest::stopDaemon() {
    if (!mDaemon) return;
    mDaemon->kill(SIGTERM);
    const int status = mDaemon->wait();
    mDaemon.reset();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "daemon status " << status;
}

pid_t DeviceTest::daemonPid() const {
    return mDaemon ? mDaemon->pid() : -1;
}

std::vector<std::string> DeviceTest::prefsArgs(const std::vector<std::string>& args,
                                               uid_t uid) const {
    std::vector<std::string> argv = {PREFS_TOOL, "--binder-dir", mBinderDir};
    argv.insert(argv.end(), args.begin(), args.end());
    return asUid(uid, argv);
}

CommandResult DeviceTest::prefs(const std::vector<std::string>& args, uid_t uid) const {
    return CommandResult::run(prefsArgs(args, uid));
}

std::string DeviceTest::rootGet(const std::vector<std::string>& args) const {
    std::vector<std::string> words = {"get"};
    words.insert(words.end(), args.begin(), args.end());
    const CommandResult result = prefs(words);
    EXPECT_EQ(0, result.status) << result.err;
    std::string line = result.out;
    if (!line.empty() && line.back() == '\n') line.pop_back();
    return line;
}

bool DeviceTest::answers(const std::string& name) const {
    const std::string path = mBinderDir + "/" + name;
    sockaddr_un address{};
    if (path.size() >= sizeof(address.sun_path)) return false;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool connected =
            connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return connected;
}

}  // namespace Halo::OS::testing
