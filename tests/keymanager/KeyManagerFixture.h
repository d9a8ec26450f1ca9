#pragma once

#include <binder/IPCThreadState.h>
#include <gtest/gtest.h>
#include <lumen/preferences/BnPreferencesListener.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
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

// A key manager whose caller identity the test chooses (root unless changed); with no caller
// given, the Binder caller. Counts how often it is asked for its caller, which every public
// operation does first. The OS permission checks still ask the real Binder calling identity
// (root in these tests, so they pass) unless a test changes it.
class TestKeyManager : public PreferencesKeyManager {
public:
    explicit TestKeyManager(std::unique_ptr<IPreferencesDb> db,
                            std::optional<uid_t> caller = uid_t(0))
        : PreferencesKeyManager(std::move(db)),
          mFixed(caller.has_value()),
          mCaller(caller.value_or(0)) {}
    ~TestKeyManager() override { stopCallbacks(); }

    uid_t getCallingUid() const override {
        ++mCalls;
        return mFixed ? mCaller.load() : PreferencesKeyManager::getCallingUid();
    }
    void setCaller(uid_t uid) {
        mCaller = uid;
        mFixed = true;
    }
    int calls() const { return mCalls.load(); }

private:
    mutable std::atomic<int> mCalls{0};
    std::atomic<bool> mFixed;
    std::atomic<uid_t> mCaller;
};

// Makes `uid` (from `pid`) the Binder calling identity of this thread for the scope's lifetime.
// The default pid is any but our own: the process itself is granted every permission.
class ScopedCallingIdentity {
public:
    explicit ScopedCallingIdentity(uid_t uid, pid_t pid = getppid())
        : mToken(android::IPCThreadState::self()->clearCallingIdentity()) {
        android::IPCThreadState::self()->setCallingIdentity(pid, uid);
    }
    ~ScopedCallingIdentity() { android::IPCThreadState::self()->restoreCallingIdentity(mToken); }

private:
    int64_t mToken;
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

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<std::vector<android::String16>> mCalls;
};

// A key manager on a store in a fresh temporary directory, with its Binder service directory in
// the same place (so that no permission service is found unless a test publishes one).
class KeyManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("BINDER_DIR", mDir.path().c_str(), 1);
        start();
    }
    void TearDown() override { mManager.reset(); }

    void start() {
        mManager = std::make_unique<TestKeyManager>(
                std::make_unique<DirectoryPreferencesDb>(mDir.path()));
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
        mManager->setCaller(0);
        return mManager->getWithoutPermissionCheck(key, value, type, uid);
    }
    std::string rootValue(const std::string& key, PreferencesKeyInfo::Type type, uid_t uid = 0) {
        std::string value;
        EXPECT_EQ(0, rootGet(key, value, type, uid)) << key;
        return value;
    }

    TempDir mDir;
    std::unique_ptr<TestKeyManager> mManager;
};

}  // namespace testing
}  // namespace Halo::OS
