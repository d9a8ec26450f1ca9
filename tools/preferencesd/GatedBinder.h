#pragma once

#include <android-base/thread_annotations.h>
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <utils/Errors.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>

#include <condition_variable>
#include <cstdint>

#include "threads/Mutex.h"

namespace Halo::OS {

// The object that the daemon publishes in place of its service: it hands every transaction,
// the standard ones (ping, interface, dump) included, to the service unchanged, on the same
// thread and so with the caller's identity, until it is closed.
//
// It exists for the shutdown: the Binder runtime keeps every published object for the life of
// the process, so the service itself must not be published if it is to be destroyed (stopping
// its package manager and closing its store) while the process still runs. close() cuts the
// service off once no call is inside it any more.
//
// Threads: transactions arrive on any Binder thread; close() comes from the daemon's thread.
class GatedBinder : public android::BBinder {
public:
    // `target` must not be null.
    explicit GatedBinder(const android::sp<android::IBinder>& target);

    // The target's descriptor, also after close().
    const android::String16& getInterfaceDescriptor() const override;

    // Refuses every later transaction with DEAD_OBJECT, waits until the transactions under way
    // have returned, and drops the reference to the target. Must not be called from a Binder
    // thread inside a transaction of this object (it would wait for itself).
    void close() EXCLUDES(mMutex);

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override EXCLUDES(mMutex);

private:
    const android::String16 mDescriptor;
    Mutex mMutex;
    std::condition_variable mIdle;
    android::sp<android::IBinder> mTarget GUARDED_BY(mMutex);
    // Transactions being handed to the target now.
    uint32_t mActive GUARDED_BY(mMutex) = 0;
};

}  // namespace Halo::OS
