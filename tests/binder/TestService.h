#pragma once

#include <binder/IBinder.h>
#include <binder/test/BnTestService.h>
#include <binder/test/ITestCallback.h>

#include <condition_variable>
#include <vector>

#include "threads/Mutex.h"

namespace Halo::OS::testing {

// The implementation of the test interface, served by the peer process and by tests that need a
// service of their own. Its dump writes "dump <args joined by ','> uid=<calling uid>\n".
class TestService : public binder::test::BnTestService {
public:
    TestService() = default;

    android::status_t dump(int fd, const android::Vector<android::String16>& args) override;

    android::binder::Status echoInt(int32_t value, int32_t* out) override;
    android::binder::Status echoString(const android::String16& value,
                                       android::String16* out) override;
    android::binder::Status echoBytes(const std::vector<uint8_t>& value,
                                      std::vector<uint8_t>* out) override;
    android::binder::Status echoBinder(const android::sp<android::IBinder>& value,
                                       android::sp<android::IBinder>* out) override;
    android::binder::Status echoNullableBinder(const android::sp<android::IBinder>& value,
                                               android::sp<android::IBinder>* out) override;
    android::binder::Status echoCallback(const android::sp<binder::test::ITestCallback>& value,
                                         android::sp<binder::test::ITestCallback>* out) override;
    android::binder::Status echoFd(const android::base::unique_fd& fd,
                                   android::base::unique_fd* out) override;
    android::binder::Status echoPfd(const android::os::ParcelFileDescriptor& fd,
                                    android::os::ParcelFileDescriptor* out) override;
    android::binder::Status callingUid(int32_t* out) override;
    android::binder::Status callingPid(int32_t* out) override;
    android::binder::Status checkCallingPermission(const android::String16& permission,
                                                   bool* out) override;
    android::binder::Status callBack(const android::sp<binder::test::ITestCallback>& callback,
                                     int32_t value, int32_t* out) override;
    android::binder::Status isSame(const android::sp<android::IBinder>& a,
                                   const android::sp<android::IBinder>& b, bool* out) override;
    android::binder::Status isSelf(const android::sp<android::IBinder>& b, bool* out) override;
    android::binder::Status self(android::sp<android::IBinder>* out) override;
    android::binder::Status failServiceSpecific(int32_t code, const std::string& message,
                                                int32_t* out) override;
    android::binder::Status lookUp(const std::string& name,
                                   android::sp<android::IBinder>* out) override;
    android::binder::Status failException(int32_t exceptionCode) override;
    android::binder::Status failStatus(int32_t status) override;
    android::binder::Status record(int32_t sequence) override;
    android::binder::Status recorded(int32_t count, std::vector<int32_t>* out) override;
    android::binder::Status keepCallback(
            const android::sp<binder::test::ITestCallback>& callback) override;
    android::binder::Status spam(int32_t count, int32_t bytes, int32_t* out) override;
    android::binder::Status watchKeptCallback() override;
    android::binder::Status deaths(int32_t waitForAtLeast, int32_t* out) override;
    android::binder::Status hold() override;
    android::binder::Status release() override;
    android::binder::Status queueStats(std::vector<int32_t>* out) override;
    android::binder::Status recordCaller() override;
    android::binder::Status meet(int32_t parties, int32_t waitMs, int32_t* out) override;
    android::binder::Status callNamed(const std::string& name, int32_t value,
                                      int32_t* out) override;

private:
    class DeathCounter : public android::IBinder::DeathRecipient {
    public:
        explicit DeathCounter(TestService* service) : mService(service) {}
        void binderDied(const android::wp<android::IBinder>& who) override;

    private:
        TestService* const mService;
    };

    Mutex mLock;
    std::condition_variable mChanged;
    std::vector<int32_t> mRecorded GUARDED_BY(mLock);
    android::sp<binder::test::ITestCallback> mKept GUARDED_BY(mLock);
    android::sp<DeathCounter> mDeathCounter GUARDED_BY(mLock);
    int32_t mDeaths GUARDED_BY(mLock) = 0;
    bool mReleased GUARDED_BY(mLock) = false;
    int32_t mMeeting GUARDED_BY(mLock) = 0;
    int32_t mMostMeeting GUARDED_BY(mLock) = 0;
};

}  // namespace Halo::OS::testing
