#pragma once

#include <nimbus/internal/IPreferencesAppInfoListener.h>
#include <utils/StrongPointer.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <thread>
#include <vector>

#include "prefs-appinfo/AppInfoEvent.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// The registered app-info listener (there is at most one: the preferences service) and the
// events on their way to it. A thread of its own makes the one-way calls in the order the events
// were queued, so nobody who queues an event waits for the listener. A listener whose process
// has died is dropped (its calls fail with DEAD_OBJECT) together with its pending events. Any
// other failure (FAILED_TRANSACTION for a list over the frame limit, a transient error) is
// logged and the same event is sent again after a delay that doubles up to a bound; the events
// behind it wait, so that they still arrive in order. After the last attempt the event is given
// up with an error line and the next one is sent.
class AppInfoListenerChannel {
public:
    using Listener = nimbus::internal::IPreferencesAppInfoListener;

    // How a call that failed is sent again.
    struct RetryPolicy {
        // The delay before the second attempt; each later one waits twice as long as the one
        // before, up to `maxDelay`.
        std::chrono::milliseconds firstDelay{100};
        std::chrono::milliseconds maxDelay{5000};
        // Attempts in all, the first one included (at least 1). With the defaults an event is
        // given up about 11 s after its first failure.
        int maxAttempts = 8;
    };

    // With the default RetryPolicy.
    AppInfoListenerChannel();
    explicit AppInfoListenerChannel(RetryPolicy policy);
    // Stops the sending thread; events not sent yet are dropped.
    ~AppInfoListenerChannel();
    AppInfoListenerChannel(const AppInfoListenerChannel&) = delete;
    AppInfoListenerChannel& operator=(const AppInfoListenerChannel&) = delete;

    // Makes `listener` the listener, dropping the previous one and its pending events (an event
    // waiting to be sent again included), and queues `first` for it.
    void attach(const android::sp<Listener>& listener, std::vector<AppInfoEvent> first)
            EXCLUDES(mMutex);
    // Drops the listener and its pending events (an event waiting to be sent again included);
    // false when there was none.
    bool detach() EXCLUDES(mMutex);
    // Queues `event` for the listener; dropped when there is none.
    void send(AppInfoEvent event) EXCLUDES(mMutex);
    bool hasListener() EXCLUDES(mMutex);

private:
    void sendLoop() EXCLUDES(mMutex);
    // Waits `delay`, or less when the channel stops or the listener is attached or detached
    // meanwhile. Returns true when the same listener is still there to be sent to again.
    bool waitBeforeRetry(std::chrono::milliseconds delay, uint64_t generation) EXCLUDES(mMutex);

    const RetryPolicy mPolicy;
    Mutex mMutex;
    std::condition_variable mWake;
    android::sp<Listener> mListener GUARDED_BY(mMutex);
    std::deque<AppInfoEvent> mPending GUARDED_BY(mMutex);
    bool mStopping GUARDED_BY(mMutex) = false;
    // Counts attach() and detach() calls: an event of an earlier generation is not sent again.
    uint64_t mGeneration GUARDED_BY(mMutex) = 0;
    std::thread mThread;
};

}  // namespace Halo::OS
