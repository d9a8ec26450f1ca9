// The store remembers key metadata and values between calls; every way they can change must be
// seen by the very next read.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <string>

#include "store/PreferencesValueCache.h"
#include "store/StoreTest.h"
#include "support/LogCapture.h"

namespace Halo::OS::testing {
namespace {

class StoreMetadataCacheTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    }

    // What the store's reads say about `key` for `uid`: "scope type permission value" (the value
    // of user 0, which is the default when no value is stored),
    // a failed read shown as its code. Each read runs twice, so that the second answer can come
    // from what the first one remembered; both must agree.
    std::string facts(const std::string& key, unsigned int uid = kAppUid) {
        LogCapture quiet;
        const std::string first = readFacts(key, uid);
        const std::string second = readFacts(key, uid);
        EXPECT_EQ(first, second) << key;
        return second;
    }

private:
    std::string readFacts(const std::string& key, unsigned int uid) {
        auto code = [](int32_t result) { return "!" + std::to_string(result); };
        Scope scope;
        Type type;
        Permission permission;
        std::optional<std::string> value;
        int32_t result = mStore->getPreferenceScope(key, scope, true);
        std::string text = result == 0 ? std::to_string(static_cast<int>(scope)) : code(result);
        result = mStore->getPreferenceType(key, type);
        text += " " + (result == 0 ? std::to_string(static_cast<int>(type)) : code(result));
        result = mStore->getPreferencePermission(key, uid, permission);
        text += " " + (result == 0 ? std::to_string(static_cast<int>(permission)) : code(result));
        result = mStore->getPreferenceValue(0u, 0u, key, value);
        text += " " + (result == 0 ? value.value_or("<none>") : code(result));
        return text;
    }
};

TEST_F(StoreMetadataCacheTest, EveryChangeOfADeclarationIsReadAtOnce) {
    EXPECT_EQ("0 0 2 5", facts("volume"));

    // Values come and go without disturbing what is known of the key.
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "volume", "9"));
    EXPECT_EQ("0 0 2 9", facts("volume"));
    ASSERT_EQ(0, mStore->clearCurrentPreferenceValue(0u, "volume"));
    EXPECT_EQ("0 0 2 5", facts("volume"));

    // The owner declares it again with another scope, type and default.
    {
        LogCapture log;
        ASSERT_EQ(0, registerKey(kAppUid, kApp, "volume", Scope::User, Type::Long, true, "6"));
    }
    EXPECT_EQ("1 3 2 6", facts("volume"));
    ASSERT_EQ(0, mStore->setPreferenceDefault("volume", "7"));
    EXPECT_EQ("1 3 2 7", facts("volume"));
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "volume", "8"));
    EXPECT_EQ("1 3 2 8", facts("volume"));

    // Permissions: updated, granted to another package, cleared with that package's schema.
    ASSERT_EQ(0, mStore->setPreferencePermission("volume", kAppUid, kApp, Permission::Read));
    EXPECT_EQ("1 3 1 8", facts("volume"));
    ASSERT_EQ(0, mStore->registerPackage(kOtherUid, kOther));
    EXPECT_EQ("1 3 0 8", facts("volume", kOtherUid));
    ASSERT_EQ(0,
              mStore->setPreferencePermission("volume", kOtherUid, kOther, Permission::ReadWrite));
    EXPECT_EQ("1 3 2 8", facts("volume", kOtherUid));
    ASSERT_EQ(0, mStore->clearPermissionsForPackage(kOtherUid, kOther));
    EXPECT_EQ("1 3 0 8", facts("volume", kOtherUid));

    // A cross-user key of an app becomes a user key.
    ASSERT_EQ(0, declare(kAppUid, kApp, "shared", Scope::Cross, Type::String, true, "s"));
    EXPECT_EQ("2 2 2 s", facts("shared"));
    ASSERT_EQ(0, mStore->downGradeScopeForPackage());
    EXPECT_EQ("1 2 2 s", facts("shared"));
}

