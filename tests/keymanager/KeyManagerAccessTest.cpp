#include <cutils/multiuser.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "keymanager/KeyManagerFixture.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using testing::KeyManagerTest;
using Type = PreferencesKeyInfo::Type;

constexpr uid_t kOwnerApp = 10001;   // declares every key below
constexpr uid_t kReaderApp = 10002;  // declares read-only access to "sys.int"
constexpr uid_t kStranger = 10003;   // declares nothing
constexpr unsigned int kUser10 = 10;

class KeyManagerAccessTest : public KeyManagerTest {
protected:
    void SetUp() override {
        KeyManagerTest::SetUp();
        ASSERT_TRUE(apply(R"({"add": true, "schemas": [
            {"uid": 10001, "packageName": "com.example.owner", "contents": [
                {"key": "sys.int", "type": "integer", "default": "1", "hasWritePermission": true,
                 "scope": "system"},
                {"key": "usr.str", "type": "string", "default": "d", "hasWritePermission": true,
                 "scope": "user"},
                {"key": "cross.bool", "type": "boolean", "default": "0",
                 "hasWritePermission": true, "scope": "crossUser"},
                {"key": "legacy.k", "type": "integer", "default": "3", "hasWritePermission": true,
                 "scope": "user"}]},
            {"uid": 10002, "packageName": "com.example.reader", "contents": [
                {"key": "sys.int", "type": "integer", "default": "1", "hasWritePermission": false,
                 "scope": "system"},
                {"key": "legacy.k", "type": "integer", "default": "3",
                 "hasWritePermission": false, "scope": "user"}]}]})"));
        ASSERT_EQ(0, mManager->userList({0, kUser10}));
    }

    int setAs(uid_t caller, const std::string& key, const std::string& value, Type type) {
        mAccess->setCaller(caller);
        return mManager->set(key, value, type);
    }
    int getAs(uid_t caller, const std::string& key, std::string& value, Type type) {
        mAccess->setCaller(caller);
        return mManager->get(key, value, type);
    }
};

TEST_F(KeyManagerAccessTest, AccessMatrix) {
    std::string value;
    // Root writes any declared key of the right type without a permission row.
    EXPECT_EQ(0, setAs(0, "sys.int", "11", Type::Integer));
    EXPECT_EQ("11", rootValue("sys.int", Type::Integer));
    // Root on an undeclared key: -8 on write, -9 on read.
    EXPECT_EQ(-8, setAs(0, "no.such.key", "1", Type::Integer));
    EXPECT_EQ(-9, getAs(0, "no.such.key", value, Type::Integer));

    // A Read row lets the package read and not write.
    EXPECT_EQ(0, getAs(kReaderApp, "sys.int", value, Type::Integer));
    EXPECT_EQ("11", value);
    EXPECT_EQ(-3, setAs(kReaderApp, "sys.int", "12", Type::Integer));
    // No row at all: refused both ways with -3, also in another user.
    EXPECT_EQ(-3, setAs(kStranger, "sys.int", "12", Type::Integer));
    EXPECT_EQ(-3, getAs(kStranger, "sys.int", value, Type::Integer));
    EXPECT_EQ(-3, getAs(multiuser_get_uid(kUser10, kStranger), "sys.int", value, Type::Integer));
    EXPECT_EQ("11", rootValue("sys.int", Type::Integer));

    // The wrong type: -8 on write, -9 on read, for the owner and for root.
    EXPECT_EQ(-8, setAs(kOwnerApp, "sys.int", "1.5", Type::Float));
    EXPECT_EQ(-9, getAs(kOwnerApp, "sys.int", value, Type::Float));
    EXPECT_EQ(-8, setAs(0, "sys.int", "1", Type::Long));
    EXPECT_EQ("11", rootValue("sys.int", Type::Integer));

    // The same app in user 10 holds the same rows (they are per application id).
    EXPECT_EQ(0, setAs(multiuser_get_uid(kUser10, kOwnerApp), "sys.int", "13", Type::Integer));
    EXPECT_EQ("13", rootValue("sys.int", Type::Integer));
}

