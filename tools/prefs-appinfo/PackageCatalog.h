#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "prefs-appinfo/DeviceUsers.h"
#include "prefs-appinfo/PackageFile.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// What the simulated device has installed: the packages by the name of their file, and the
// users. Safe to use from any thread (one mutex guards it).
class PackageCatalog {
public:
    // Installs or replaces the package of `fileName`; returns the one it replaced, if any.
    std::optional<PackageFile> put(const std::string& fileName, PackageFile package)
            EXCLUDES(mMutex);
    // Removes the package of `fileName`; returns it, or nothing when the file held none.
    std::optional<PackageFile> remove(const std::string& fileName) EXCLUDES(mMutex);
    // The names of the files that hold a package, sorted.
    std::vector<std::string> fileNames() const EXCLUDES(mMutex);
    // Every package, in the order of their file names.
    std::vector<PackageFile> packages() const EXCLUDES(mMutex);

    DeviceUsers users() const EXCLUDES(mMutex);
    // Replaces the users; returns the previous ones.
    DeviceUsers setUsers(const DeviceUsers& users) EXCLUDES(mMutex);

    // Whether `uid` holds the OS permission `permission`: uid 0, application id 1000, and every
    // uid whose application id is that of an installed package holding the permission.
    bool isGranted(const std::string& permission, int32_t uid) const EXCLUDES(mMutex);

    // The schema list of every package: {"add": true, "restart": true, "schemas": [...]}.
    std::string fullSchemaList() const EXCLUDES(mMutex);
    // {"add": true, "restart": false, "schemas": [the package's document]}.
    static std::string addList(const PackageFile& package);
    // {"add": false, "restart": false, "schemas": [uid, packageName, version and date]}.
    static std::string removalList(const PackageFile& package);

private:
    mutable Mutex mMutex;
    std::map<std::string, PackageFile> mPackages GUARDED_BY(mMutex);
    DeviceUsers mUsers GUARDED_BY(mMutex);
};

}  // namespace Halo::OS