TEST_F(StoreMetadataCacheTest, CascadesAndTheExpirySweepAreReadAtOnce) {
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "volume", "9"));
    EXPECT_EQ("0 0 2 9", facts("volume"));
    // The package row goes; its permissions follow by foreign key, the key by the trigger, its
    // value by foreign key again.
    ASSERT_EQ(0, mStore->unregisterPackage(kAppUid, kApp));
    EXPECT_EQ("!-8 !-8 0 !-8", facts("volume"));

    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    EXPECT_EQ("0 0 2 5", facts("volume"));
    ASSERT_EQ(0, mStore->markPreferencesForExpiration(std::chrono::seconds(0),
                                                      KeySourceDomain::Application));
    ASSERT_EQ(0, mStore->unregisterExpiredPreferences());
    EXPECT_EQ("!-8 !-8 0 !-8", facts("volume"));
}

TEST_F(StoreMetadataCacheTest, TransactionsResetsAndReopeningAreReadAtOnce) {
    EXPECT_EQ("0 0 2 5", facts("volume"));
    // Inside a batch reads see its writes, and so they do after it.
    ASSERT_EQ(0, mStore->beginBatch());
    ASSERT_EQ(0, registerKey(kAppUid, kApp, "volume", Scope::System, Type::Float, true, "0.5"));
    EXPECT_EQ("0 5 2 0.5", facts("volume"));
    ASSERT_EQ(0, mStore->commitBatch());
    EXPECT_EQ("0 5 2 0.5", facts("volume"));

    // A database changed while the store was closed is read as it is now.
    ASSERT_EQ(0, mStore->uninitialize());
    exec("UPDATE preferences SET type = 2, default_value = 'x'");
    ASSERT_EQ(0, mStore->initialize());
    EXPECT_EQ("0 2 2 x", facts("volume"));

    ASSERT_EQ(0, mStore->reset());
    EXPECT_EQ("!-8 !-8 0 !-8", facts("volume"));
}

TEST_F(StoreMetadataCacheTest, ValuesOfEveryDatabaseAreReadAtOnce) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "brightness", Scope::User, Type::Integer, true, "1"));
    // The value of `key` for `user` (as the caller's own user), read twice as in facts().
    auto value = [this](const std::string& key, unsigned int user) {
        auto read = [&] {
            std::optional<std::string> out;
            const int32_t result = mStore->getPreferenceValue(user, user, key, out);
            return result == 0 ? out.value_or("<none>") : "!" + std::to_string(result);
        };
        LogCapture quiet;
        const std::string first = read();
        const std::string second = read();
        EXPECT_EQ(first, second) << key << " of user " << user;
        return second;
    };
    EXPECT_EQ("1", value("brightness", 0));
    EXPECT_EQ("1", value("brightness", 10));

    // Each user's database has its own values.
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "brightness", "2"));
    ASSERT_EQ(0, mStore->setPreferenceValue(10u, "brightness", "3"));
    EXPECT_EQ("2", value("brightness", 0));
    EXPECT_EQ("3", value("brightness", 10));

    // A value too large to remember is still read right, and so is everything after it.
    const std::string large(PreferencesValueCache::kMaxBytes + 1, 'x');
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "volume", large));
    EXPECT_EQ(large, value("volume", 0));
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "volume", "6"));
    EXPECT_EQ("6", value("volume", 0));

    // Clearing, deleting a user, and a file changed while its connection was closed.
    ASSERT_EQ(0, mStore->clearCurrentPreferenceValue(10u, "brightness"));
    EXPECT_EQ("1", value("brightness", 10));
    ASSERT_EQ(0, mStore->setPreferenceValue(10u, "brightness", "7"));
    EXPECT_EQ("7", value("brightness", 10));
    ASSERT_EQ(0, mStore->deleteUserData(10));
    EXPECT_EQ("1", value("brightness", 10));
    ASSERT_EQ(0, mStore->uninitialize());
    exec("UPDATE preference_values SET current_value = '8'", userDbFile(0));
    ASSERT_EQ(0, mStore->initialize());
    EXPECT_EQ("8", value("brightness", 0));
}

}  // namespace
}  // namespace Halo::OS::testing
