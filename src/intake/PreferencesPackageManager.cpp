#define LOG_TAG "PreferencesService"

#include "intake/PreferencesPackageManager.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/PermissionCache.h>
#include <json/value.h>
#include <log/log.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "intake/BoundedCall.h"
#include "model/JsonParsing.h"
#include "model/KeySourceDomain.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

const char* boolText(bool value) {
    return value ? "True" : "False";
}

// What a listener call gets once its manager is gone.
android::binder::Status detachedStatus() {
    return android::binder::Status::fromExceptionCode(android::binder::Status::EX_ILLEGAL_STATE,
                                                      "preferences package manager is gone");
}

}  // namespace

// ---- AppInfoListener ----

PreferencesPackageManager::AppInfoListener::AppInfoListener(PreferencesPackageManager* manager)
    : mManager(manager) {}

android::binder::Status PreferencesPackageManager::AppInfoListener::onSchema(
        const std::vector<uint8_t>& schema) {
    Mutex::Autolock lock(mMutex);
    return mManager != nullptr ? mManager->onSchema(schema) : detachedStatus();
}

android::binder::Status PreferencesPackageManager::AppInfoListener::deleteUserData(int32_t userId) {
    Mutex::Autolock lock(mMutex);
    return mManager != nullptr ? mManager->deleteUserData(userId) : detachedStatus();
}

android::binder::Status PreferencesPackageManager::AppInfoListener::currentUser(int32_t userId) {
    Mutex::Autolock lock(mMutex);
    return mManager != nullptr ? mManager->currentUser(userId) : detachedStatus();
}

android::binder::Status PreferencesPackageManager::AppInfoListener::userList(
        const std::vector<int32_t>& users) {
    Mutex::Autolock lock(mMutex);
    return mManager != nullptr ? mManager->userList(users) : detachedStatus();
}

void PreferencesPackageManager::AppInfoListener::detach() {
    Mutex::Autolock lock(mMutex);
    mManager = nullptr;
}

// ---- PreferencesPackageManager ----

PreferencesPackageManager::PreferencesPackageManager(
        const std::shared_ptr<PreferencesKeyManager>& keyManager)
    : PreferencesPackageManager(keyManager, true) {}

PreferencesPackageManager::PreferencesPackageManager(
        const std::shared_ptr<PreferencesKeyManager>& keyManager, bool start)
    : mKeyManager(keyManager), mListener(new AppInfoListener(this)) {
    if (start) this->start();
}

PreferencesPackageManager::~PreferencesPackageManager() {
    {
        // Kept user events are dropped: the start-up they waited for did not finish.
        Mutex::Autolock lock(mGateMutex);
        mGateClosed = true;
        mHeldUserEvents.clear();
    }
    mGateChanged.notify_all();
    // First, so that no Binder thread is inside this object while it is taken apart.
    mListener->detach();
    stop();
}

bool PreferencesPackageManager::start() {
    Mutex::Autolock lifecycle(mWorkerMutex);
    {
        Mutex::Autolock lock(mStateMutex);
        if (mRunning) return false;
        // Set before connecting: the first connection registers the listener only while running.
        mRunning = true;
    }
    // Made without mStateMutex: the constructor waits for the first attempt, whose on-connected
    // callback takes that mutex.
    auto client = std::make_unique<Client>(
            kAppInfoServiceName, kRetryInterval,
            [this](android::sp<AppInfoInquirer> service) { onConnected(service); },
            [this] { onDisconnected(); }, android::interface_cast<AppInfoInquirer>,
            android::defaultServiceManager);
    {
        Mutex::Autolock lock(mStateMutex);
        mClient = std::move(client);
    }
    mWorker = std::thread(&PreferencesPackageManager::process, this);
    return true;
}

