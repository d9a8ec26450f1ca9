#define LOG_TAG "PreferencesService"

#include "intake/PreferencesPackageManager.h"

#include <binder/IServiceManager.h>
#include <binder/PermissionCache.h>
#include <json/reader.h>
#include <json/value.h>
#include <log/log.h>

#include <cstdio>
#include <exception>
#include <string>

#include "model/KeySourceDomain.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

const char* boolText(bool value) {
    return value ? "True" : "False";
}

// Parses `text` with JsonCpp's default reader settings. The reader throws when the document
// nests deeper than its stack limit; that counts as malformed like any other error.
bool parseJson(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &out, &errors);
    } catch (const std::exception&) {
        return false;
    }
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
    if (service != nullptr) {
        bool unregistered = false;
        service->unregisterPackageInfoListener(&unregistered);
    }
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
    bool ok = false;
    const Status status = service->registerPackageInfoListener(mListener, &ok);
    if (!status.isOk() || !ok) {
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
    if (withdraw) {
        bool unregistered = false;
        service->unregisterPackageInfoListener(&unregistered);
    }
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
    if (!parseJson(text, document)) {
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
    return toStatus(mKeyManager->currentUser(static_cast<unsigned int>(userId)));
}

android::binder::Status PreferencesPackageManager::userList(const std::vector<int>& users) {
    return toStatus(mKeyManager->userList(users));
}

android::binder::Status PreferencesPackageManager::deleteUserData(int userId) {
    return toStatus(mKeyManager->deleteUserData(static_cast<unsigned int>(userId)));
}

android::binder::Status PreferencesPackageManager::toStatus(int result) {
    return result == 0 ? Status::ok() : Status::fromServiceSpecificError(result);
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
        if (mQueue.dequeue(list)) mKeyManager->process(list, KeySourceDomain::Application);
    } while (!mQueue.isTerminated() && mRunning);
}

}  // namespace Halo::OS
