#include "model/PreferencesKeyInfo.h"

#include <cutils/multiuser.h>

#include <unordered_map>

#include "threads/Mutex.h"

namespace Halo::OS {
namespace {

constexpr unsigned int kSystemUid = 1000;

// The package-name registry: a map with the mutex that guards it. Leaked on purpose so that
// threads still running during static destruction can use it.
struct PackageNames {
    Mutex mutex;
    std::unordered_map<unsigned int, std::string> byAppId GUARDED_BY(mutex);
};

PackageNames& packageNames() {
    static PackageNames* names = new PackageNames;
    return *names;
}

}  // namespace

void PreferencesKeyInfo::set(unsigned int uid, std::string packageName) {
    PackageNames& names = packageNames();
    Mutex::Autolock lock(names.mutex);
    names.byAppId[multiuser_get_app_id(uid)] = std::move(packageName);
}

std::string PreferencesKeyInfo::get(unsigned int uid) {
    if (uid == kSystemUid) return "AID_SYSTEM";
    const unsigned int appId = multiuser_get_app_id(uid);
    PackageNames& names = packageNames();
    Mutex::Autolock lock(names.mutex);
    auto it = names.byAppId.find(appId);
    if (it != names.byAppId.end()) return it->second;
    return std::to_string(appId);
}

}  // namespace Halo::OS
