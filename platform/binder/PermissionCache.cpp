#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/PermissionCache.h>
#include <binder/Status.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <set>
#include <utility>

#include "threads/Mutex.h"

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

// This process's id, without a system call on every check; a child of fork() learns its own.
std::atomic<pid_t> gOwnPid{0};

void learnOwnPid() {
    gOwnPid.store(getpid(), std::memory_order_relaxed);
}

pid_t ownPid() {
    static const bool kLearned = [] {
        learnOwnPid();
        pthread_atfork(nullptr, nullptr, learnOwnPid);
        return true;
    }();
    (void)kLearned;
    return gOwnPid.load(std::memory_order_relaxed);
}

// Grants given by one permission service, in one process.
class GrantCache {
public:
    // True when `permission` was granted to `uid` by a permission service that is still alive.
    bool contains(const String16& permission, uid_t uid, pid_t self) EXCLUDES(mLock) {
        sp<IBinder> forgotten;
        Halo::OS::Mutex::Autolock lock(mLock);
        if (mGrants.empty()) return false;
        if (self != mOwner || mController == nullptr || !mController->isBinderAlive()) {
            forgotten = forgetLocked();
            return false;
        }
        return mGrants.count(Grant(uid, permission)) != 0;
    }

    // Counts the purges; a grant asked for before a purge is not remembered after it.
    uint64_t generation() EXCLUDES(mLock) {
        Halo::OS::Mutex::Autolock lock(mLock);
        return mGeneration;
    }

    // Remembers a grant of `controller`, asked for at `generation`, unless a purge came since;
    // grants of any other permission service are dropped.
    void add(const sp<IBinder>& controller, const String16& permission, uid_t uid, pid_t self,
             uint64_t generation) EXCLUDES(mLock) {
        sp<IBinder> forgotten;
        Halo::OS::Mutex::Autolock lock(mLock);
        if (generation != mGeneration) return;
        if (self != mOwner || controller != mController) {
            forgotten = forgetLocked();
            mOwner = self;
            mController = controller;
        }
        mGrants.emplace(uid, permission);
    }

    void purge() EXCLUDES(mLock) {
        sp<IBinder> forgotten;
        Halo::OS::Mutex::Autolock lock(mLock);
        ++mGeneration;
        forgotten = forgetLocked();
    }

private:
    using Grant = std::pair<uid_t, String16>;

    // Returns the controller, for the caller to drop after the lock (it may hold the last
    // reference to a proxy).
    sp<IBinder> forgetLocked() REQUIRES(mLock) {
        mGrants.clear();
        return std::move(mController);
    }

    Halo::OS::Mutex mLock;
    pid_t mOwner GUARDED_BY(mLock) = -1;  // the process that asked; a child of fork() asks anew
    sp<IBinder> mController GUARDED_BY(mLock);
    std::set<Grant> mGrants GUARDED_BY(mLock);
    uint64_t mGeneration GUARDED_BY(mLock) = 0;
};

// Never destroyed: checks may come from threads that outlive static destruction.
GrantCache& grantCache() {
    static GrantCache* cache = new GrantCache();
    return *cache;
}

// android.os.IPermissionController.checkPermission(String permission, int pid, int uid), its
// first transaction. False when the call fails.
bool askController(const sp<IBinder>& controller, const String16& permission, pid_t pid,
                   uid_t uid) {
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
    const pid_t self = ownPid();
    if (uid == 0 || pid == self) return true;
    GrantCache& cache = grantCache();
    if (cache.contains(permission, uid, self)) return true;
    const uint64_t generation = cache.generation();
    sp<IBinder> controller = defaultServiceManager()->checkService(permissionServiceName());
    if (controller == nullptr || !askController(controller, permission, pid, uid)) return false;
    cache.add(controller, permission, uid, self, generation);
    return true;
}

void PermissionCache::purgeCache() {
    grantCache().purge();
}

}  // namespace android
