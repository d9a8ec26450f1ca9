#pragma once

#include <android-base/thread_annotations.h>
#include <binder/Status.h>
#include <nimbus/internal/BnPreferencesAppInfoListener.h>
#include <nimbus/internal/IPreferencesAppInfoInquirer.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "intake/BinderClient.h"
#include "keymanager/BlockingQueue.h"
#include "keymanager/PreferencesKeyManager.h"
#include "model/PreferencesSchemaList.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// Brings the schemas of installed packages into the service. Keeps a connection to the app-info
// service "PreferencesAppInfoInquirer" (reconnecting whenever it dies), registers its listener
// with it, and receives schema lists and user events through that listener. Schema lists are
// parsed on the Binder thread that delivers them and handed over a queue to a worker thread,
// which applies them with PreferencesKeyManager::process(list, KeySourceDomain::Application), so
// that a slow store never holds up the app-info service. User events go straight to the key
// manager. Every schema list and every loss of the app-info service also drops the OS permission
// grants that the process remembers (android::PermissionCache), since package changes are how
// they change.
//
// A host that must run start-up steps before any app-info event is applied holds the events
// (holdEvents() before start(), releaseEvents() once the steps have run): meanwhile user events
// are kept in arrival order (their one-way calls return at once) and the worker applies no
// schema list, so the outcome does not depend on when the app-info service sends them.
//
// The two-way calls to the app-info service (registering and unregistering the listener) are
// waited for at most kAppInfoCallLimit each, so a stopped or hung app-info service delays
// start() and stop() by that much and never blocks them. A registration answered after the limit
// still reaches the app-info service (its events flow), but the manager counts itself as
// listening only from the next connection on.
//
// Threads: start(), stop() and the destructor come from the service's thread (they are
// serialised among themselves); the listener's calls arrive on Binder threads, the connection
// callbacks on the client's connection thread and on death-notification threads; dump() may come
// from any thread. mStateMutex is never held while calling into the key manager or making a
// Binder call, and is never held while the client is destroyed. mGateMutex is taken alone.
class PreferencesPackageManager {
public:
    using Status = android::binder::Status;
    using AppInfoInquirer = nimbus::internal::IPreferencesAppInfoInquirer;

    static constexpr const char* kAppInfoServiceName = "PreferencesAppInfoInquirer";
    static constexpr std::chrono::milliseconds kRetryInterval{50};
    // The longest wait for the app-info service's answer to a registration or unregistration.
    static constexpr std::chrono::milliseconds kAppInfoCallLimit{5000};

    // The object registered with the app-info service. Forwards its four calls to the manager's
    // operations of the same name. The app-info service may keep it (and call it) after the
    // manager is gone: the manager detaches it on destruction, and later calls do nothing and
    // return EX_ILLEGAL_STATE.
    class AppInfoListener : public nimbus::internal::BnPreferencesAppInfoListener {
    public:
        explicit AppInfoListener(PreferencesPackageManager* manager);

        Status onSchema(const std::vector<uint8_t>& schema) override EXCLUDES(mMutex);
        Status deleteUserData(int32_t userId) override EXCLUDES(mMutex);
        Status currentUser(int32_t userId) override EXCLUDES(mMutex);
        Status userList(const std::vector<int32_t>& users) override EXCLUDES(mMutex);

        // Cuts the link to the manager; returns once no call is being forwarded any more.
        void detach() EXCLUDES(mMutex);

    private:
        Mutex mMutex;
        PreferencesPackageManager* mManager GUARDED_BY(mMutex);
    };

    // Same as the next with start = true.
    explicit PreferencesPackageManager(const std::shared_ptr<PreferencesKeyManager>& keyManager);
    // Keeps `keyManager` (shared with the service; may be null, then received lists are dropped)
    // and makes the listener; starts when `start`.
    PreferencesPackageManager(const std::shared_ptr<PreferencesKeyManager>& keyManager, bool start);
    // Drops the kept user events, detaches the listener, then stops.
    ~PreferencesPackageManager();

    PreferencesPackageManager(const PreferencesPackageManager&) = delete;
    PreferencesPackageManager& operator=(const PreferencesPackageManager&) = delete;

    // Starts connecting to the app-info service (returning after the first attempt, so a
    // published service has been asked to take the listener by then) and starts the worker
    // thread. Returns true when it started now, false when it was already running.
    bool start() EXCLUDES(mWorkerMutex, mStateMutex);
    // Unregisters the listener when it is registered, drops the queued schema lists, closes the
    // connection and joins the worker. Does nothing when not running.
    void stop() EXCLUDES(mWorkerMutex, mStateMutex);

