#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/PermissionCache.h>
#include <binder/Status.h>
#include <unistd.h>

namespace android {

namespace {

const String16& permissionServiceName() {
    static const String16 kName("permission");
    return kName;
}

const String16& permissionControllerDescriptor() {
    static const String16 kDescriptor("android.os.IPermissionController");
    return kDescriptor;
}

}  // namespace

bool PermissionCache::checkCallingPermission(const String16& permission) {
    return checkCallingPermission(permission, nullptr, nullptr);
}

bool PermissionCache::checkCallingPermission(const String16& permission, int32_t* outPid,
                                             int32_t* outUid) {
    const IPCThreadState* ipc = IPCThreadState::self();
    const pid_t pid = ipc->getCallingPid();
    const uid_t uid = ipc->getCallingUid();
    if (outPid != nullptr) *outPid = pid;
    if (outUid != nullptr) *outUid = static_cast<int32_t>(uid);
    return checkPermission(permission, pid, uid);
}

bool PermissionCache::checkPermission(const String16& permission, pid_t pid, uid_t uid) {
    if (uid == 0 || pid == getpid()) return true;

    // android.os.IPermissionController.checkPermission(String permission, int pid, int uid),
    // its first transaction.
    sp<IBinder> controller = defaultServiceManager()->checkService(permissionServiceName());
    if (controller == nullptr) return false;
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(permissionControllerDescriptor()) != OK ||
        data.writeString16(permission) != OK || data.writeInt32(pid) != OK ||
        data.writeInt32(static_cast<int32_t>(uid)) != OK) {
        return false;
    }
    if (controller->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply) != OK) return false;
    binder::Status status;
    if (status.readFromParcel(reply) != OK || !status.isOk()) return false;
    bool granted = false;
    return reply.readBool(&granted) == OK && granted;
}

void PermissionCache::purgeCache() {}

}  // namespace android