void PreferencesPackageManager::stop() {
    Mutex::Autolock lifecycle(mWorkerMutex);
    std::unique_ptr<Client> client;
    android::sp<AppInfoInquirer> service;
    {
        Mutex::Autolock lock(mStateMutex);
        if (!mRunning) return;
        mRunning = false;
        if (mListening) {
            if (mClient != nullptr) service = mClient->getService();
            mListening = false;
        }
        client = std::move(mClient);
    }
    if (service != nullptr) unregisterWithin(service);
    // A worker waiting for the gate ends.
    wakeHeldEvents();
    // The empty list wakes a waiting worker, which then sees running cleared and ends. It goes
    // through the key manager like any list; with no schemas and no flags it registers nothing
    // and removes nothing.
    mQueue.clear();
    mQueue.enqueue(std::make_unique<PreferencesSchemaList>());
    // Destroyed without mStateMutex: destruction joins the connection thread, which may be in
    // onConnected waiting for that mutex.
    client.reset();
    if (mWorker.joinable()) mWorker.join();
}

void PreferencesPackageManager::onConnected(const android::sp<AppInfoInquirer>& service) {
    uint64_t generation;
    {
        Mutex::Autolock lock(mStateMutex);
        if (!mRunning) return;
        generation = mConnectionGeneration;
    }
    const android::sp<AppInfoListener> listener = mListener;
    const std::optional<bool> registered =
            BoundedCall::run<bool>(kAppInfoCallLimit, [service, listener] {
                bool ok = false;
                return service->registerPackageInfoListener(listener, &ok).isOk() && ok;
            });
    if (!registered.has_value()) {
        ALOGE("The app-info service did not answer the listener registration within %lld ms",
              static_cast<long long>(kAppInfoCallLimit.count()));
    }
    if (!registered.value_or(false)) {
        ALOGE("Failed to register package info listener");
        return;
    }
    bool withdraw = false;
    {
        Mutex::Autolock lock(mStateMutex);
        if (!mRunning) {
            // stop() ran during the registration and found nothing to unregister.
            withdraw = true;
        } else if (generation == mConnectionGeneration) {
            mListening = true;
        }
    }
    if (withdraw) unregisterWithin(service);
}

void PreferencesPackageManager::unregisterWithin(const android::sp<AppInfoInquirer>& service) {
    const std::optional<bool> answered = BoundedCall::run<bool>(kAppInfoCallLimit, [service] {
        bool unregistered = false;
        service->unregisterPackageInfoListener(&unregistered);
        return true;
    });
    if (!answered.has_value()) {
        ALOGE("The app-info service did not answer the listener unregistration within %lld ms",
              static_cast<long long>(kAppInfoCallLimit.count()));
    }
}

void PreferencesPackageManager::holdEvents() {
    Mutex::Autolock lock(mGateMutex);
    mEventsHeld = true;
}

void PreferencesPackageManager::releaseEvents() {
    // Events that arrive while a batch is applied join the next batch; the gate opens only when
    // none is left, so every event is applied in the order it arrived.
    for (;;) {
        std::vector<HeldEvent> batch;
        {
            Mutex::Autolock lock(mGateMutex);
            if (mHeldUserEvents.empty()) {
                mEventsHeld = false;
                break;
            }
            batch.swap(mHeldUserEvents);
        }
        // Applied as their callers: the key manager checks the app-info service's permissions,
        // which may mean asking the permission service, another process.
        const std::optional<bool> applied =
                BoundedCall::run<bool>(kAppInfoCallLimit, [batch = std::move(batch)] {
                    for (const HeldEvent& event : batch) {
                        android::IPCThreadState::self()->restoreCallingIdentity(event.caller);
                        event.apply();
                    }
                    return true;
                });
        if (!applied.has_value()) {
            ALOGE("The app-info events of the start-up were not applied within %lld ms; they "
                  "finish in the background",
                  static_cast<long long>(kAppInfoCallLimit.count()));
        }
    }
    mGateChanged.notify_all();
}

android::binder::Status PreferencesPackageManager::applyUserEvent(std::function<int()> apply) {
    {
        Mutex::Autolock lock(mGateMutex);
        if (mGateClosed) return detachedStatus();
        if (mEventsHeld) {
            // The calls are one-way: nobody waits for this status.
            const android::IPCThreadState* ipc = android::IPCThreadState::self();
            const int64_t caller = (static_cast<int64_t>(ipc->getCallingUid()) << 32) |
                                   static_cast<uint32_t>(ipc->getCallingPid());
            mHeldUserEvents.push_back(HeldEvent{caller, std::move(apply)});
            return Status::ok();
        }
    }
    return toStatus(apply());
}

