// The object preferencesd publishes in its service's place: calls pass through unchanged until
// close(), which waits for the calls under way and then lets the service go.
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/String16.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "GatedBinder.h"

namespace Halo::OS::testing {
namespace {

using android::Parcel;
using android::sp;
using android::String16;

constexpr uint32_t kBlockingCall = android::IBinder::FIRST_CALL_TRANSACTION;
constexpr uint32_t kEchoCall = android::IBinder::FIRST_CALL_TRANSACTION + 1;

// Echoes an int32 plus one; kBlockingCall waits until released.
class Target : public android::BBinder {
public:
    const String16& getInterfaceDescriptor() const override { return mDescriptor; }

    void waitUntilBlocked() {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return mBlocked; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mMutex);
        mReleased = true;
        mChanged.notify_all();
    }
    int calls() const { return mCalls.load(); }

protected:
    android::status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                 uint32_t flags) override {
        ++mCalls;
        if (code == kBlockingCall) {
            std::unique_lock<std::mutex> lock(mMutex);
            mBlocked = true;
            mChanged.notify_all();
            mChanged.wait(lock, [this] { return mReleased; });
        } else if (code != kEchoCall) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        return reply->writeInt32(data.readInt32() + 1);
    }

private:
    const String16 mDescriptor{"test.IGated"};
    std::atomic<int> mCalls{0};
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mBlocked = false;
    bool mReleased = false;
};

android::status_t call(const sp<android::IBinder>& binder, uint32_t code, int32_t* result) {
    Parcel data;
    Parcel reply;
    data.writeInt32(41);
    const android::status_t status = binder->transact(code, data, &reply);
    if (status == android::OK) *result = reply.readInt32();
    return status;
}

TEST(GatedBinderTest, PassesCallsUntilClosedAndClosingWaitsForTheCallsUnderWay) {
    sp<Target> target = new Target;
    const android::wp<Target> weakTarget = target;
    sp<GatedBinder> gate = new GatedBinder(target);
    EXPECT_EQ(String16("test.IGated"), gate->getInterfaceDescriptor());

    int32_t result = 0;
    ASSERT_EQ(android::OK, call(gate, kEchoCall, &result));
    EXPECT_EQ(42, result);

    std::atomic<bool> blockedReturned{false};
    std::thread blocked([&] {
        int32_t answer = 0;
        EXPECT_EQ(android::OK, call(gate, kBlockingCall, &answer));
        EXPECT_EQ(42, answer);
        blockedReturned = true;
    });
    target->waitUntilBlocked();

    std::atomic<bool> closed{false};
    std::thread closer([&] {
        gate->close();
        closed = true;
    });
    // Once close() has begun, new calls are refused without reaching the target.
    while (call(gate, kEchoCall, &result) != android::DEAD_OBJECT) {
        std::this_thread::yield();
    }
    const int callsSeen = target->calls();
    EXPECT_FALSE(closed) << "close() returned while a call was still inside the target";

    target->release();
    closer.join();
    blocked.join();
    EXPECT_TRUE(blockedReturned);
    EXPECT_TRUE(closed);
    EXPECT_EQ(android::DEAD_OBJECT, call(gate, kEchoCall, &result));
    EXPECT_EQ(callsSeen, target->calls()) << "a refused call reached the target";

    // The gate no longer keeps the target: it goes with the last outside reference.
    target.clear();
    EXPECT_EQ(nullptr, weakTarget.promote());
    EXPECT_EQ(String16("test.IGated"), gate->getInterfaceDescriptor());
}

}  // namespace
}  // namespace Halo::OS::testing
