#pragma once

#include <nimbus/internal/IPreferencesAppInfoListener.h>
#include <sys/types.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "prefs-appinfo/AppInfoListenerChannel.h"
#include "prefs-appinfo/PackageCatalog.h"
#include "prefs-appinfo/PackageDirectoryWatcher.h"
#include "threads/Mutex.h"

namespace Halo::OS {

class AppInfoInquirerService;
class PermissionControllerService;

// The device simulator: plays the device's app-info service and permission controller from a
// folder of package files.
//
// Every "*.json" of the folder except "users.json" is one installed package (PackageFile);
// "users.json" lists the users (DeviceUsers). The folder is read at start and then followed:
//   - a package file written: an add list with that package (preceded by a removal list of the
//     package the file held before, when its uid or name changed);
//   - a package file removed: a removal list of its package;
//   - users.json written or removed: the user list, the current user, and deleteUserData for
//     every user that is gone.
// A file that does not parse is logged and skipped (a package file keeps its previous package).
// Hidden files (".name") and names not ending in ".json" are ignored.
class AppInfoSimulator {
public:
    static constexpr const char* kInquirerServiceName = "PreferencesAppInfoInquirer";
    static constexpr const char* kPermissionServiceName = "permission";
    static constexpr const char* kUsersFileName = "users.json";

    // `systemUids`: uids besides root and application id 1000 that may register a listener (see
    // AppInfoInquirerService).
    AppInfoSimulator(std::string packagesDir, std::vector<uid_t> systemUids);
    // Stops following the folder.
    ~AppInfoSimulator();
    AppInfoSimulator(const AppInfoSimulator&) = delete;
    AppInfoSimulator& operator=(const AppInfoSimulator&) = delete;

    // Reads the folder, starts following it and publishes "permission", then
    // "PreferencesAppInfoInquirer" in the process's Binder directory. False, with the reason in
    // `error`, when the folder cannot be followed or a service cannot be published.
    bool start(std::string* error) EXCLUDES(mEventMutex);

    // ---- Called by the inquirer service (on Binder threads) ----

    // Makes `listener` the listener; it then receives the user list, the current user and the
    // schema list of every package ("add" and "restart" true).
    void attachListener(const android::sp<nimbus::internal::IPreferencesAppInfoListener>& listener)
            EXCLUDES(mEventMutex);
    // Drops the listener; false when there was none.
    bool detachListener();
    // Sends the schema list of every package to the listener again.
    void resendPackages() EXCLUDES(mEventMutex);
    std::vector<int32_t> users() const;

    const PackageCatalog& catalog() const { return mCatalog; }

private:
    // Applies one change of the folder (the watcher's callback).
    void onChange(const std::string& fileName, PackageDirectoryWatcher::Change change)
            EXCLUDES(mEventMutex);
    void packageWritten(const std::string& fileName) REQUIRES(mEventMutex);
    void packageRemoved(const std::string& fileName) REQUIRES(mEventMutex);
    void usersChanged() REQUIRES(mEventMutex);
    // Loads every file of the folder; reports what differs when `notify` is set.
    void readFolder(bool notify) REQUIRES(mEventMutex);
    std::string pathOf(const std::string& fileName) const;

    const std::string mPackagesDir;
    PackageCatalog mCatalog;
    AppInfoListenerChannel mChannel;
    // Serialises changes of the folder with the registration of a listener, so the listener sees
    // the events in the order of the changes, after its first full list.
    Mutex mEventMutex;
    android::sp<AppInfoInquirerService> mInquirer;
    android::sp<PermissionControllerService> mPermissions;
    std::unique_ptr<PackageDirectoryWatcher> mWatcher;
};

}  // namespace Halo::OS
