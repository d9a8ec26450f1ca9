#pragma once

#include <sys/types.h>
#include <utils/String16.h>

#include <cstdint>

namespace android {

// Checks of operating-system permissions. Root (uid 0) and the process itself are always granted.
// Any other caller is asked of the service "permission"
// (android.os.IPermissionController.checkPermission(permission, pid, uid)); when that service is
// not published (looked up without waiting) or cannot be reached, the permission is denied. The
// look-up goes through the service manager, which trusts "permission" only when it is served by
// root or this process's effective uid unless the process said otherwise
// (IServiceManager::setTrustedServerUids): a "permission" served by anyone else counts as absent,
// so it denies.
//
// Grants are remembered per (permission, uid), as on the device, so that a caller that holds a
// permission pays the round trip to the permission service once: a refusal is never remembered,
// so a permission granted later is seen at the next check. Remembered grants are dropped by
// purgeCache(), when the permission service that gave them is found dead, and in a child of
// fork(); until then a permission revoked at the permission service stays granted here. A check
// that was asking the permission service while a purge happened does not remember its answer.
// Processes that learn of changes of installed packages call purgeCache() when they do.
//
// Thread-safe; the cache's lock is never held during a Binder call.
class PermissionCache {
public:
    PermissionCache() = delete;

    // For the calling identity of the current thread (IPCThreadState).
    static bool checkCallingPermission(const String16& permission);
    // As above; also reports the identity that was checked.
    static bool checkCallingPermission(const String16& permission, int32_t* outPid,
                                       int32_t* outUid);
    static bool checkPermission(const String16& permission, pid_t pid, uid_t uid);

    // Forgets every remembered grant: the next check of each asks the permission service.
    static void purgeCache();
};

}  // namespace android
