#include "TestService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/PermissionCache.h>
#include <fcntl.h>
#include <unistd.h>
#include <utils/String8.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "binder/BinderRuntime.h"

namespace Halo::OS::testing {

using android::IBinder;
using android::IPCThreadState;
using android::sp;
using android::String16;
using android::binder::Status;
using binder::test::ITestCallback;

namespace {

constexpr auto kWaitLimit = std::chrono::seconds(20);

template <typename T>
Status echo(const T& value, T* out) {
    *out = value;
    return Status::ok();
}

}  // namespace

android::status_t TestService::dump(int fd, const android::Vector<String16>& args) {
    std::string text = "dump ";
    for (size_t i = 0; i < args.size(); ++i) {
        if (i > 0) text += ",";
        text += android::String8(args[i]).string();
    }
    text += " uid=" + std::to_string(IPCThreadState::self()->getCallingUid()) + "\n";
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size())
                   ? android::OK
                   : android::UNKNOWN_ERROR;
}

Status TestService::echoInt(int32_t value, int32_t* out) {
    return echo(value, out);
}
Status TestService::echoString(const String16& value, String16* out) {
    return echo(value, out);
}
Status TestService::echoBytes(const std::vector<uint8_t>& value, std::vector<uint8_t>* out) {
    return echo(value, out);
}
Status TestService::echoBinder(const sp<IBinder>& value, sp<IBinder>* out) {
    return echo(value, out);
}
Status TestService::echoNullableBinder(const sp<IBinder>& value, sp<IBinder>* out) {
    return echo(value, out);
}
Status TestService::echoCallback(const sp<ITestCallback>& value, sp<ITestCallback>* out) {
    return echo(value, out);
}

Status TestService::echoFd(const android::base::unique_fd& fd, android::base::unique_fd* out) {
    out->reset(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
    if (out->get() < 0) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    return Status::ok();
}

Status TestService::echoPfd(const android::os::ParcelFileDescriptor& fd,
                            android::os::ParcelFileDescriptor* out) {
    out->reset(android::base::unique_fd(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0)));
    if (out->get() < 0) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    return Status::ok();
}

Status TestService::callingUid(int32_t* out) {
    *out = static_cast<int32_t>(IPCThreadState::self()->getCallingUid());
    return Status::ok();
}

Status TestService::callingPid(int32_t* out) {
    *out = IPCThreadState::self()->getCallingPid();
    return Status::ok();
}

Status TestService::checkCallingPermission(const String16& permission, bool* out) {
    *out = android::PermissionCache::checkCallingPermission(permission);
    return Status::ok();
}

Status TestService::callBack(const sp<ITestCallback>& callback, int32_t value, int32_t* out) {
    int32_t result = 0;
    Status status = callback->onCall(value, &result);
    if (!status.isOk()) return status;
    *out = result + 1;
    return Status::ok();
}

Status TestService::isSame(const sp<IBinder>& a, const sp<IBinder>& b, bool* out) {
    *out = a == b;
    return Status::ok();
}

Status TestService::isSelf(const sp<IBinder>& b, bool* out) {
    *out = b == IInterface::asBinder(this);
    return Status::ok();
}

Status TestService::self(sp<IBinder>* out) {
    *out = IInterface::asBinder(this);
    return Status::ok();
}

Status TestService::failServiceSpecific(int32_t code, const std::string& message, int32_t* out) {
    *out = 1;
    return Status::fromServiceSpecificError(code, message.c_str());
}

Status TestService::failException(int32_t exceptionCode) {
    return Status::fromExceptionCode(exceptionCode);
}

Status TestService::failStatus(int32_t status) {
    return Status::fromStatusT(status);
}

Status TestService::record(int32_t sequence) {
    Mutex::Autolock lock(mLock);
    mRecorded.push_back(sequence);
    mChanged.notify_all();
    return Status::ok();
}

