#pragma once

#include <cutils/multiuser.h>
#include <gtest/gtest.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <unistd.h>
#include <utils/String8.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "keymanager/PreferencesKeyManager.h"
#include "store/DirectoryPreferencesDb.h"
#include "support/SchemaList.h"
#include "support/TempDir.h"

namespace Halo::OS {

// Reaches into the key manager to pause its callback thread at a known point: while a test holds
// the main mutex, the callback thread can only be waiting for it or for the queue.
class PreferencesKeyManagerTestPeer {
public:
    static Mutex& mutex(PreferencesKeyManager& manager) { return manager.mMutex; }
    static void enqueue(PreferencesKeyManager& manager, const std::string& key) {
        manager.mQueue.enqueue(key);
    }
    static size_t queued(PreferencesKeyManager& manager) { return manager.mQueue.size(); }
};

namespace testing {

// The caller identity and OS permissions the key manager (and a service on it) sees: root in
// this process unless the test chooses another caller. Every caller holds every OS permission
// until the test limits them with setGrants; root always holds them. Counts how often it is
// asked for the caller.
class TestAccess : public PreferencesAccess {
public:
    CallingContext getCallingContext() const override {
        ++mCalls;
        std::lock_guard<std::mutex> lock(mMutex);
        return mCaller;
    }
    bool checkPermission(const CallingContext& caller,
                         const android::String16& permission) const override {
        std::lock_guard<std::mutex> lock(mMutex);
        if (caller.uid == 0 || !mGrants.has_value()) return true;
        const auto it = mGrants->find(multiuser_get_app_id(caller.uid));
        return it != mGrants->end() && it->second.count(android::String8(permission).c_str()) != 0;
    }

    // Makes `uid` the caller; by default it calls from this process.
    void setCaller(uid_t uid, pid_t pid = getpid()) {
        std::lock_guard<std::mutex> lock(mMutex);
        mCaller = {pid, uid};
    }
    // From now on a caller other than root holds only the permissions listed for its application
    // id.
    void setGrants(std::map<uid_t, std::set<std::string>> grants) {
        std::lock_guard<std::mutex> lock(mMutex);
        mGrants = std::move(grants);
    }
    int calls() const { return mCalls.load(); }

private:
    mutable std::atomic<int> mCalls{0};
    mutable std::mutex mMutex;
    CallingContext mCaller{getpid(), 0};
    std::optional<std::map<uid_t, std::set<std::string>>> mGrants;
};

// A listener in this process that records the keys of every onChanged call.
class RecordingListener : public lumen::preferences::BnPreferencesListener {
public:
    android::binder::Status onChanged(const std::vector<android::String16>& keys) override {
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back(keys);
        mChanged.notify_all();
        return android::binder::Status::ok();
    }
    // The keys of the first onChanged call, waiting for it for up to ten seconds.
    std::vector<android::String16> firstCall() {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return !mCalls.empty(); });
        return mCalls.empty() ? std::vector<android::String16>{} : mCalls.front();
    }
    size_t calls() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls.size();
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<std::vector<android::String16>> mCalls;
};

// A key manager on a store in a fresh temporary directory, its caller given by mAccess; its Binder
// service directory (for listener processes) is the same directory.
class KeyManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("BINDER_DIR", mDir.path().c_str(), 1);
        start();
    }
    void TearDown() override { mManager.reset(); }

    void start() {
        mManager = std::make_unique<PreferencesKeyManager>(
                std::make_unique<DirectoryPreferencesDb>(mDir.path()), mAccess);
    }
    void restart() {
        mManager.reset();
        start();
    }

    bool apply(const std::string& json, KeySourceDomain domain = KeySourceDomain::Application) {
        return mManager->process(schemaList(json), domain);
    }

    // Reads `key` as root for the user of `uid`; returns the status and sets `value`.
    int rootGet(const std::string& key, std::string& value, PreferencesKeyInfo::Type type,
                uid_t uid = 0) {
        mAccess->setCaller(0);
        return mManager->getWithoutPermissionCheck(key, value, type, uid);
    }
    std::string rootValue(const std::string& key, PreferencesKeyInfo::Type type, uid_t uid = 0) {
        std::string value;
        EXPECT_EQ(0, rootGet(key, value, type, uid)) << key;
        return value;
    }

    TempDir mDir;
    std::shared_ptr<TestAccess> mAccess = std::make_shared<TestAccess>();
    std::unique_ptr<PreferencesKeyManager> mManager;
};

}  // namespace testing
}  // namespace Halo::OS
