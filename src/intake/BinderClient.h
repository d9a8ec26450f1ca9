#pragma once

#include <android-base/thread_annotations.h>
#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <log/log.h>
#include <utils/Errors.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "threads/Mutex.h"

namespace Halo::OS {

// Keeps a connection to the Binder service published under a name: finds it, watches it for
// death and finds it again. Attempts are made at a fixed interval and without limit until one
// succeeds or the client is destroyed; an absent service costs nothing but a lookup per interval
// and logs nothing.
//
// Callbacks:
// - onConnected(service) runs on the client's connection thread after every successful
//   connection, the first one included. The constructor returns after the first attempt, so a
//   service that is already published has been handed to onConnected by then.
// - onDisconnected() runs on the Binder thread that delivers the service's death, just before
//   the client starts retrying.
// No lock of the client is held while either runs, and neither runs any more once the destructor
// has returned. A callback must not destroy its client.
//
// Threads: every public operation may be called from any thread. Lock order: the death
// recipient's mutex, then the connection-thread mutex, then the state mutex.
template <typename Service>
class BinderClient {
public:
    using OnConnected = std::function<void(android::sp<Service>)>;
    using OnDisconnected = std::function<void()>;
    using InterfaceCast = std::function<android::sp<Service>(const android::sp<android::IBinder>&)>;
    using ServiceManagerGetter = std::function<android::sp<android::IServiceManager>()>;

    // Told of the death of the connected service; forwards it to its client until the client
    // detaches it (at destruction). binderDied holds the recipient's mutex for the whole of the
    // forwarding, so a detach waits for a death that is being handled.
    class ServiceDeathRecipient : public android::IBinder::DeathRecipient {
    public:
        explicit ServiceDeathRecipient(BinderClient* client) : mClient(client) {}

        void binderDied(const android::wp<android::IBinder>& /*who*/) override EXCLUDES(mMutex) {
            Mutex::Autolock lock(mMutex);
            if (mClient != nullptr) mClient->onServiceDisconnected();
        }

        // Cuts the link to the client; later deaths are ignored.
        void detach() EXCLUDES(mMutex) {
            Mutex::Autolock lock(mMutex);
            mClient = nullptr;
        }

    private:
        Mutex mMutex;
        BinderClient* mClient GUARDED_BY(mMutex);
    };

    // Starts connecting to the service `name` and returns once the first attempt has finished,
    // successful or not. `interfaceCast` turns the found binder into the interface (null when it
    // does not implement it); `getServiceManager` gives the directory in which the service is
    // looked up. Empty callbacks are replaced by ones that do nothing.
    BinderClient(std::string_view name, std::chrono::milliseconds retryInterval,
                 OnConnected onConnected, OnDisconnected onDisconnected,
                 InterfaceCast interfaceCast, ServiceManagerGetter getServiceManager)
        : mName(name),
          mRetryInterval(retryInterval.count()),
          mOnConnected(onConnected ? std::move(onConnected)
                                   : OnConnected([](android::sp<Service>) {})),
          mOnDisconnected(onDisconnected ? std::move(onDisconnected) : OnDisconnected([] {})),
          mInterfaceCast(std::move(interfaceCast)),
          mGetServiceManager(std::move(getServiceManager)),
          mStopFuture(mStopPromise.get_future().share()),
          mDeathRecipient(new ServiceDeathRecipient(this)) {
        std::future<void> firstAttempt = mFirstAttemptPromise.get_future();
        connectAsync();
        firstAttempt.wait();
    }

    // Stops retrying and waits for the connection thread. Any death being handled on a Binder
    // thread finishes first; a connection that completes meanwhile is dropped with a warning.
    ~BinderClient() EXCLUDES(mConnectionMutex, mStateMutex) {
        mDeathRecipient->detach();
        {
            Mutex::Autolock lock(mStateMutex);
            mDestroyed = true;
            if (mService != nullptr) {
                android::IInterface::asBinder(mService)->unlinkToDeath(mDeathRecipient);
                mService = nullptr;
            }
        }
        mStopPromise.set_value();
        Mutex::Autolock lock(mConnectionMutex);
        mLoopRunning = false;
        if (mConnectionThread.joinable()) mConnectionThread.join();
    }

    BinderClient(const BinderClient&) = delete;
    BinderClient& operator=(const BinderClient&) = delete;

    // Replaces the connection thread with a new one that runs connect(): a previous thread is
    // told to end and joined first. Called on the very connection thread (a death delivered
    // while its onConnected callback runs), it leaves that thread running and has it retry once
    // the callback returns.
    void connectAsync() EXCLUDES(mConnectionMutex) {
        Mutex::Autolock lock(mConnectionMutex);
        if (mConnectionThread.joinable()) {
            if (mConnectionThread.get_id() == std::this_thread::get_id()) {
                mRetryAfterConnect = true;
                return;
            }
            mLoopRunning = false;
            mConnectionThread.join();
        }
        mLoopRunning = true;
        mConnectionThread = std::thread(&BinderClient::connect, this);
    }

