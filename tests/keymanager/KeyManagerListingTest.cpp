#include <cutils/multiuser.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "keymanager/KeyManagerFixture.h"

namespace Halo::OS {
namespace {

using testing::KeyManagerTest;
using testing::ScopedCallingIdentity;
using Description = PreferencesKeyManager::KeyDescription;
using Scope = PreferencesKeyInfo::PreferenceScope;
using Type = PreferencesKeyInfo::Type;

constexpr uid_t kOwnerApp = 10001;   // declares every key, owns sys.int and usr.str
constexpr uid_t kReaderApp = 10002;  // may read sys.int
constexpr uid_t kStranger = 10003;   // declares nothing
constexpr unsigned int kUser10 = 10;
const std::vector<std::string> kKeys = {"cross.bool", "legacy.k", "no.such.key", "sys.int",
                                        "usr.str"};

class KeyManagerListingTest : public KeyManagerTest {
protected:
    void SetUp() override {
        KeyManagerTest::SetUp();
        ASSERT_TRUE(apply(R"({"add": true, "schemas": [
            {"uid": 10001, "packageName": "com.example.owner", "contents": [
                {"key": "sys.int", "type": "integer", "default": "1", "hasWritePermission": true,
                 "scope": "system", "isOwner": true},
                {"key": "usr.str", "type": "string", "default": "d", "hasWritePermission": true,
                 "scope": "user", "isOwner": true},
                {"key": "cross.bool", "type": "boolean", "default": "true",
                 "hasWritePermission": true, "scope": "crossUser"},
                {"key": "legacy.k", "type": "long", "default": "3", "hasWritePermission": true,
                 "scope": "user"}]},
            {"uid": 10002, "packageName": "com.example.reader", "contents": [
                {"key": "sys.int", "type": "integer", "default": "1", "hasWritePermission": false,
                 "scope": "system"}]}]})"));
        ASSERT_EQ(0, mManager->userList({0, kUser10}));
        mManager->setLegacyKeys({"legacy.k"});
    }

    // "key" for a read-only key, "key+" for a writable one.
    std::vector<std::string> listAs(uid_t caller, const std::string& owner, int* code) {
        mManager->setCaller(caller);
        std::vector<Description> listed;
        *code = mManager->listKeys(owner, listed);
        std::vector<std::string> words;
        for (const Description& d : listed) words.push_back(d.key + (d.writable ? "+" : ""));
        return words;
    }
};

// What each caller sees in a listing is what it could read one key at a time.
TEST_F(KeyManagerListingTest, ListingShowsWhatTheCallerMayRead) {
    struct Case {
        uid_t caller;
        const char* owner;
        int code;
        std::vector<std::string> keys;
    };
    const std::vector<Case> cases = {
            {0, "", 0, {"cross.bool+", "legacy.k+", "sys.int+", "usr.str+"}},
            {kOwnerApp, "", 0, {"cross.bool+", "legacy.k+", "sys.int+", "usr.str+"}},
            {multiuser_get_uid(kUser10, kOwnerApp),
             "",
             0,
             {"cross.bool+", "legacy.k+", "sys.int+", "usr.str+"}},
            {kReaderApp, "", 0, {"legacy.k+", "sys.int"}},
            {kStranger, "", 0, {"legacy.k+"}},
            {kReaderApp, "com.example.owner", 0, {"sys.int"}},
            {kOwnerApp, "com.example.owner", 0, {"sys.int+", "usr.str+"}},
            {kOwnerApp, "com.example.reader", 0, {}},
            // A user that is not on the device: refused as its gets are.
            {multiuser_get_uid(11, kOwnerApp), "", -9, {}},
    };
    for (const Case& c : cases) {
        int code = 1;
        EXPECT_EQ(c.keys, listAs(c.caller, c.owner, &code)) << c.caller << " " << c.owner;
        EXPECT_EQ(c.code, code) << c.caller << " " << c.owner;
    }
}

// describeKey answers exactly when get does, with get's refusal code otherwise, and lists agree.
TEST_F(KeyManagerListingTest, DescribeRefusesAsGetDoes) {
    for (uid_t caller : {uid_t(0), kOwnerApp, kReaderApp, kStranger}) {
        int listCode = 1;
        const std::vector<std::string> listed = listAs(caller, "", &listCode);
        for (const std::string& key : kKeys) {
            Description root;
            mManager->setCaller(0);
            const Type type = mManager->describeKey(key, root) == 0 ? root.type : Type::Integer;
            mManager->setCaller(caller);
            std::string value;
            Description description;
            const int got = mManager->get(key, value, type);
            EXPECT_EQ(got, mManager->describeKey(key, description)) << caller << " " << key;
            const bool inList = std::find(listed.begin(), listed.end(), key) != listed.end() ||
                                std::find(listed.begin(), listed.end(), key + "+") != listed.end();
            EXPECT_EQ(got == 0, inList) << caller << " " << key;
        }
    }
}

TEST_F(KeyManagerListingTest, DescriptionOfAReadOnlyKey) {
    mManager->setCaller(kReaderApp);
    Description d;
    ASSERT_EQ(0, mManager->describeKey("sys.int", d));
    EXPECT_EQ(Type::Integer, d.type);
    EXPECT_EQ(Scope::System, d.scope);
    EXPECT_EQ(std::optional<std::string>("1"), d.defaultValue);
    EXPECT_EQ(std::optional<std::string>("com.example.owner"), d.ownerPackage);
    EXPECT_FALSE(d.writable);
    EXPECT_EQ(-3, mManager->describeKey("cross.bool", d));
    mManager->setCaller(kOwnerApp);
    ASSERT_EQ(0, mManager->describeKey("cross.bool", d));
    EXPECT_EQ(Scope::Cross, d.scope);
    EXPECT_EQ(std::nullopt, d.ownerPackage);
    EXPECT_TRUE(d.writable);
}

TEST_F(KeyManagerListingTest, WithoutTheOsReadPermissionNothingIsListed) {
    ScopedCallingIdentity binderCaller(kOwnerApp);
    int code = 0;
    EXPECT_EQ(std::vector<std::string>{}, listAs(kOwnerApp, "", &code));
    EXPECT_EQ(-7, code);
    Description d;
    EXPECT_EQ(-7, mManager->describeKey("sys.int", d));
}

}  // namespace
}  // namespace Halo::OS
