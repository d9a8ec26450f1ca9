#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include <utility>

#include "binder/BinderConnection.h"
#include "binder/BinderObjectMap.h"
#include "binder/BinderRuntime.h"

namespace android {

using Halo::OS::Mutex;

BpBinder::BpBinder(const sp<Halo::OS::BinderConnection>& connection, uint64_t id)
    : mConnection(connection),
      mId(id),
      mAlive(true),
      mObitsSent(false),
      mDeathQueued(false),
      mDescriptorCached(false),
      mObjects(nullptr) {}

BpBinder::~BpBinder() {
    mConnection->releaseProxy(mId, this);
    Halo::OS::BinderObjectMap* objects;
    {
        Mutex::Autolock lock(mLock);
        objects = mObjects;
        mObjects = nullptr;
    }
    delete objects;
}

int32_t BpBinder::handle() const {
    return static_cast<int32_t>(mId);
}

const String16& BpBinder::getInterfaceDescriptor() const {
    if (!mDescriptorCached.load(std::memory_order_acquire)) {
        Parcel send;
        Parcel reply;
        const status_t err =
                const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, send, &reply);
        String16 descriptor;
        if (err == OK && reply.readString16(&descriptor) == OK) {
            Mutex::Autolock lock(mLock);
            if (!mDescriptorCached.load(std::memory_order_relaxed)) {
                mDescriptorCache = descriptor;
                mDescriptorCached.store(true, std::memory_order_release);
            }
        }
    }
    if (mDescriptorCached.load(std::memory_order_acquire)) return mDescriptorCache;
    static const String16 kEmpty;
    return kEmpty;
}

bool BpBinder::isBinderAlive() const {
    return mAlive.load() && !mConnection->isDead();
}

status_t BpBinder::pingBinder() {
    Parcel send;
    Parcel reply;
    return transact(PING_TRANSACTION, send, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel send;
    Parcel reply;
    status_t err = send.writeFileDescriptor(fd);
    if (err != OK) return err;
    err = send.writeInt32(static_cast<int32_t>(args.size()));
    for (size_t i = 0; err == OK && i < args.size(); ++i) err = send.writeString16(args[i]);
    if (err != OK) return err;
    return transact(DUMP_TRANSACTION, send, &reply);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!mAlive.load()) return DEAD_OBJECT;
    const status_t status = mConnection->transact(mId, code, data, reply, flags);
    // Only a broken connection kills the proxy: an object may also answer DEAD_OBJECT itself
    // (passing on the failure of a call of its own) and stay reachable.
    if (status == DEAD_OBJECT && mConnection->isDead()) mAlive.store(false);
    return status;
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t flags) {
    if (recipient == nullptr) return BAD_VALUE;
    {
        Mutex::Autolock lock(mLock);
        if (mObitsSent) return DEAD_OBJECT;
        if (!mDeathQueued && (!mAlive.load() || mConnection->isDead())) {
            // Dead before anyone was linked: nothing is queued, so report it here.
            mObitsSent = true;
            return DEAD_OBJECT;
        }
        mObituaries.push_back(Obituary{recipient, cookie, flags});
    }
    // Death notices are delivered on the pool.
    Halo::OS::BinderRuntime::instance().ensurePool();
    return OK;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                                 wp<DeathRecipient>* outRecipient) {
    Mutex::Autolock lock(mLock);
    if (mObitsSent) return DEAD_OBJECT;
    for (auto it = mObituaries.begin(); it != mObituaries.end(); ++it) {
        const bool matches =
                it->recipient == recipient || (recipient == nullptr && it->cookie == cookie);
        if (matches && it->flags == flags) {
            if (outRecipient != nullptr) *outRecipient = it->recipient;
            mObituaries.erase(it);
            return OK;
        }
    }
    return NAME_NOT_FOUND;
}

void BpBinder::queueObituary() {
    {
        Mutex::Autolock lock(mLock);
        mAlive.store(false);
        if (mObitsSent || mDeathQueued) return;
        if (mObituaries.empty()) {
            mObitsSent = true;
            return;
        }
        mDeathQueued = true;
    }
    Halo::OS::BinderTask task;
    task.kind = Halo::OS::BinderTask::Kind::Obituary;
    task.proxy = this;
    Halo::OS::BinderRuntime::instance().queueTask(std::move(task));
}

void BpBinder::sendObituary() {
    std::vector<Obituary> obituaries;
    {
        Mutex::Autolock lock(mLock);
        mAlive.store(false);
        if (mObitsSent) return;
        mObitsSent = true;
        obituaries.swap(mObituaries);
    }
    for (const Obituary& obituary : obituaries) {
        sp<DeathRecipient> recipient = obituary.recipient.promote();
        if (recipient != nullptr) recipient->binderDied(wp<IBinder>(this));
    }
}

void BpBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                            object_cleanup_func func) {
    Mutex::Autolock lock(mLock);
    if (mObjects == nullptr) mObjects = new Halo::OS::BinderObjectMap();
    mObjects->attach(objectID, object, cleanupCookie, func);
}

void* BpBinder::findObject(const void* objectID) const {
    Mutex::Autolock lock(mLock);
    return mObjects == nullptr ? nullptr : mObjects->find(objectID);
}

void BpBinder::detachObject(const void* objectID) {
    Mutex::Autolock lock(mLock);
    if (mObjects != nullptr) mObjects->detach(objectID);
}

BpBinder* BpBinder::remoteBinder() {
    return this;
}

}  // namespace android
