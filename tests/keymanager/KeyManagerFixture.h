#pragma once

#include <binder/IPCThreadState.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>

#include "keymanager/PreferencesKeyManager.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "store/DirectoryPreferencesDb.h"
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

// A key manager whose caller identity the test chooses. The OS permission checks still ask the
// real Binder calling identity (root in these tests, so they pass) unless a test changes it.
class TestKeyManager : public PreferencesKeyManager {
public:
    explicit TestKeyManager(std::unique_ptr<IPreferencesDb> db)
        : PreferencesKeyManager(std::move(db)) {}

    uid_t getCallingUid() const override { return mCaller.load(); }
    void setCaller(uid_t uid) { mCaller = uid; }

private:
    std::atomic<uid_t> mCaller{0};
};

// Makes `uid` the Binder calling identity of this thread for the scope's lifetime.
class ScopedCallingIdentity {
public:
    explicit ScopedCallingIdentity(uid_t uid)
        : mToken(android::IPCThreadState::self()->clearCallingIdentity()) {
        // Any pid but our own: the process itself is always granted every permission.
        android::IPCThreadState::self()->setCallingIdentity(getppid(), uid);
    }
    ~ScopedCallingIdentity() { android::IPCThreadState::self()->restoreCallingIdentity(mToken); }

private:
    int64_t mToken;
};

inline std::unique_ptr<PreferencesSchemaList> schemaList(const std::string& json) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(json.data(), json.data() + json.size(), &value, &errors)) << errors;
    PreferencesSchemaListBuilder listBuilder;
    listBuilder.process(value);
    return listBuilder.build();
}

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
