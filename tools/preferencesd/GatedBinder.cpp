#include "GatedBinder.h"

namespace Halo::OS {

GatedBinder::GatedBinder(const android::sp<android::IBinder>& target)
    : mDescriptor(target->getInterfaceDescriptor()), mTarget(target) {}

const android::String16& GatedBinder::getInterfaceDescriptor() const {
    return mDescriptor;
}

void GatedBinder::close() {
    android::sp<android::IBinder> target;
    {
        Mutex::Autolock lock(mMutex);
        target = mTarget;
        mTarget.clear();
        while (mActive != 0) mIdle.wait(lock.unique());
    }
    // Should this be the last reference, the target is destroyed here, outside the mutex.
}

android::status_t GatedBinder::onTransact(uint32_t code, const android::Parcel& data,
                                          android::Parcel* reply, uint32_t flags) {
    android::sp<android::IBinder> target;
    {
        Mutex::Autolock lock(mMutex);
        if (mTarget == nullptr) return android::DEAD_OBJECT;
        target = mTarget;
        ++mActive;
    }
    const android::status_t status = target->transact(code, data, reply, flags);
    // Dropped before the call counts as done, so close() sees the target's last reference go.
    target.clear();
    Mutex::Autolock lock(mMutex);
    if (--mActive == 0) mIdle.notify_all();
    return status;
}

}  // namespace Halo::OS
