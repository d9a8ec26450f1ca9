#include "device/DeviceRunner.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "process/ProcessSignals.h"

namespace Halo::OS {

namespace {

void killAndReap(pid_t* pid, int signal, int* status) {
    if (*pid <= 0) return;
    kill(*pid, signal);
    waitpid(*pid, status, 0);
    *pid = -1;
}

}  // namespace

DeviceRunner::DeviceRunner(Programs programs, std::string work)
    : mPrograms(std::move(programs)), mWork(std::move(work)) {
    if (mWork.empty()) {
        char pattern[] = "/tmp/prefs-device.XXXXXX";
        const char* made = mkdtemp(pattern);
        mWork = made != nullptr ? made : "/tmp/prefs-device";
    }
    std::filesystem::create_directories(mWork);
    chmod(mWork.c_str(), 0755);
    mBinder = mWork + "/binder";
    mData = mWork + "/data";
    mPackages = mWork + "/packages";
    mLog = mWork + "/device.log";
    std::filesystem::create_directories(mPackages);
}

DeviceRunner::~DeviceRunner() {
    killAndReap(&mDaemon, SIGKILL, nullptr);
    killAndReap(&mAppInfo, SIGKILL, nullptr);
}

void DeviceRunner::writeFile(const std::string& name, const std::string& text) const {
    const std::string path = mPackages + "/" + name;
    const std::string temporary = mPackages + "/." + name + ".tmp";
    std::ofstream(temporary) << text;
    std::filesystem::rename(temporary, path);
}

void DeviceRunner::removeFile(const std::string& name) const {
    unlink((mPackages + "/" + name).c_str());
}

pid_t DeviceRunner::spawn(const std::vector<std::string>& argv) const {
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(mLog.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        ProcessSignals::resetForExec();
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

bool DeviceRunner::waitForService() const {
    const std::string path = mBinder + "/PreferencesService";
    for (int i = 0; i < 6000; ++i) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
        if (!alive(mDaemon)) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

bool DeviceRunner::start() {
    setenv("BINDER_DIR", mBinder.c_str(), 1);
    mAppInfo = spawn({mPrograms.appinfo, "--packages", mPackages, "--binder-dir", mBinder});
    mDaemon = spawn({mPrograms.preferencesd, "--binder-dir", mBinder, "--data-dir", mData,
                     "--legacy-dir", mWork + "/legacy", "--config-dir", mPrograms.config});
    if (waitForService()) return true;
    killAndReap(&mDaemon, SIGKILL, nullptr);
    killAndReap(&mAppInfo, SIGKILL, nullptr);
    return false;
}

bool DeviceRunner::restartAppInfo() {
    killAndReap(&mAppInfo, SIGTERM, nullptr);
    mAppInfo = spawn({mPrograms.appinfo, "--packages", mPackages, "--binder-dir", mBinder});
    return mAppInfo > 0;
}

bool DeviceRunner::alive(pid_t pid) {
    if (pid <= 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    // pid, (comm), state: the command name may hold blanks, so skip to the last ')'.
    std::string line;
    if (!std::getline(stat, line)) return false;
    const size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

bool DeviceRunner::stop() {
    int status = -1;
    killAndReap(&mDaemon, SIGTERM, &status);
    killAndReap(&mAppInfo, SIGTERM, nullptr);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

long DeviceRunner::residentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

int DeviceRunner::descriptors(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* e = readdir(dir)) count += e->d_name[0] != '.';
    closedir(dir);
    return count;
}

std::string DeviceRunner::entry(const std::string& key, const std::string& type,
                                const std::string& defaultValue, const std::string& scope) {
    return R"({"key": ")" + key + R"(", "type": ")" + type + R"(", "default": ")" + defaultValue +
           R"(", "scope": ")" + scope + R"(", "hasWritePermission": true, "isOwner": true})";
}

std::string DeviceRunner::package(uid_t uid, const std::string& name, const std::string& contents,
                                  bool permissions) {
    const char* held = permissions ? R"("com.nimbus.permission.READ_SETTINGS",
           "com.nimbus.permission.WRITE_SETTINGS")"
                                   : "";
    return R"({"uid": )" + std::to_string(uid) + R"(, "packageName": ")" + name +
           R"(", "version": "1", "date": "01/01/2026", "permissions": [)" + held +
           R"(], "contents": [)" + contents + "]}";
}

}  // namespace Halo::OS
