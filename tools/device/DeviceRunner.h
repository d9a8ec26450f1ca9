#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Halo::OS {

// A whole host device for the tools that load one (prefs-soak, prefs-attack): prefs-appinfo and
// preferencesd started on a work directory of their own, with a package folder the caller fills.
// Not thread-safe; one instance per tool run. The destructor kills whatever is still running.
class DeviceRunner {
public:
    struct Programs {
        std::string preferencesd;
        std::string appinfo;
        // The device configuration folder (native schemas, legacy keys).
        std::string config;
    };

    // `work` empty: a fresh directory under /tmp. The work directory is made 0755 so that the
    // app uids the tools switch to can reach the service sockets.
    DeviceRunner(Programs programs, std::string work);
    ~DeviceRunner();
    DeviceRunner(const DeviceRunner&) = delete;
    DeviceRunner& operator=(const DeviceRunner&) = delete;

    const std::string& work() const { return mWork; }
    const std::string& binderDir() const { return mBinder; }
    const std::string& dataDir() const { return mData; }
    const std::string& packagesDir() const { return mPackages; }
    // Both programs write here (appended).
    const std::string& logPath() const { return mLog; }
    pid_t daemonPid() const { return mDaemon; }
    pid_t appInfoPid() const { return mAppInfo; }

    // Replaces `name` in the package folder atomically (written beside it, then renamed).
    void writeFile(const std::string& name, const std::string& text) const;
    void removeFile(const std::string& name) const;

    // Starts prefs-appinfo, then preferencesd, and waits (up to two minutes) until the service
    // is published. Sets BINDER_DIR for this process and its later children. False when the
    // daemon does not come up (both are then killed; the log says why).
    bool start();
    // Stops prefs-appinfo with SIGTERM and starts it again on the same folder.
    bool restartAppInfo();
    // True while `pid` runs (a zombie counts as ended).
    static bool alive(pid_t pid);
    // SIGTERM to the daemon, then to prefs-appinfo. Returns true when the daemon exited with 0.
    bool stop();

    // The resident size in kB and the number of open descriptors of `pid`, or -1.
    static long residentKb(pid_t pid);
    static int descriptors(pid_t pid);

    // JSON of one schema entry and of a package file holding `contents` (entries joined by
    // commas) and the OS permissions to read and write settings when `permissions` is true.
    static std::string entry(const std::string& key, const std::string& type,
                             const std::string& defaultValue, const std::string& scope);
    static std::string package(uid_t uid, const std::string& name, const std::string& contents,
                               bool permissions = true);

private:
    pid_t spawn(const std::vector<std::string>& argv) const;
    bool waitForService() const;

    Programs mPrograms;
    std::string mWork;
    std::string mBinder;
    std::string mData;
    std::string mPackages;
    std::string mLog;
    pid_t mAppInfo = -1;
    pid_t mDaemon = -1;
};

}  // namespace Halo::OS