Status TestService::recorded(int32_t count, std::vector<int32_t>* out) {
    Mutex::Autolock lock(mLock);
    mChanged.wait_for(lock.unique(), kWaitLimit, [&]() NO_THREAD_SAFETY_ANALYSIS {
        return mRecorded.size() >= static_cast<size_t>(count);
    });
    *out = mRecorded;
    return Status::ok();
}

Status TestService::keepCallback(const sp<ITestCallback>& callback) {
    Mutex::Autolock lock(mLock);
    mKept = callback;
    return Status::ok();
}

Status TestService::spam(int32_t count, int32_t bytes, int32_t* out) {
    sp<ITestCallback> callback;
    {
        Mutex::Autolock lock(mLock);
        callback = mKept;
    }
    if (callback == nullptr) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    const std::vector<uint8_t> data(static_cast<size_t>(bytes), 0x5a);
    int32_t accepted = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (callback->onData(data).isOk()) ++accepted;
    }
    *out = accepted;
    return Status::ok();
}

Status TestService::watchKeptCallback() {
    Mutex::Autolock lock(mLock);
    if (mKept == nullptr) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    mDeathCounter = new DeathCounter(this);
    const android::status_t err = IInterface::asBinder(mKept)->linkToDeath(mDeathCounter);
    return Status::fromStatusT(err);
}

Status TestService::deaths(int32_t waitForAtLeast, int32_t* out) {
    Mutex::Autolock lock(mLock);
    mChanged.wait_for(lock.unique(), kWaitLimit,
                      [&]() NO_THREAD_SAFETY_ANALYSIS { return mDeaths >= waitForAtLeast; });
    *out = mDeaths;
    return Status::ok();
}

Status TestService::hold() {
    Mutex::Autolock lock(mLock);
    mChanged.wait_for(lock.unique(), kWaitLimit,
                      [&]() NO_THREAD_SAFETY_ANALYSIS { return mReleased; });
    return Status::ok();
}

Status TestService::release() {
    Mutex::Autolock lock(mLock);
    mReleased = true;
    mChanged.notify_all();
    return Status::ok();
}

Status TestService::queueStats(std::vector<int32_t>* out) {
    const BinderRuntime::QueueStats stats = BinderRuntime::instance().queueStats();
    *out = {int32_t(stats.now.calls), int32_t(stats.peakPerConnection.calls),
            int32_t(stats.peakPerConnection.bytes)};
    return Status::ok();
}

Status TestService::recordCaller() {
    const IPCThreadState* ipc = IPCThreadState::self();
    Mutex::Autolock lock(mLock);
    mRecorded.push_back(ipc->getCallingPid());
    mRecorded.push_back(static_cast<int32_t>(ipc->getCallingUid()));
    mChanged.notify_all();
    return Status::ok();
}

Status TestService::meet(int32_t parties, int32_t waitMs, int32_t* out) {
    Mutex::Autolock lock(mLock);
    mMostMeeting = std::max(mMostMeeting, ++mMeeting);
    mChanged.notify_all();
    mChanged.wait_for(lock.unique(), std::chrono::milliseconds(waitMs),
                      [&]() NO_THREAD_SAFETY_ANALYSIS { return mMostMeeting >= parties; });
    *out = mMostMeeting;
    --mMeeting;
    return Status::ok();
}

Status TestService::callNamed(const std::string& name, int32_t value, int32_t* out) {
    sp<ITestCallback> callback;
    if (android::getService(String16(name.c_str()), &callback) != android::OK ||
        callback == nullptr) {
        return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    }
    return callback->onCall(value, out);
}

Status TestService::lookUp(const std::string& name, sp<IBinder>* out) {
    *out = android::defaultServiceManager()->getService(String16(name.c_str()));
    if (*out == nullptr) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    return Status::ok();
}

void TestService::DeathCounter::binderDied(const android::wp<IBinder>& /*who*/) {
    Mutex::Autolock lock(mService->mLock);
    ++mService->mDeaths;
    mService->mKept.clear();
    mService->mChanged.notify_all();
}

}  // namespace Halo::OS::testing
