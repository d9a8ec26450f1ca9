#define LOG_TAG "PreferencesService"

#include "prefs-appinfo/PermissionControllerService.h"

#include <log/log.h>
#include <utils/String8.h>

namespace Halo::OS {

android::binder::Status PermissionControllerService::checkPermission(
        const android::String16& permission, int32_t pid, int32_t uid, bool* granted) {
    const android::String8 name(permission);
    *granted = mCatalog->isGranted(std::string(name.string(), name.length()), uid);
    ALOGV("prefs-appinfo: %s for pid %d uid %d: %s", name.string(), pid, uid,
          *granted ? "granted" : "denied");
    return android::binder::Status::ok();
}

}  // namespace Halo::OS
