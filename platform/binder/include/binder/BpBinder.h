#pragma once

#include <binder/IBinder.h>
#include <utils/String16.h>

#include <atomic>
#include <vector>

#include "threads/Mutex.h"

namespace Halo::OS {
class BinderConnection;
class BinderObjectMap;
}  // namespace Halo::OS

namespace android {

// A proxy for an object that lives in another process, reached over one connection. The runtime
// creates proxies; there is at most one live proxy per remote object per connection. When the
// connection breaks the proxy is dead: death recipients are told once (on a thread-pool thread)
// and every later transact returns DEAD_OBJECT.
class BpBinder : public IBinder {
public:
    // Created by the runtime for the peer's object `id` on `connection`.
    BpBinder(const sp<Halo::OS::BinderConnection>& connection, uint64_t id);

    // The peer's object number on the connection (0 for a service's root object).
    int32_t handle() const;

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    // Sends `fd` and `args` to the owner's dump (DUMP_TRANSACTION).
    status_t dump(int fd, const Vector<String16>& args) override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    void attachObject(const void* objectID, void* object, void* cleanupCookie,
                      object_cleanup_func func) override;
    void* findObject(const void* objectID) const override;
    void detachObject(const void* objectID) override;

    BpBinder* remoteBinder() override;

    // Called by the runtime when the connection broke: marks the proxy dead and, when
    // recipients are linked, queues their notification for a pool thread.
    void queueObituary();
    // Tells every linked recipient, once. Runs on a pool thread.
    void sendObituary();

    // The connection and object number this proxy stands for (used by the runtime).
    const sp<Halo::OS::BinderConnection>& connection() const { return mConnection; }
    uint64_t objectId() const { return mId; }

protected:
    ~BpBinder() override;

private:
    struct Obituary {
        wp<DeathRecipient> recipient;
        void* cookie;
        uint32_t flags;
    };

    const sp<Halo::OS::BinderConnection> mConnection;
    const uint64_t mId;
    std::atomic<bool> mAlive;

    mutable Halo::OS::Mutex mLock;
    bool mObitsSent GUARDED_BY(mLock);
    bool mDeathQueued GUARDED_BY(mLock);
    std::vector<Obituary> mObituaries GUARDED_BY(mLock);
    // Written once under mLock, before mDescriptorCached becomes true; read freely after.
    mutable String16 mDescriptorCache;
    mutable std::atomic<bool> mDescriptorCached;
    mutable Halo::OS::BinderObjectMap* mObjects GUARDED_BY(mLock);
};

}  // namespace android