    // The retry loop (the connection thread's body): the first attempt at once, each later one
    // after the retry interval, until an attempt succeeds, the client is destroyed or the thread
    // is replaced.
    void connect() {
        std::chrono::milliseconds wait{0};
        while (mStopFuture.valid() && mLoopRunning) {
            if (mStopFuture.wait_for(wait) == std::future_status::ready) break;
            wait = std::chrono::milliseconds(mRetryInterval);
            if (tryConnect() && !mRetryAfterConnect.exchange(false)) break;
        }
        // A loop that ends before its first attempt must not leave the constructor waiting.
        markFirstAttemptDone();
    }

    // One attempt: looks the service up (without waiting for it to appear), casts it, watches
    // it for death and hands it to onConnected. Returns false when the service is absent, does
    // not implement the interface, is already dead, or the client is being destroyed.
    bool tryConnect() EXCLUDES(mStateMutex) {
        android::sp<Service> service;
        bool connected = false;
        const android::sp<android::IServiceManager> serviceManager =
                mGetServiceManager ? mGetServiceManager() : nullptr;
        const android::sp<android::IBinder> binder =
                serviceManager != nullptr
                        ? serviceManager->checkService(android::String16(mName.c_str()))
                        : nullptr;
        if (binder != nullptr) {
            service = mInterfaceCast ? mInterfaceCast(binder) : nullptr;
            if (service == nullptr) {
                ALOG(LOG_ERROR, kLogTag,
                     "BinderClient: Failed to convert IBinder to expected service type %s",
                     mName.c_str());
            } else {
                connected = store(binder, service);
            }
        }
        if (connected) mOnConnected(service);
        markFirstAttemptDone();
        return connected;
    }

    // The connected service, or null while disconnected.
    android::sp<Service> getService() EXCLUDES(mStateMutex) {
        Mutex::Autolock lock(mStateMutex);
        return mService;
    }

    // The service died: forget it, tell onDisconnected and start retrying. Fatal when the client
    // has been destroyed (the death recipient is detached before that, so it cannot happen).
    void onServiceDisconnected() EXCLUDES(mStateMutex, mConnectionMutex) {
        {
            Mutex::Autolock lock(mStateMutex);
            if (mDestroyed) {
                __android_log_assert("state->destroyed", kLogTag,
                                     "death recipient fired after class destruction");
            }
            mService = nullptr;
        }
        mOnDisconnected();
        connectAsync();
    }

private:
    static constexpr const char* kLogTag = "PreferencesService";

    // Keeps `service` as the connected one and links the death recipient to its binder.
    bool store(const android::sp<android::IBinder>& binder, const android::sp<Service>& service)
            EXCLUDES(mStateMutex) {
        Mutex::Autolock lock(mStateMutex);
        if (mDestroyed) {
            ALOG(LOG_WARN, kLogTag, "BinderClient: ignoring '%s' reconnect after destruction",
                 mName.c_str());
            return false;
        }
        const android::status_t linked = binder->linkToDeath(mDeathRecipient, nullptr, 0);
        // The service died between the lookup and now: no death will be told, so retry.
        if (linked == android::DEAD_OBJECT) return false;
        // Anything else (INVALID_OPERATION for a service in this very process, which never dies)
        // leaves a usable service.
        if (linked != android::OK) {
            ALOG(LOG_WARN, kLogTag, "BinderClient: cannot watch '%s' for death: %d", mName.c_str(),
                 linked);
        }
        mService = service;
        return true;
    }

    void markFirstAttemptDone() {
        if (!mFirstAttemptSet.exchange(true)) mFirstAttemptPromise.set_value();
    }

    const std::string mName;
    const int64_t mRetryInterval;  // milliseconds
    const OnConnected mOnConnected;
    const OnDisconnected mOnDisconnected;
    const InterfaceCast mInterfaceCast;
    const ServiceManagerGetter mGetServiceManager;

    Mutex mConnectionMutex;
    std::thread mConnectionThread GUARDED_BY(mConnectionMutex);

    // Made ready by the destructor; the retry loop waits on it between attempts.
    std::promise<void> mStopPromise;
    const std::shared_future<void> mStopFuture;

    std::promise<void> mFirstAttemptPromise;
    std::atomic<bool> mFirstAttemptSet{false};

    // Cleared to end the current retry loop; read by the connection thread without a lock.
    std::atomic<bool> mLoopRunning{false};
    // Set when the service died while the connection thread was still in onConnected.
    std::atomic<bool> mRetryAfterConnect{false};

    Mutex mStateMutex;
    bool mDestroyed GUARDED_BY(mStateMutex) = false;
    android::sp<Service> mService GUARDED_BY(mStateMutex);

    const android::sp<ServiceDeathRecipient> mDeathRecipient;
};

}  // namespace Halo::OS
