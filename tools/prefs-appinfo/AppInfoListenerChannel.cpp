#define LOG_TAG "PreferencesService"

#include "prefs-appinfo/AppInfoListenerChannel.h"

#include <binder/Status.h>
#include <log/log.h>
#include <utils/Errors.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

namespace Halo::OS {

using android::binder::Status;

namespace {

// The event for a log line: "schema list (1234 bytes)", "current user 10", ...
std::string describe(const AppInfoEvent& event) {
    switch (event.kind()) {
        case AppInfoEvent::Kind::Schema:
            return "schema list (" + std::to_string(event.schemaBytes().size()) + " bytes)";
        case AppInfoEvent::Kind::UserList:
            return "user list (" + std::to_string(event.users().size()) + " users)";
        case AppInfoEvent::Kind::CurrentUser:
            return "current user " + std::to_string(event.user());
        case AppInfoEvent::Kind::DeleteUserData:
            return "deleteUserData " + std::to_string(event.user());
    }
    return "event";
}

Status call(AppInfoListenerChannel::Listener& listener, const AppInfoEvent& event) {
    switch (event.kind()) {
        case AppInfoEvent::Kind::Schema:
            return listener.onSchema(event.schemaBytes());
        case AppInfoEvent::Kind::UserList:
            return listener.userList(event.users());
        case AppInfoEvent::Kind::CurrentUser:
            return listener.currentUser(event.user());
        case AppInfoEvent::Kind::DeleteUserData:
            return listener.deleteUserData(event.user());
    }
    return Status::ok();
}

}  // namespace

AppInfoListenerChannel::AppInfoListenerChannel() : AppInfoListenerChannel(RetryPolicy()) {}

AppInfoListenerChannel::AppInfoListenerChannel(RetryPolicy policy)
    : mPolicy(policy), mThread([this] { sendLoop(); }) {}

AppInfoListenerChannel::~AppInfoListenerChannel() {
    {
        Mutex::Autolock lock(mMutex);
        mStopping = true;
    }
    mWake.notify_all();
    mThread.join();
}

void AppInfoListenerChannel::attach(const android::sp<Listener>& listener,
                                    std::vector<AppInfoEvent> first) {
    {
        Mutex::Autolock lock(mMutex);
        mListener = listener;
        mPending.clear();
        ++mGeneration;
        for (AppInfoEvent& event : first) mPending.push_back(std::move(event));
    }
    mWake.notify_all();
}

bool AppInfoListenerChannel::detach() {
    Mutex::Autolock lock(mMutex);
    const bool had = mListener != nullptr;
    mListener = nullptr;
    mPending.clear();
    ++mGeneration;
    if (had) mWake.notify_all();
    return had;
}

void AppInfoListenerChannel::send(AppInfoEvent event) {
    {
        Mutex::Autolock lock(mMutex);
        if (mListener == nullptr) return;
        mPending.push_back(std::move(event));
    }
    mWake.notify_all();
}

bool AppInfoListenerChannel::hasListener() {
    Mutex::Autolock lock(mMutex);
    return mListener != nullptr;
}

bool AppInfoListenerChannel::waitBeforeRetry(std::chrono::milliseconds delay, uint64_t generation) {
    const auto deadline = std::chrono::steady_clock::now() + delay;
    Mutex::Autolock lock(mMutex);
    while (!mStopping && mGeneration == generation &&
           mWake.wait_until(lock.unique(), deadline) != std::cv_status::timeout) {
    }
    return !mStopping && mGeneration == generation;
}

void AppInfoListenerChannel::sendLoop() {
    for (;;) {
        android::sp<Listener> listener;
        std::optional<AppInfoEvent> event;
        uint64_t generation = 0;
        {
            Mutex::Autolock lock(mMutex);
            while (!mStopping && mPending.empty()) mWake.wait(lock.unique());
            if (mStopping) return;
            listener = mListener;
            generation = mGeneration;
            event.emplace(std::move(mPending.front()));
            mPending.pop_front();
        }
        if (listener == nullptr) continue;
        std::chrono::milliseconds delay = mPolicy.firstDelay;
        for (int attempt = 1;; ++attempt) {
            const Status status = call(*listener, *event);
            if (status.isOk()) break;
            if (status.transactionError() == android::DEAD_OBJECT) {
                ALOGW("prefs-appinfo: the listener is gone (%s); dropping it and its events",
                      status.toString8().string());
                Mutex::Autolock lock(mMutex);
                if (mGeneration == generation) {
                    mListener = nullptr;
                    mPending.clear();
                    ++mGeneration;
                }
                break;
            }
            if (attempt >= mPolicy.maxAttempts) {
                ALOGE("prefs-appinfo: the listener did not take the %s: %s; given up after %d "
                      "attempts",
                      describe(*event).c_str(), status.toString8().string(), attempt);
                break;
            }
            ALOGW("prefs-appinfo: the listener did not take the %s: %s; attempt %d of %d, next "
                  "in %lld ms",
                  describe(*event).c_str(), status.toString8().string(), attempt,
                  mPolicy.maxAttempts, static_cast<long long>(delay.count()));
            if (!waitBeforeRetry(delay, generation)) break;
            delay = std::min(delay * 2, mPolicy.maxDelay);
        }
    }
}

}  // namespace Halo::OS
