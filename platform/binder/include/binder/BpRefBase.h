#pragma once

#include <binder/IBinder.h>

#include <atomic>

namespace android {

// The base of interface proxies: holds the remote binder. The proxy object's lifetime is extended
// to its weak references, and it keeps the binder strongly referenced while it is itself strongly
// referenced.
class BpRefBase : public virtual RefBase {
protected:
    explicit BpRefBase(const sp<IBinder>& remote);
    ~BpRefBase() override;
    void onFirstRef() override;
    void onLastStrongRef(const void* id) override;
    bool onIncStrongAttempted(uint32_t flags, const void* id) override;

    inline IBinder* remote() { return mRemote; }
    inline IBinder* remote() const { return mRemote; }

private:
    static constexpr int32_t kRemoteAcquired = 0x1;

    BpRefBase(const BpRefBase&) = delete;
    BpRefBase& operator=(const BpRefBase&) = delete;

    IBinder* const mRemote;
    RefBase::weakref_type* mRefs;
    std::atomic<int32_t> mState;
};

}  // namespace android
