#pragma once

#include <binder/BpRefBase.h>
#include <binder/IBinder.h>

#include <atomic>

#include "threads/Mutex.h"

namespace Halo::OS {
class BinderObjectMap;
}

namespace android {

// A local Binder object: the object that a service or a callback implements. Incoming
// transactions arrive at onTransact on a thread of the process's thread pool (or on a thread that
// waits in a call of its own, for calls nested in that call).
class BBinder : public IBinder {
public:
    BBinder();

    // Empty unless a subclass (BnInterface) names its interface.
    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    // Writes nothing and returns OK unless a subclass answers dumps.
    status_t dump(int fd, const Vector<String16>& args) override;

    // Rewinds `data` and hands the call to onTransact; the reply is rewound for the caller.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

    // A local object never dies: both return INVALID_OPERATION.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    void attachObject(const void* objectID, void* object, void* cleanupCookie,
                      object_cleanup_func func) override;
    void* findObject(const void* objectID) const override;
    void detachObject(const void* objectID) override;

    BBinder* localBinder() override;

    // Attaches `extension` (may be null, which removes it): IBinder::getExtension of this object,
    // locally or through any proxy, returns it from then on. Holds a strong reference.
    void setExtension(const sp<IBinder>& extension) EXCLUDES(mExtensionLock);
    // The attached extension; null when there is none.
    sp<IBinder> getExtension() EXCLUDES(mExtensionLock);

protected:
    ~BBinder() override;

    // Answers the standard transactions: PING_TRANSACTION (OK), INTERFACE_TRANSACTION (the
    // descriptor as String16), EXTENSION_TRANSACTION (getExtension as a strong binder, possibly
    // null) and DUMP_TRANSACTION (file descriptor, argument count, String16
    // arguments; calls dump). Every other code returns UNKNOWN_TRANSACTION.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);

private:
    BBinder(const BBinder&) = delete;
    BBinder& operator=(const BBinder&) = delete;

    Halo::OS::BinderObjectMap* objectMap() const;

    mutable std::atomic<Halo::OS::BinderObjectMap*> mObjects;
    Halo::OS::Mutex mExtensionLock;
    sp<IBinder> mExtension GUARDED_BY(mExtensionLock);
};

}  // namespace android
