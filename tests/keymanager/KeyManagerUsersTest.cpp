#include <cutils/multiuser.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unistd.h>

#include <functional>

#include "keymanager/KeyManagerFixture.h"
#include "model/PreferencesGenerationLayout.h"
#include "support/FdCapture.h"

namespace Halo::OS {
namespace {

using testing::capturedText;
using testing::KeyManagerTest;
using Type = PreferencesKeyInfo::Type;

constexpr uid_t kApp = 10001;

class KeyManagerUsersTest : public KeyManagerTest {
protected:
    void SetUp() override {
        KeyManagerTest::SetUp();
        ASSERT_TRUE(apply(R"({"add": true, "schemas": [
            {"uid": 1000, "packageName": "nimbus.preferences.service.core", "contents": [
                {"key": "current_user", "type": "integer", "default": "0",
                 "hasWritePermission": true, "scope": "system", "isOwner": true}]},
            {"uid": 10001, "packageName": "com.example.app", "contents": [
                {"key": "app.a", "type": "integer", "default": "0", "hasWritePermission": true},
                {"key": "app.b", "type": "integer", "default": "0", "hasWritePermission": true},
                {"key": "app.user", "type": "string", "default": "", "hasWritePermission": true,
                 "scope": "user"}]}]})",
                          KeySourceDomain::Legacy));
    }
};

// Each change a read can see moves a generation before it returns, exactly once: the key's slot
// for a write or reset of the key, the global generation for changes that reach many reads.
TEST_F(KeyManagerUsersTest, ChangesBumpTheGenerationsThatCachedReadsAreCheckedAgainst) {
    const PreferencesGenerationTable& table = mManager->generations();
    ASSERT_TRUE(table.valid());
    const uint32_t slot = PreferencesGenerationLayout::slotOf("app.a");
    struct Change {
        const char* what;
        std::function<void()> make;
        bool global;
    } changes[] = {
            {"set", [&] { mManager->setWithoutCallback("app.a", "5", Type::Integer, kApp); },
             false},
            {"reset",
             [&] {
                 mAccess->setCaller(kApp);
                 mManager->reset("app.a");
             },
             false},
            {"schema list", [&] { apply(R"({"add": true, "schemas": []})"); }, true},
            {"user switch", [&] { mManager->currentUser(10); }, true},
            {"user list",
             [&] {
                 mManager->userList({0, 10});
             },
             true},
            {"user deletion", [&] { mManager->deleteUserData(10); }, true},
            {"outside change", [&] { mManager->invalidateAllReads(); }, true},
    };
    for (const Change& change : changes) {
        const uint64_t global = table.global();
        const uint64_t key = table.slot(slot);
        change.make();
        EXPECT_EQ(global + (change.global ? 1 : 0), table.global()) << change.what;
        EXPECT_EQ(key + (change.global ? 0 : 1), table.slot(slot)) << change.what;
    }
}

TEST_F(KeyManagerUsersTest, CurrentUserIsRecordedEvenWhenItsWriteIsRefused) {
    EXPECT_EQ(0u, mManager->getCurrentUser());
    mAccess->setCaller(0);
    EXPECT_EQ(0, mManager->currentUser(10));
    EXPECT_EQ(10u, mManager->getCurrentUser());
    EXPECT_EQ("10", rootValue("current_user", Type::Integer));

    // An app without a row on "current_user": the set is refused, the memory still changes.
    mAccess->setCaller(kApp);
    EXPECT_EQ(-3, mManager->currentUser(11));
    EXPECT_EQ(11u, mManager->getCurrentUser());
    EXPECT_EQ("10", rootValue("current_user", Type::Integer));

    // Destruction clears the stored current user of user 0.
    restart();
    EXPECT_EQ("0", rootValue("current_user", Type::Integer));
    EXPECT_EQ(0u, mManager->getCurrentUser());
}