    // From now on app-info events wait until releaseEvents(): user events are kept, and queued
    // schema lists stay in the queue. Call before start().
    void holdEvents() EXCLUDES(mGateMutex);
    // Applies the kept user events in the order they arrived, each with the calling identity it
    // came with, and returns once none is left (or, should applying them take longer than
    // kAppInfoCallLimit, lets them finish in the background); then lets the worker and every
    // later event through.
    void releaseEvents() EXCLUDES(mGateMutex);

    // Parses a schema-list document and queues it for the worker. Returns Status::ok() when a
    // list was queued, and the exception EX_BAD_PARCELABLE (-2) when the bytes are not a JSON
    // document; the bytes are dropped either way.
    Status onSchema(const std::vector<uint8_t>& schema);
    // The key manager's operation of the same name; 0 gives Status::ok(), any other result r
    // the service-specific error r. While events are held the event is kept for releaseEvents()
    // and the result is Status::ok(); during destruction it is dropped with EX_ILLEGAL_STATE, as a
    // detached listener's calls are.
    Status currentUser(int userId);
    Status userList(const std::vector<int>& users);
    Status deleteUserData(int userId);

    // Writes the manager's state for the service's dump. Always returns true.
    bool dump(int fd) EXCLUDES(mStateMutex);

    // The worker thread's body: applies queued lists until stop() clears running and wakes it.
    void process();

    // The object registered with the app-info service.
    const android::sp<AppInfoListener>& listener() const { return mListener; }

private:
    using Client = BinderClient<AppInfoInquirer>;

    void onConnected(const android::sp<AppInfoInquirer>& service) EXCLUDES(mStateMutex);
    void onDisconnected() EXCLUDES(mStateMutex);
    static Status toStatus(int result);
    // Unregisters the listener from `service`, waiting at most kAppInfoCallLimit for the answer.
    void unregisterWithin(const android::sp<AppInfoInquirer>& service);
    // A user event kept while events are held: its caller (a calling-identity token) and the
    // key manager operation. `apply` holds its own reference to the key manager.
    struct HeldEvent {
        int64_t caller;
        std::function<int()> apply;
    };

    // Applies a user event now, or keeps it while events are held.
    Status applyUserEvent(std::function<int()> apply) EXCLUDES(mGateMutex);
    // The worker's wait while events are held. True when the list may be applied, false when the
    // manager stopped (or is being destroyed) meanwhile.
    bool waitUntilReleased() EXCLUDES(mGateMutex);
    // Wakes a worker waiting for the gate so that it looks at it again.
    void wakeHeldEvents() EXCLUDES(mGateMutex);

    // Guards the flags below and the client pointer.
    Mutex mStateMutex;
    // Held for the whole of start() and stop(): guards the start and join of the worker and
    // keeps a stop from overlapping a start. Taken before mStateMutex.
    Mutex mWorkerMutex;
    BlockingQueue<std::unique_ptr<PreferencesSchemaList>> mQueue;
    std::thread mWorker GUARDED_BY(mWorkerMutex);
    std::unique_ptr<Client> mClient GUARDED_BY(mStateMutex);
    const std::shared_ptr<PreferencesKeyManager> mKeyManager;
    const android::sp<AppInfoListener> mListener;
    // start() succeeded and stop() has not run. Atomic because the worker reads it unlocked;
    // written under mStateMutex.
    std::atomic<bool> mRunning{false};
    // The listener is registered with the app-info service.
    bool mListening GUARDED_BY(mStateMutex) = false;
    // Counts the deaths of the app-info service, so that a registration that finishes after
    // the death of the service it was made with does not count as listening.
    uint64_t mConnectionGeneration GUARDED_BY(mStateMutex) = 0;

    // The gate of app-info events: held by holdEvents() until releaseEvents(); closed for good
    // by the destructor.
    Mutex mGateMutex;
    std::condition_variable mGateChanged;
    bool mEventsHeld GUARDED_BY(mGateMutex) = false;
    bool mGateClosed GUARDED_BY(mGateMutex) = false;
    std::vector<HeldEvent> mHeldUserEvents GUARDED_BY(mGateMutex);
};

}  // namespace Halo::OS
