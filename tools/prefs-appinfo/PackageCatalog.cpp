#include "prefs-appinfo/PackageCatalog.h"

#include <cutils/multiuser.h>
#include <json/value.h>
#include <json/writer.h>

#include <utility>

namespace Halo::OS {

namespace {

// The application id of the system server, which holds every permission.
constexpr appid_t kSystemAppId = 1000;

std::string write(const Json::Value& list) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, list);
}

Json::Value listOf(bool add, bool restart) {
    Json::Value list(Json::objectValue);
    list["add"] = add;
    list["restart"] = restart;
    list["schemas"] = Json::Value(Json::arrayValue);
    return list;
}

}  // namespace

std::optional<PackageFile> PackageCatalog::put(const std::string& fileName, PackageFile package) {
    Mutex::Autolock lock(mMutex);
    std::optional<PackageFile> previous;
    auto found = mPackages.find(fileName);
    if (found != mPackages.end()) {
        previous = std::move(found->second);
        found->second = std::move(package);
    } else {
        mPackages.emplace(fileName, std::move(package));
    }
    return previous;
}

std::optional<PackageFile> PackageCatalog::remove(const std::string& fileName) {
    Mutex::Autolock lock(mMutex);
    auto found = mPackages.find(fileName);
    if (found == mPackages.end()) return std::nullopt;
    std::optional<PackageFile> removed = std::move(found->second);
    mPackages.erase(found);
    return removed;
}

std::vector<std::string> PackageCatalog::fileNames() const {
    Mutex::Autolock lock(mMutex);
    std::vector<std::string> names;
    names.reserve(mPackages.size());
    for (const auto& [name, package] : mPackages) names.push_back(name);
    return names;
}

std::vector<PackageFile> PackageCatalog::packages() const {
    Mutex::Autolock lock(mMutex);
    std::vector<PackageFile> all;
    all.reserve(mPackages.size());
    for (const auto& [name, package] : mPackages) all.push_back(package);
    return all;
}

DeviceUsers PackageCatalog::users() const {
    Mutex::Autolock lock(mMutex);
    return mUsers;
}

DeviceUsers PackageCatalog::setUsers(const DeviceUsers& users) {
    Mutex::Autolock lock(mMutex);
    DeviceUsers previous = mUsers;
    mUsers = users;
    return previous;
}

bool PackageCatalog::isGranted(const std::string& permission, int32_t uid) const {
    if (uid == 0) return true;
    const appid_t appId = multiuser_get_app_id(static_cast<uid_t>(uid));
    if (appId == kSystemAppId) return true;
    Mutex::Autolock lock(mMutex);
    for (const auto& [name, package] : mPackages) {
        if (multiuser_get_app_id(static_cast<uid_t>(package.uid())) == appId &&
            package.holdsPermission(permission)) {
            return true;
        }
    }
    return false;
}

std::string PackageCatalog::fullSchemaList() const {
    Json::Value list = listOf(true, true);
    Mutex::Autolock lock(mMutex);
    for (const auto& [name, package] : mPackages) list["schemas"].append(package.document());
    return write(list);
}

std::string PackageCatalog::addList(const PackageFile& package) {
    Json::Value list = listOf(true, false);
    list["schemas"].append(package.document());
    return write(list);
}

std::string PackageCatalog::removalList(const PackageFile& package) {
    Json::Value list = listOf(false, false);
    list["schemas"].append(package.removalDocument());
    return write(list);
}

}  // namespace Halo::OS