TEST_F(KeyManagerUsersTest, DumpListsListenersAndTheirKeys) {
    const std::string properties =
            "  PreferencesKeyManager properties:\n"
            "      Database Exists:             True\n"
            "      Schema Queue Terminated:     False\n"
            "      Schema Thread Running:       True\n"
            "      Listener Info:\n";
    EXPECT_EQ(properties, capturedText([&](int fd) { EXPECT_TRUE(mManager->dump(fd)); }));

    mAccess->setCaller(kApp);
    ASSERT_EQ(0, mManager->registerListener(new testing::RecordingListener, {"app.b", "app.a"},
                                            false));
    ASSERT_EQ(0, mManager->registerListener(new testing::RecordingListener, {}, false));
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(properties + "        uuid: 1\n          pid: " + pid +
                      ", uid: 10001, uuid: 1\n"
                      "          keys: \n            app.a\n            app.b\n"
                      "        uuid: 2\n          pid: " +
                      pid +
                      ", uid: 10001, uuid: 2\n"
                      "          keys: \n            no keys\n",
              capturedText([&](int fd) { EXPECT_TRUE(mManager->dump(fd)); }));
}

TEST_F(KeyManagerUsersTest, ProfileAndTraceDumpsFollowTheirSwitches) {
    EXPECT_EQ("", capturedText([&](int fd) { EXPECT_FALSE(mManager->dumpProfile(fd)); }));
    EXPECT_EQ("", capturedText([&](int fd) { EXPECT_FALSE(mManager->dumpTrace(fd)); }));

    mManager->setProfiling(true);
    mManager->setTracing(true);
    EXPECT_TRUE(mManager->profiling());
    std::string value;
    mAccess->setCaller(kApp);
    ASSERT_EQ(0, mManager->set("app.a", "1", Type::Integer));
    ASSERT_EQ(0, mManager->get("app.a", value, Type::Integer));
    ASSERT_EQ(0, mManager->get("app.a", value, Type::Integer));
    const std::string profile =
            capturedText([&](int fd) { EXPECT_TRUE(mManager->dumpProfile(fd)); });
    EXPECT_NE(std::string::npos, profile.find("key counts app.a 2 1\n")) << profile;
    EXPECT_NE(std::string::npos, profile.find("total reads:  2\n")) << profile;
    EXPECT_NE(std::string::npos, profile.find("total writes: 1\n")) << profile;
    // The callback thread takes the lock for the write's notification on its own time; its
    // trace line must be in before the reset below, or it would land after it.
    std::string trace;
    for (int i = 0; i < 500 && trace.find(" | lock | callback | app.a | ") == std::string::npos;
         ++i) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        trace = capturedText([&](int fd) { EXPECT_TRUE(mManager->dumpTrace(fd)); });
    }
    EXPECT_NE(std::string::npos, trace.find(" | write | app.a | 1 | ")) << trace;
    EXPECT_NE(std::string::npos, trace.find(" | read | app.a | 1 | ")) << trace;
    EXPECT_NE(std::string::npos, trace.find(" | lock | write | app.a | ")) << trace;

    // Switching off hides the dumps but keeps the data; a reset clears it.
    mManager->setProfiling(false);
    EXPECT_EQ("", capturedText([&](int fd) { EXPECT_FALSE(mManager->dumpProfile(fd)); }));
    mManager->setProfiling(true);
    EXPECT_NE(std::string::npos,
              capturedText([&](int fd) { mManager->dumpProfile(fd); }).find("total reads:  2\n"));
    mManager->resetProfile();
    mManager->resetTrace();
    EXPECT_NE(std::string::npos,
              capturedText([&](int fd) { mManager->dumpProfile(fd); }).find("total reads:  0\n"));
    mAccess->setCaller(0);
    EXPECT_EQ("", capturedText([&](int fd) { mManager->dumpTrace(fd); }));
}

// A type query's trace line records the type it returns, or on failure the type the caller
// started with.
TEST_F(KeyManagerUsersTest, TypeQueryTraceRecordsTheTypeItReturnsOrStartedWith) {
    struct Case {
        const char* key;
        Type start;
        int result;
        const char* trace;
    };
    const Case cases[] = {
            {"app.user", Type::Integer, 0, " | gettype | app.user | type: 2, return 0 | "},
            {"app.missing", Type::Integer, -9, " | gettype | app.missing | type: 0, return -9 | "},
            {"app.gone", Type::Long, -9, " | gettype | app.gone | type: 3, return -9 | "},
    };
    mManager->setTracing(true);
    mAccess->setCaller(0);
    for (const Case& c : cases) {
        Type type = c.start;
        EXPECT_EQ(c.result, mManager->getType(c.key, type)) << c.key;
        const std::string trace = capturedText([&](int fd) { mManager->dumpTrace(fd); });
        EXPECT_NE(std::string::npos, trace.find(c.trace)) << trace;
    }
}

}  // namespace
}  // namespace Halo::OS
