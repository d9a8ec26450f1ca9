#define LOG_TAG "PreferencesService"

#include "prefs-appinfo/AppInfoSimulator.h"

#include <binder/IServiceManager.h>
#include <dirent.h>
#include <log/log.h>
#include <sys/stat.h>
#include <utils/String16.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "prefs-appinfo/AppInfoInquirerService.h"
#include "prefs-appinfo/PermissionControllerService.h"

namespace Halo::OS {

namespace {

bool isPackageFileName(const std::string& name) {
    constexpr char kSuffix[] = ".json";
    constexpr size_t kSuffixLength = sizeof(kSuffix) - 1;
    return name.size() > kSuffixLength && name[0] != '.' &&
           name.compare(name.size() - kSuffixLength, kSuffixLength, kSuffix) == 0 &&
           name != AppInfoSimulator::kUsersFileName;
}

std::string describe(const PackageFile& package) {
    return package.packageName() + " (uid " + std::to_string(package.uid()) + ")";
}

}  // namespace

AppInfoSimulator::AppInfoSimulator(std::string packagesDir, std::vector<uid_t> systemUids)
    : mPackagesDir(std::move(packagesDir)),
      mInquirer(new AppInfoInquirerService(this, std::move(systemUids))),
      mPermissions(new PermissionControllerService(&mCatalog)) {}

AppInfoSimulator::~AppInfoSimulator() {
    if (mWatcher) mWatcher->stop();
}

bool AppInfoSimulator::start(std::string* error) {
    struct stat status;
    if (stat(mPackagesDir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        *error = mPackagesDir + " is not a folder";
        return false;
    }
    // Following starts before the first reading, so no change between the two is missed.
    mWatcher = std::make_unique<PackageDirectoryWatcher>(
            mPackagesDir,
            [this](const std::string& fileName, PackageDirectoryWatcher::Change change) {
                onChange(fileName, change);
            });
    std::string reason;
    if (!mWatcher->start(&reason)) {
        *error = "cannot follow changes of " + mPackagesDir + ": " + reason;
        mWatcher.reset();
        return false;
    }
    {
        Mutex::Autolock lock(mEventMutex);
        readFolder(false);
        ALOGI("prefs-appinfo: %zu packages in %s; users %s", mCatalog.packages().size(),
              mPackagesDir.c_str(), mCatalog.users().toString().c_str());
    }
    const android::sp<android::IServiceManager> services = android::defaultServiceManager();
    for (const auto& [name, binder] : {std::pair<const char*, android::sp<android::IBinder>>{
                                               kPermissionServiceName, mPermissions},
                                       {kInquirerServiceName, mInquirer}}) {
        if (services->addService(android::String16(name), binder) != android::OK) {
            *error = std::string("cannot publish the service ") + name;
            return false;
        }
    }
    return true;
}

void AppInfoSimulator::attachListener(
        const android::sp<nimbus::internal::IPreferencesAppInfoListener>& listener) {
    Mutex::Autolock lock(mEventMutex);
    const DeviceUsers users = mCatalog.users();
    std::vector<AppInfoEvent> first;
    first.push_back(AppInfoEvent::userList(users.users()));
    first.push_back(AppInfoEvent::currentUser(users.current()));
    first.push_back(AppInfoEvent::schema(mCatalog.fullSchemaList()));
    mChannel.attach(listener, std::move(first));
    ALOGI("prefs-appinfo: listener registered; sending users %s and %zu packages",
          users.toString().c_str(), mCatalog.packages().size());
}

bool AppInfoSimulator::detachListener() {
    const bool had = mChannel.detach();
    ALOGI("prefs-appinfo: listener unregistered");
    return had;
}

void AppInfoSimulator::resendPackages() {
    Mutex::Autolock lock(mEventMutex);
    mChannel.send(AppInfoEvent::schema(mCatalog.fullSchemaList()));
}

std::vector<int32_t> AppInfoSimulator::users() const {
    return mCatalog.users().users();
}

void AppInfoSimulator::onChange(const std::string& fileName,
                                PackageDirectoryWatcher::Change change) {
    Mutex::Autolock lock(mEventMutex);
    if (change == PackageDirectoryWatcher::Change::Rescan) {
        readFolder(true);
    } else if (fileName == kUsersFileName) {
        usersChanged();
    } else if (isPackageFileName(fileName)) {
        if (change == PackageDirectoryWatcher::Change::Written) {
            packageWritten(fileName);
        } else {
            packageRemoved(fileName);
        }
    }
}

void AppInfoSimulator::packageWritten(const std::string& fileName) {
    PackageFile package;
    std::string error;
    if (!PackageFile::load(pathOf(fileName), &package, &error)) {
        ALOGE("prefs-appinfo: %s: %s; skipped", pathOf(fileName).c_str(), error.c_str());
        return;
    }
    const std::string added = PackageCatalog::addList(package);
    const std::string name = describe(package);
    const PackageFile written = package;
    const std::optional<PackageFile> previous = mCatalog.put(fileName, std::move(package));
    if (previous && !previous->samePackage(written)) {
        // The file now declares another package: the one it declared before is gone.
        mChannel.send(AppInfoEvent::schema(PackageCatalog::removalList(*previous)));
    }
    mChannel.send(AppInfoEvent::schema(added));
    ALOGI("prefs-appinfo: %s %s from %s", previous ? "updated" : "installed", name.c_str(),
          fileName.c_str());
}

void AppInfoSimulator::packageRemoved(const std::string& fileName) {
    const std::optional<PackageFile> removed = mCatalog.remove(fileName);
    if (!removed) return;
    mChannel.send(AppInfoEvent::schema(PackageCatalog::removalList(*removed)));
    ALOGI("prefs-appinfo: uninstalled %s (%s removed)", describe(*removed).c_str(),
          fileName.c_str());
}

void AppInfoSimulator::usersChanged() {
    DeviceUsers next;
    std::string error;
    if (!DeviceUsers::load(pathOf(kUsersFileName), &next, &error)) {
        ALOGE("prefs-appinfo: %s: %s; skipped", pathOf(kUsersFileName).c_str(), error.c_str());
        return;
    }
    const DeviceUsers previous = mCatalog.setUsers(next);
    mChannel.send(AppInfoEvent::userList(next.users()));
    mChannel.send(AppInfoEvent::currentUser(next.current()));
    for (int32_t user : previous.removedIn(next)) {
        mChannel.send(AppInfoEvent::deleteUserData(user));
    }
    ALOGI("prefs-appinfo: users %s", next.toString().c_str());
}

void AppInfoSimulator::readFolder(bool notify) {
    std::vector<std::string> names;
    if (DIR* dir = opendir(mPackagesDir.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            if (isPackageFileName(entry->d_name)) names.emplace_back(entry->d_name);
        }
        closedir(dir);
    } else {
        ALOGE("prefs-appinfo: cannot read %s", mPackagesDir.c_str());
        return;
    }
    std::sort(names.begin(), names.end());
    for (const std::string& known : mCatalog.fileNames()) {
        if (!std::binary_search(names.begin(), names.end(), known)) mCatalog.remove(known);
    }
    for (const std::string& name : names) {
        PackageFile package;
        std::string error;
        if (!PackageFile::load(pathOf(name), &package, &error)) {
            ALOGE("prefs-appinfo: %s: %s; skipped", pathOf(name).c_str(), error.c_str());
            continue;
        }
        mCatalog.put(name, std::move(package));
    }
    DeviceUsers users;
    std::string error;
    if (!DeviceUsers::load(pathOf(kUsersFileName), &users, &error)) {
        ALOGE("prefs-appinfo: %s: %s; skipped", pathOf(kUsersFileName).c_str(), error.c_str());
        users = mCatalog.users();
    }
    const DeviceUsers previous = mCatalog.setUsers(users);
    if (!notify) return;
    mChannel.send(AppInfoEvent::userList(users.users()));
    mChannel.send(AppInfoEvent::currentUser(users.current()));
    for (int32_t user : previous.removedIn(users)) {
        mChannel.send(AppInfoEvent::deleteUserData(user));
    }
    mChannel.send(AppInfoEvent::schema(mCatalog.fullSchemaList()));
}

std::string AppInfoSimulator::pathOf(const std::string& fileName) const {
    return mPackagesDir + "/" + fileName;
}

}  // namespace Halo::OS
