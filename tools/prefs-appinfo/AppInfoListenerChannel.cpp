#define LOG_TAG "PreferencesService"

#include "prefs-appinfo/AppInfoListenerChannel.h"

#include <binder/Status.h>
#include <log/log.h>
#include <utils/Errors.h>

#include <optional>
#include <utility>

namespace Halo::OS {

using android::binder::Status;

AppInfoListenerChannel::AppInfoListenerChannel() : mThread([this] { sendLoop(); }) {}

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
        for (AppInfoEvent& event : first) mPending.push_back(std::move(event));
    }
    mWake.notify_all();
}

bool AppInfoListenerChannel::detach() {
    Mutex::Autolock lock(mMutex);
    const bool had = mListener != nullptr;
    mListener = nullptr;
    mPending.clear();
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

void AppInfoListenerChannel::sendLoop() {
    for (;;) {
        android::sp<Listener> listener;
        std::optional<AppInfoEvent> event;
        {
            Mutex::Autolock lock(mMutex);
            while (!mStopping && mPending.empty()) mWake.wait(lock.unique());
            if (mStopping) return;
            listener = mListener;
            event.emplace(std::move(mPending.front()));
            mPending.pop_front();
        }
        Status status;
        switch (event->kind()) {
            case AppInfoEvent::Kind::Schema:
                status = listener->onSchema(event->schemaBytes());
                break;
            case AppInfoEvent::Kind::UserList:
                status = listener->userList(event->users());
                break;
            case AppInfoEvent::Kind::CurrentUser:
                status = listener->currentUser(event->user());
                break;
            case AppInfoEvent::Kind::DeleteUserData:
                status = listener->deleteUserData(event->user());
                break;
        }
        if (status.isOk()) continue;
        ALOGW("prefs-appinfo: the listener did not take an event: %s", status.toString8().string());
        if (status.transactionError() == android::DEAD_OBJECT) {
            Mutex::Autolock lock(mMutex);
            if (mListener == listener) {
                mListener = nullptr;
                mPending.clear();
            }
        }
    }
}

}  // namespace Halo::OS