TEST_F(KeyManagerAccessTest, UsersOfUserAndCrossUserKeys) {
    const uid_t ownerInUser10 = multiuser_get_uid(kUser10, kOwnerApp);
    std::string value;
    // A user key is per user: each user of the app writes and reads its own value.
    EXPECT_EQ(0, setAs(kOwnerApp, "usr.str", "zero", Type::String));
    EXPECT_EQ(0, setAs(ownerInUser10, "usr.str", "ten", Type::String));
    EXPECT_EQ(0, getAs(kOwnerApp, "usr.str", value, Type::String));
    EXPECT_EQ("zero", value);
    EXPECT_EQ(0, getAs(ownerInUser10, "usr.str", value, Type::String));
    EXPECT_EQ("ten", value);

    // Naming another user for a user key is refused (write -8, read -9), and nothing changes.
    mAccess->setCaller(kOwnerApp);
    EXPECT_EQ(-8, mManager->setUser("usr.str", "intruder", Type::String, kUser10));
    EXPECT_EQ(-9, mManager->getUser("usr.str", value, Type::String, kUser10));
    EXPECT_EQ(-8, mManager->resetUser("usr.str", kUser10));
    EXPECT_EQ(-8, mManager->resetUser("usr.str", 777));  // not a user of the device
    EXPECT_EQ("ten", rootValue("usr.str", Type::String, ownerInUser10));

    // A cross-user key goes to the named user's database and is read back from there.
    EXPECT_EQ(0, mManager->setUser("cross.bool", "1", Type::Boolean, kUser10));
    EXPECT_EQ(0, mManager->getUser("cross.bool", value, Type::Boolean, kUser10));
    EXPECT_EQ("1", value);
    EXPECT_EQ(0, mManager->get("cross.bool", value, Type::Boolean));
    EXPECT_EQ("0", value);  // user 0 still has the default
    EXPECT_TRUE(access(mDir.file("user10.db").c_str(), F_OK) == 0);
    // ...and is reset there, for that user only.
    EXPECT_EQ(0, mManager->set("cross.bool", "1", Type::Boolean));
    EXPECT_EQ(0, mManager->resetUser("cross.bool", kUser10));
    EXPECT_EQ(0, mManager->getUser("cross.bool", value, Type::Boolean, kUser10));
    EXPECT_EQ("0", value);
    EXPECT_EQ(0, mManager->get("cross.bool", value, Type::Boolean));
    EXPECT_EQ("1", value);

    // Root may name any user for a user key.
    mAccess->setCaller(0);
    EXPECT_EQ(0, mManager->setWithoutCallback("usr.str", "by root", Type::String, ownerInUser10));
    EXPECT_EQ("by root", rootValue("usr.str", Type::String, ownerInUser10));
    EXPECT_EQ(0, mManager->resetUser("usr.str", kUser10));
    EXPECT_EQ("d", rootValue("usr.str", Type::String, ownerInUser10));
}

TEST_F(KeyManagerAccessTest, LegacyKeysFollowTheirOwnRules) {
    mManager->setLegacyKeys({"legacy.k"});
    const uid_t readerInUser10 = multiuser_get_uid(kUser10, kReaderApp);
    // A Read row is enough to write a legacy key, into the user the uid names.
    mAccess->setCaller(kReaderApp);
    EXPECT_EQ(0, mManager->setWithoutCallback("legacy.k", "42", Type::Integer, readerInUser10));
    EXPECT_EQ("42", rootValue("legacy.k", Type::Integer, readerInUser10));
    EXPECT_EQ("3", rootValue("legacy.k", Type::Integer, kReaderApp));
    // Whatever the row says: an app without one writes it as well, in its own user.
    mAccess->setCaller(kStranger);
    EXPECT_EQ(0, mManager->set("legacy.k", "7", Type::Integer));
    EXPECT_EQ("7", rootValue("legacy.k", Type::Integer, kStranger));
    // The type is still checked, and a key that is not legacy keeps the usual rules.
    mAccess->setCaller(kStranger);
    EXPECT_EQ(-8, mManager->set("legacy.k", "1", Type::String));
    EXPECT_EQ(-3, mManager->set("usr.str", "x", Type::String));
}

