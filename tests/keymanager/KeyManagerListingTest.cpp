#include <cutils/multiuser.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "keymanager/KeyManagerFixture.h"

namespace Halo::OS {
namespace {

using testing::KeyManagerTest;
using testing::ScopedCallingIdentity;
using Description = PreferencesKeyManager::KeyDescription;
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

    // The keys listed for `caller`, separated by blanks, "+" marking the writable ones.
    std::string listAs(uid_t caller, const std::string& owner, int* code) {
        mManager->setCaller(caller);
        std::vector<Description> listed;
        *code = mManager->listKeys(owner, listed);
        std::string words;
        for (const Description& d : listed) {
            words += (words.empty() ? "" : " ") + d.key + (d.writable ? "+" : "");
        }
        return words;
    }
    // "type scope default owner writable" of `key` for `caller`, or the refusal code.
    std::string describeAs(uid_t caller, const std::string& key) {
        mManager->setCaller(caller);
        Description d;
        if (const int code = mManager->describeKey(key, d); code != 0) return std::to_string(code);
        return std::to_string(static_cast<int>(d.type)) + " " +
               std::to_string(static_cast<int>(d.scope)) + " " + d.defaultValue.value_or("-") +
               " " + d.ownerPackage.value_or("-") + (d.writable ? " rw" : " ro");
    }
};

// What each caller sees in a listing is what it could read one key at a time.
TEST_F(KeyManagerListingTest, ListingShowsWhatTheCallerMayRead) {
    const std::string all = "cross.bool+ legacy.k+ sys.int+ usr.str+";
    const struct {
        uid_t caller;
        const char* owner;
        int code;
        std::string keys;
    } cases[] = {
            {0, "", 0, all},
            {kOwnerApp, "", 0, all},
            {multiuser_get_uid(kUser10, kOwnerApp), "", 0, all},
            {kReaderApp, "", 0, "legacy.k+ sys.int"},
            {kStranger, "", 0, "legacy.k+"},
            {kReaderApp, "com.example.owner", 0, "sys.int"},
            {kOwnerApp, "com.example.owner", 0, "sys.int+ usr.str+"},
            {kOwnerApp, "com.example.reader", 0, ""},
            // A user that is not on the device: refused as its gets are.
            {multiuser_get_uid(11, kOwnerApp), "", -9, ""},
    };
    for (const auto& c : cases) {
        int code = 1;
        EXPECT_EQ(c.keys, listAs(c.caller, c.owner, &code)) << c.caller << " " << c.owner;
        EXPECT_EQ(c.code, code) << c.caller << " " << c.owner;
    }
    EXPECT_EQ("0 0 1 com.example.owner ro", describeAs(kReaderApp, "sys.int"));
    EXPECT_EQ("4 2 true - rw", describeAs(kOwnerApp, "cross.bool"));
}

// describeKey answers exactly when get does, with get's refusal code otherwise, and lists agree.
TEST_F(KeyManagerListingTest, DescribeRefusesAsGetDoes) {
    for (uid_t caller : {uid_t(0), kOwnerApp, kReaderApp, kStranger}) {
        int listCode = 1;
        const std::string listed = " " + listAs(caller, "", &listCode) + " ";
        for (const std::string& key : kKeys) {
            Description root;
            mManager->setCaller(0);
            const Type type = mManager->describeKey(key, root) == 0 ? root.type : Type::Integer;
            mManager->setCaller(caller);
            std::string value;
            const int got = mManager->get(key, value, type);
            const std::string described = describeAs(caller, key);
            EXPECT_EQ(std::to_string(got), described[0] == '-' ? described : "0")
                    << caller << " " << key;
            const bool inList = listed.find(" " + key + " ") != std::string::npos ||
                                listed.find(" " + key + "+ ") != std::string::npos;
            EXPECT_EQ(got == 0, inList) << caller << " " << key;
        }
    }
}

TEST_F(KeyManagerListingTest, WithoutTheOsReadPermissionNothingIsListed) {
    ScopedCallingIdentity binderCaller(kOwnerApp);
    int code = 0;
    EXPECT_EQ("", listAs(kOwnerApp, "", &code));
    EXPECT_EQ(-7, code);
    EXPECT_EQ("-7", describeAs(kOwnerApp, "sys.int"));
}

}  // namespace
}  // namespace Halo::OS
