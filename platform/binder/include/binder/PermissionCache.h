#pragma once

#include <sys/types.h>
#include <utils/String16.h>

#include <cstdint>

namespace android {

// Checks of operating-system permissions. Root (uid 0) and the process itself are always granted;
// any other caller is asked of the service "permission"
// (android.os.IPermissionController.checkPermission(permission, pid, uid)) on every check; when
// that service is not published (looked up without waiting) or cannot be reached, the permission
// is denied.
class PermissionCache {
public:
    PermissionCache() = delete;

    // For the calling identity of the current thread (IPCThreadState).
    static bool checkCallingPermission(const String16& permission);
    // As above; also reports the identity that was checked.
    static bool checkCallingPermission(const String16& permission, int32_t* outPid,
                                       int32_t* outUid);
    static bool checkPermission(const String16& permission, pid_t pid, uid_t uid);

    // Nothing is remembered between checks; kept for source compatibility.
    static void purgeCache();
};

}  // namespace android
