#include <cutils/multiuser.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include <string>
#include <thread>
#include <vector>

#include "keymanager/KeyManagerFixture.h"
#include "model/PreferencesGenerationLayout.h"

namespace Halo::OS {
namespace {

using testing::KeyManagerTest;
using testing::RecordingListener;
using Entry = PreferencesKeyManager::BatchEntry;
using Type = PreferencesKeyInfo::Type;
using namespace std::chrono_literals;

constexpr uid_t kApp = 10001;
constexpr int kNoRow = KeyManagerStatus::KeyPermissionDenied;
constexpr int kRefused = KeyManagerStatus::WriteRefused;

std::string joined(const std::vector<android::String16>& keys) {
    std::string text;
    for (const android::String16& key : keys)
        text += (text.empty() ? "" : " ") + std::string(android::String8(key).c_str());
    return text;
}

class KeyManagerSetBatchTest : public KeyManagerTest {
protected:
    void SetUp() override {
        KeyManagerTest::SetUp();
        ASSERT_TRUE(apply(R"({"add": true, "schemas": [
            {"uid": 10001, "packageName": "com.example.app", "contents": [
                {"key": "a", "type": "integer", "default": "1", "hasWritePermission": true,
                 "scope": "system"},
                {"key": "b", "type": "string", "default": "d", "hasWritePermission": true,
                 "scope": "user"},
                {"key": "c", "type": "boolean", "default": "0", "hasWritePermission": true,
                 "scope": "crossUser"},
                {"key": "ro", "type": "integer", "default": "7", "hasWritePermission": false,
                 "scope": "system"}]}]})"));
        ASSERT_EQ(0, mManager->userList({0, 10}));
    }

    uint64_t generation(const std::string& key) {
        return mManager->generations().slot(PreferencesGenerationLayout::slotOf(key));
    }
};

TEST_F(KeyManagerSetBatchTest, RefusedEntryWritesNothingAndNamesItself) {
    const Entry a{"a", "5", Type::Integer};
    const Entry c{"c", "1", Type::Boolean};
    struct Case {
        const char* what;
        std::vector<Entry> entries;
        std::optional<unsigned int> user;  // setBatchUser when given
        int code;
        size_t refused;
    };
    const Case cases[] = {
            {"read-only key", {a, {"ro", "1", Type::Integer}, c}, {}, kNoRow, 1},
            {"wrong type", {a, c, {"b", "x", Type::Integer}}, {}, kRefused, 2},
            {"undeclared key", {a, {"nokey", "1", Type::Integer}}, {}, kNoRow, 1},
            {"user key of another user", {a, c, {"b", "x", Type::String}}, 10u, kRefused, 2},
            {"unknown user", {a}, 11u, kRefused, 0},
            {"too many",
             std::vector<Entry>(PreferencesKeyManager::kMaxBatchEntries + 1, a),
             {},
             kRefused,
             99},
    };
    for (const Case& test : cases) {
        const uint64_t before = generation("a");
        mAccess->setCaller(kApp);
        size_t refused = 99;
        const int code = test.user ? mManager->setBatchUser(test.entries, *test.user, &refused)
                                   : mManager->setBatch(test.entries, &refused);
        EXPECT_EQ(test.code, code) << test.what;
        EXPECT_EQ(test.refused, refused) << test.what;
        EXPECT_EQ("1", rootValue("a", Type::Integer)) << test.what;
        EXPECT_EQ("0", rootValue("c", Type::Boolean, multiuser_get_uid(10, kApp))) << test.what;
        EXPECT_EQ(before, generation("a")) << test.what;
    }
    // The largest batch is taken; a key given twice takes its last value.
    mAccess->setCaller(kApp);
    std::vector<Entry> full(PreferencesKeyManager::kMaxBatchEntries,
                            Entry{"a", "8", Type::Integer});
    full.back().value = "9";
    EXPECT_EQ(KeyManagerStatus::Ok, mManager->setBatch(full, nullptr));
    EXPECT_EQ("9", rootValue("a", Type::Integer));
}

TEST_F(KeyManagerSetBatchTest, EachListenerHearsOnceWithAllItsKeysAndEachKeyMovesOnce) {
    android::sp<RecordingListener> ab = new RecordingListener;
    android::sp<RecordingListener> bc = new RecordingListener;
    android::sp<RecordingListener> other = new RecordingListener;
    mAccess->setCaller(kApp);
    ASSERT_EQ(0, mManager->registerListener(ab, {"a", "b"}, false));
    ASSERT_EQ(0, mManager->registerListener(bc, {"b", "c"}, false));
    ASSERT_EQ(0, mManager->registerListener(other, {"ro"}, false));
    ASSERT_NE(PreferencesGenerationLayout::slotOf("a"), PreferencesGenerationLayout::slotOf("b"));
    const uint64_t a = generation("a");
    const uint64_t b = generation("b");

    ASSERT_EQ(0, mManager->setBatch({{"c", "1", Type::Boolean},
                                     {"b", "v", Type::String},
                                     {"a", "2", Type::Integer},
                                     {"a", "3", Type::Integer}},
                                    nullptr));
    EXPECT_EQ(a + 1, generation("a"));
    EXPECT_EQ(b + 1, generation("b"));
    EXPECT_EQ("a b", joined(ab->firstCall()));
    EXPECT_EQ("b c", joined(bc->firstCall()));
    std::this_thread::sleep_for(200ms);  // a second call, if any, would have come by now
    EXPECT_EQ(1u, ab->calls());
    EXPECT_EQ(1u, bc->calls());
    EXPECT_EQ(0u, other->calls());
    EXPECT_EQ("3", rootValue("a", Type::Integer));
    EXPECT_EQ("v", rootValue("b", Type::String, kApp));
}

}  // namespace
}  // namespace Halo::OS