TEST_F(KeyManagerAccessTest, RefusedSetKeepsTheOldValueAndStillReportsTheEvent) {
    ASSERT_EQ(0, setAs(kOwnerApp, "sys.int", "21", Type::Integer));
    Telemetry::resetCounts();
    EXPECT_EQ(-3, setAs(kReaderApp, "sys.int", "22", Type::Integer));
    EXPECT_EQ(-8, setAs(kOwnerApp, "sys.int", "x", Type::String));
    EXPECT_EQ(2u, Telemetry::count("key_set_success"));
    EXPECT_EQ("21", rootValue("sys.int", Type::Integer));
}

TEST_F(KeyManagerAccessTest, TypeQueriesAndReset) {
    Type type = Type::NoType;
    mAccess->setCaller(kReaderApp);
    EXPECT_EQ(0, mManager->getType("sys.int", type));
    EXPECT_EQ(Type::Integer, type);
    mAccess->setCaller(kStranger);
    EXPECT_EQ(-3, mManager->getType("sys.int", type));
    mAccess->setCaller(0);
    EXPECT_EQ(-9, mManager->getType("no.such.key", type));
    EXPECT_EQ(0, mManager->getType("cross.bool", type));
    EXPECT_EQ(Type::Boolean, type);

    ASSERT_EQ(0, setAs(kOwnerApp, "sys.int", "5", Type::Integer));
    mAccess->setCaller(kReaderApp);
    EXPECT_EQ(-3, mManager->reset("sys.int"));
    EXPECT_EQ("5", rootValue("sys.int", Type::Integer));
    mAccess->setCaller(kOwnerApp);
    EXPECT_EQ(0, mManager->reset("sys.int"));
    EXPECT_EQ("1", rootValue("sys.int", Type::Integer));  // the default again
}

// Each refused read, type query or reset reports one error event, as refused writes do.
TEST_F(KeyManagerAccessTest, RefusedReadsAreReported) {
    struct Case {
        const char* what;
        uid_t caller;
        std::function<int()> call;
        int code;
        const char* event;
    };
    std::string value;
    Type type = Type::NoType;
    const std::vector<Case> cases = {
            {"get without a row", kStranger,
             [&] { return mManager->get("sys.int", value, Type::Integer); }, -3, "key_get_error"},
            {"get of the wrong type", kOwnerApp,
             [&] { return mManager->get("sys.int", value, Type::Float); }, -9, "key_get_error"},
            {"get of an undeclared key", 0,
             [&] { return mManager->get("no.such.key", value, Type::Integer); }, -9,
             "key_get_error"},
            {"getType without a row", kStranger, [&] { return mManager->getType("sys.int", type); },
             -3, "key_get_type_error"},
            {"reset with a Read row", kReaderApp, [&] { return mManager->reset("sys.int"); }, -3,
             "key_reset_error"},
    };
    for (const Case& c : cases) {
        mAccess->setCaller(c.caller);
        Telemetry::resetCounts();
        EXPECT_EQ(c.code, c.call()) << c.what;
        EXPECT_EQ(1u, Telemetry::count(c.event)) << c.what;
    }
}

