#pragma once

#include <nimbus/internal/IPreferencesAppInfoListener.h>
#include <utils/StrongPointer.h>

#include <condition_variable>
#include <deque>
#include <thread>
#include <vector>

#include "prefs-appinfo/AppInfoEvent.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// The registered app-info listener (there is at most one: the preferences service) and the
// events on their way to it. A thread of its own makes the one-way calls in the order the events
// were queued, so nobody who queues an event waits for the listener. A listener whose process
// has died is dropped (its calls fail with DEAD_OBJECT) together with its pending events.
class AppInfoListenerChannel {
public:
    using Listener = nimbus::internal::IPreferencesAppInfoListener;

    AppInfoListenerChannel();
    // Stops the sending thread; events not sent yet are dropped.
    ~AppInfoListenerChannel();
    AppInfoListenerChannel(const AppInfoListenerChannel&) = delete;
    AppInfoListenerChannel& operator=(const AppInfoListenerChannel&) = delete;

    // Makes `listener` the listener, dropping the previous one and its pending events, and
    // queues `first` for it.
    void attach(const android::sp<Listener>& listener, std::vector<AppInfoEvent> first)
            EXCLUDES(mMutex);
    // Drops the listener and its pending events; false when there was none.
    bool detach() EXCLUDES(mMutex);
    // Queues `event` for the listener; dropped when there is none.
    void send(AppInfoEvent event) EXCLUDES(mMutex);
    bool hasListener() EXCLUDES(mMutex);

private:
    void sendLoop() EXCLUDES(mMutex);

    Mutex mMutex;
    std::condition_variable mWake;
    android::sp<Listener> mListener GUARDED_BY(mMutex);
    std::deque<AppInfoEvent> mPending GUARDED_BY(mMutex);
    bool mStopping GUARDED_BY(mMutex) = false;
    std::thread mThread;
};

}  // namespace Halo::OS