void PreferencesPackageManager::wakeHeldEvents() {
    // Taken so that a waiter cannot miss the change it is about to wait for.
    { Mutex::Autolock lock(mGateMutex); }
    mGateChanged.notify_all();
}

bool PreferencesPackageManager::waitUntilReleased() {
    Mutex::Autolock lock(mGateMutex);
    while (mEventsHeld && !mGateClosed && mRunning) mGateChanged.wait(lock.unique());
    return !mEventsHeld && !mGateClosed;
}

void PreferencesPackageManager::onDisconnected() {
    Telemetry::report("connection_to_appinfo_service_lost");
    // Whatever replaces the app-info service may hold other permissions.
    android::PermissionCache::purgeCache();
    mKeyManager->invalidateAllReads();
    Mutex::Autolock lock(mStateMutex);
    ++mConnectionGeneration;
    mListening = false;
}

android::binder::Status PreferencesPackageManager::onSchema(const std::vector<uint8_t>& schema) {
    // Installing, updating or removing a package is also how its OS permissions change.
    android::PermissionCache::purgeCache();
    mKeyManager->invalidateAllReads();
    const std::string text(schema.begin(), schema.end());
    Json::Value document;
    // A list nested deeper than kMaxJsonListDepth counts as malformed like any other error.
    if (!parseJsonText(text, document)) {
        ALOGE("Incoming schema list format has error, ignore");
        Telemetry::report("onschema_json_error");
        return Status::fromExceptionCode(Status::EX_BAD_PARCELABLE);
    }
    PreferencesSchemaListBuilder builder;
    if (!builder.process(document)) {
        ALOGE("Incoming schema list data process has error, ignore");
        Telemetry::report("onschema_schema_error");
        return Status::fromExceptionCode(Status::EX_BAD_PARCELABLE);
    }
    mQueue.enqueue(builder.build());
    return Status::ok();
}

android::binder::Status PreferencesPackageManager::currentUser(int userId) {
    return applyUserEvent([keyManager = mKeyManager, userId] {
        return keyManager->currentUser(static_cast<unsigned int>(userId));
    });
}

android::binder::Status PreferencesPackageManager::userList(const std::vector<int>& users) {
    return applyUserEvent(
            [keyManager = mKeyManager, users] { return keyManager->userList(users); });
}

android::binder::Status PreferencesPackageManager::deleteUserData(int userId) {
    return applyUserEvent([keyManager = mKeyManager, userId] {
        return keyManager->deleteUserData(static_cast<unsigned int>(userId));
    });
}

android::binder::Status PreferencesPackageManager::toStatus(int result) {
    return result == KeyManagerStatus::Ok ? Status::ok() : Status::fromServiceSpecificError(result);
}

bool PreferencesPackageManager::dump(int fd) {
    dprintf(fd, "  PreferencesPackageManager properties:\n");
    dprintf(fd, "    Schema Queue Terminated:     %s\n", boolText(mQueue.isTerminated()));
    Mutex::Autolock lock(mStateMutex);
    dprintf(fd, "      Connection Thread Running:   %s\n", boolText(mRunning));
    // The connection is kept (or being re-made) for as long as the manager exists.
    dprintf(fd, "      AppInfoSerivce Connected:    %s\n", "True");
    dprintf(fd, "      Listening to AppInfoSerivce: %s\n", boolText(mListening));
    return true;
}

void PreferencesPackageManager::process() {
    do {
        std::unique_ptr<PreferencesSchemaList> list;
        // Without a key manager (a service built without one) lists are dropped.
        if (mQueue.dequeue(list) && waitUntilReleased() && mKeyManager != nullptr) {
            mKeyManager->process(list, KeySourceDomain::Application);
        }
    } while (!mQueue.isTerminated() && mRunning);
}

}  // namespace Halo::OS
