#include "keymanager/PreferencesAccess.h"

#include <binder/IPCThreadState.h>
#include <binder/PermissionCache.h>
#include <unistd.h>

namespace Halo::OS {

PreferencesAccess::CallingContext PreferencesAccess::getCallingContext() const {
    const android::IPCThreadState* ipc = android::IPCThreadState::self();
    return {ipc->getCallingPid(), ipc->getCallingUid()};
}

bool PreferencesAccess::checkPermission(const CallingContext& caller,
                                        const android::String16& permission) const {
    return android::PermissionCache::checkPermission(permission, caller.pid, caller.uid);
}

bool PreferencesAccess::isOwnProcess(const CallingContext& caller) {
    return caller.pid == getpid();
}

}  // namespace Halo::OS
