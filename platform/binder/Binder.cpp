#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>

#include "binder/BinderObjectMap.h"

namespace android {

IBinder::IBinder() : RefBase() {}

IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) {
    return nullptr;
}

bool IBinder::checkSubclass(const void* /*subclassID*/) const {
    return false;
}

status_t IBinder::getExtension(sp<IBinder>* out) {
    if (out == nullptr) return BAD_VALUE;
    BBinder* local = localBinder();
    if (local != nullptr) {
        *out = local->getExtension();
        return OK;
    }
    Parcel data;
    Parcel reply;
    const status_t status = transact(EXTENSION_TRANSACTION, data, &reply);
    if (status != OK) return status;
    sp<IBinder> extension;
    const status_t read = reply.readNullableStrongBinder(&extension);
    if (read != OK) return read;
    *out = extension;
    return OK;
}

BBinder* IBinder::localBinder() {
    return nullptr;
}

BpBinder* IBinder::remoteBinder() {
    return nullptr;
}

BBinder::BBinder() : mObjects(nullptr) {}

BBinder::~BBinder() {
    delete mObjects.load();
}

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16 kEmpty;
    return kEmpty;
}

bool BBinder::isBinderAlive() const {
    return true;
}

status_t BBinder::pingBinder() {
    return OK;
}

status_t BBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) {
    return OK;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t err = onTransact(code, data, reply, flags);
    if (reply != nullptr) reply->setDataPosition(0);
    return err;
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                              uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                uint32_t /*flags*/, wp<DeathRecipient>* /*outRecipient*/) {
    return INVALID_OPERATION;
}

Halo::OS::BinderObjectMap* BBinder::objectMap() const {
    Halo::OS::BinderObjectMap* map = mObjects.load(std::memory_order_acquire);
    if (map != nullptr) return map;
    auto* created = new Halo::OS::BinderObjectMap();
    if (mObjects.compare_exchange_strong(map, created, std::memory_order_acq_rel)) return created;
    delete created;
    return map;
}

void BBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                           object_cleanup_func func) {
    objectMap()->attach(objectID, object, cleanupCookie, func);
}

void* BBinder::findObject(const void* objectID) const {
    Halo::OS::BinderObjectMap* map = mObjects.load(std::memory_order_acquire);
    return map == nullptr ? nullptr : map->find(objectID);
}

void BBinder::detachObject(const void* objectID) {
    Halo::OS::BinderObjectMap* map = mObjects.load(std::memory_order_acquire);
    if (map != nullptr) map->detach(objectID);
}

BBinder* BBinder::localBinder() {
    return this;
}

void BBinder::setExtension(const sp<IBinder>& extension) {
    sp<IBinder> replaced = extension;
    Halo::OS::Mutex::Autolock lock(mExtensionLock);
    std::swap(replaced, mExtension);
}

sp<IBinder> BBinder::getExtension() {
    Halo::OS::Mutex::Autolock lock(mExtensionLock);
    return mExtension;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t /*flags*/) {
    switch (code) {
        case PING_TRANSACTION:
            return pingBinder();
        case INTERFACE_TRANSACTION:
            if (reply == nullptr) return BAD_VALUE;
            return reply->writeString16(getInterfaceDescriptor());
        case EXTENSION_TRANSACTION:
            if (reply == nullptr) return BAD_VALUE;
            return reply->writeStrongBinder(getExtension());
        case DUMP_TRANSACTION: {
            const int fd = data.readFileDescriptor();
            if (fd < 0) return fd;
            const int32_t argc = data.readInt32();
            Vector<String16> args;
            for (int32_t i = 0; i < argc && data.dataAvail() > 0; ++i) {
                String16 arg;
                if (data.readString16(&arg) != OK) return BAD_VALUE;
                args.add(arg);
            }
            return dump(fd, args);
        }
        default:
            return UNKNOWN_TRANSACTION;
    }
}

BpRefBase::BpRefBase(const sp<IBinder>& remote) : mRemote(remote.get()), mRefs(nullptr), mState(0) {
    extendObjectLifetime(OBJECT_LIFETIME_WEAK);
    if (mRemote != nullptr) {
        mRemote->incStrong(this);           // dropped on our first strong reference
        mRefs = mRemote->createWeak(this);  // held for our whole lifetime
    }
}

BpRefBase::~BpRefBase() {
    if (mRemote != nullptr) {
        if ((mState.load(std::memory_order_relaxed) & kRemoteAcquired) == 0) {
            mRemote->decStrong(this);
        }
        mRefs->decWeak(this);
    }
}

void BpRefBase::onFirstRef() {
    mState.fetch_or(kRemoteAcquired, std::memory_order_relaxed);
}

void BpRefBase::onLastStrongRef(const void* /*id*/) {
    if (mRemote != nullptr) mRemote->decStrong(this);
}

bool BpRefBase::onIncStrongAttempted(uint32_t /*flags*/, const void* /*id*/) {
    return mRemote != nullptr ? mRefs->attemptIncStrong(this) : false;
}

}  // namespace android