// Every call decides on the declarations as they are when it runs, whatever changed them.
TEST_F(KeyManagerAccessTest, ChangedDeclarationsDecideTheNextCall) {
    std::string value;
    ASSERT_EQ(0, getAs(kReaderApp, "sys.int", value, Type::Integer));
    ASSERT_EQ(-3, setAs(kReaderApp, "sys.int", "2", Type::Integer));
    // The reader's new schema lets it write; the owner makes the key a long with a new default.
    ASSERT_TRUE(apply(R"({"add": true, "schemas": [
        {"uid": 10002, "packageName": "com.example.reader", "contents": [
            {"key": "sys.int", "type": "integer", "default": "1", "hasWritePermission": true,
             "scope": "system"}]}]})"));
    EXPECT_EQ(0, setAs(kReaderApp, "sys.int", "2", Type::Integer));
    ASSERT_EQ(0, mManager->reset("sys.int"));
    ASSERT_TRUE(apply(R"({"add": true, "schemas": [
        {"uid": 10001, "packageName": "com.example.owner", "contents": [
            {"key": "sys.int", "type": "long", "default": "4", "hasWritePermission": true,
             "scope": "system", "isOwner": true}]}]})"));
    EXPECT_EQ(-9, getAs(kReaderApp, "sys.int", value, Type::Integer));
    EXPECT_EQ(-8, setAs(kReaderApp, "sys.int", "3", Type::Integer));
    ASSERT_EQ(0, getAs(kReaderApp, "sys.int", value, Type::Long));
    EXPECT_EQ("4", value);
    // The reader's package goes away with its permission; the owner's goes, and the key with it.
    ASSERT_TRUE(apply(R"({"add": false, "schemas": [
        {"uid": 10002, "packageName": "com.example.reader", "contents": []}]})"));
    EXPECT_EQ(-3, getAs(kReaderApp, "sys.int", value, Type::Long));
    ASSERT_EQ(0, getAs(kOwnerApp, "sys.int", value, Type::Long));
    ASSERT_TRUE(apply(R"({"add": false, "schemas": [
        {"uid": 10001, "packageName": "com.example.owner", "contents": []}]})"));
    EXPECT_EQ(-3, getAs(kOwnerApp, "sys.int", value, Type::Long));
    EXPECT_EQ(-9, rootGet("sys.int", value, Type::Long));
}

TEST_F(KeyManagerAccessTest, OsPermissionsAreCheckedAgainstTheCaller) {
    std::string value;
    // The caller is an app that holds no OS permission.
    mAccess->setGrants({});
    mAccess->setCaller(kOwnerApp);
    Telemetry::resetCounts();
    EXPECT_EQ(-7, mManager->set("sys.int", "9", Type::Integer));
    EXPECT_EQ(-7, mManager->get("sys.int", value, Type::Integer));
    EXPECT_EQ(-7, mManager->reset("sys.int"));
    EXPECT_EQ(-7, mManager->userList({0}));
    EXPECT_EQ(-7, mManager->deleteUserData(10));
    EXPECT_EQ(1u, Telemetry::count("key_set_error"));
    EXPECT_EQ(1u, Telemetry::count("key_get_error"));
    EXPECT_EQ(1u, Telemetry::count("key_reset_error"));
    EXPECT_EQ(0u, Telemetry::count("key_set_success"));
    // The audio server's and 2907's application ids skip the OS checks, not the key checks.
    for (uid_t privileged : {1041u, 2907u, multiuser_get_uid(kUser10, 1041)}) {
        mAccess->setCaller(privileged);
        EXPECT_EQ(-3, mManager->set("sys.int", "9", Type::Integer)) << privileged;
        EXPECT_EQ(-3, mManager->get("sys.int", value, Type::Integer)) << privileged;
    }
    // Start-up paths skip the OS check altogether.
    mAccess->setCaller(kOwnerApp);
    EXPECT_EQ(0, mManager->setWithoutCallback("sys.int", "9", Type::Integer));
    EXPECT_EQ(0, mManager->getWithoutPermissionCheck("sys.int", value, Type::Integer));
    EXPECT_EQ("9", value);
}

}  // namespace
}  // namespace Halo::OS
