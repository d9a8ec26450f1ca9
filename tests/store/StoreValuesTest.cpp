#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "store/LogLines.h"
#include "store/StoreTest.h"
#include "support/LogCapture.h"

namespace Halo::OS::testing {
namespace {

using Rows = std::vector<std::string>;

class StoreValuesTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
        ASSERT_EQ(0, declare(kAppUid, kApp, "theme", Scope::User, Type::String, true, "dark"));
        ASSERT_EQ(0, declare(kAppUid, kApp, "wallpaper", Scope::Cross, Type::String, true, "sky"));
    }
    Rows userRows(unsigned int userId) {
        return query("SELECT * FROM preference_values ORDER BY key", userDbFile(userId));
    }
};

TEST_F(StoreValuesTest, SystemValueFallsBackToTheDefault) {
    EXPECT_EQ("5", read(std::nullopt, "volume"));
    EXPECT_EQ(0, mStore->setPreferenceValue(std::nullopt, "volume", "8"));
    EXPECT_EQ("8", read(std::nullopt, "volume"));
    // The user ids do not matter for a system key.
    EXPECT_EQ("8", read(3u, "volume"));
    EXPECT_EQ(0, mStore->setPreferenceValue(4u, 9u, "volume", "9"));
    EXPECT_EQ(Rows{"volume|9"}, query("SELECT * FROM preference_values"));

    EXPECT_EQ(0, mStore->clearCurrentPreferenceValue(std::nullopt, "volume"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preference_values"));
    EXPECT_EQ("5", read(std::nullopt, "volume"));
    // Clearing what is not there succeeds.
    EXPECT_EQ(0, mStore->clearCurrentPreferenceValue(std::nullopt, "volume"));

    EXPECT_EQ(0, mStore->setPreferenceDefault("volume", "6"));
    EXPECT_EQ("6", read(std::nullopt, "volume"));
    EXPECT_EQ("6", scalar("SELECT default_value FROM preferences WHERE key = 'volume'"));
}

TEST_F(StoreValuesTest, UserValuesLiveInTheUsersDatabaseOpenedOnFirstUse) {
    EXPECT_FALSE(fileExists("user0.db"));
    EXPECT_EQ("dark", read(0u, "theme"));
    EXPECT_TRUE(fileExists("user0.db"));

    // The first write inserts the row and sets it; the next one updates the same row.
    EXPECT_EQ(0, mStore->setPreferenceValue(0u, "theme", "light"));
    EXPECT_EQ(Rows{"theme|light"}, userRows(0));
    EXPECT_EQ(0, mStore->setPreferenceValue(0u, "theme", "blue"));
    EXPECT_EQ(Rows{"theme|blue"}, userRows(0));
    EXPECT_EQ("blue", read(0u, "theme"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preference_values"));

    EXPECT_EQ(0, mStore->setPreferenceValue(10u, "theme", "red"));
    EXPECT_EQ("red", read(10u, "theme"));
    EXPECT_EQ(0, mStore->clearCurrentPreferenceValue(0u, "theme"));
    EXPECT_EQ("dark", read(0u, "theme"));
    EXPECT_EQ("red", read(10u, "theme"));
}

TEST_F(StoreValuesTest, UserValuesNeedTheCurrentUserAndCrossValuesTheNamedUser) {
    ASSERT_EQ(0, mStore->setPreferenceValue(10u, "theme", "red"));
    {
        LogCapture log;
        // A user key is read and written only for the current user, without a log line.
        EXPECT_EQ("<none>", read(10u, 0u, "theme", -14));
        EXPECT_EQ("<none>", read(std::nullopt, "theme", -14));
        EXPECT_EQ(-1, mStore->setPreferenceValue(10u, 0u, "theme", "green"));
        EXPECT_EQ(-1, mStore->setPreferenceValue(10u, std::nullopt, "theme", "green"));
        EXPECT_FALSE(hasLogLine(log.text(), 'E', "theme")) << log.text();
    }
    EXPECT_EQ("red", read(10u, 10u, "theme"));

    // A cross-user key is read and written for the user named, whoever is current.
    EXPECT_EQ(0, mStore->setPreferenceValue(10u, 0u, "wallpaper", "sea"));
    EXPECT_EQ((Rows{"theme|red", "wallpaper|sea"}), userRows(10));
    EXPECT_TRUE(userRows(0).empty());
    EXPECT_EQ("sea", read(10u, 0u, "wallpaper"));
    EXPECT_EQ("sky", read(0u, 10u, "wallpaper"));

    LogCapture log;
    EXPECT_EQ("<none>", read(std::nullopt, 0u, "wallpaper", -14));
    EXPECT_EQ(-14, mStore->setPreferenceValue(std::nullopt, 0u, "wallpaper", "sea"));
    EXPECT_EQ(-14, mStore->setPreferenceValue(std::nullopt, "theme", "x"));
    EXPECT_EQ(-14, mStore->clearCurrentPreferenceValue(std::nullopt, "wallpaper"));
    EXPECT_EQ("",
              missingLogLines(
                      log.text(), 'E',
                      {"Unable to get value: it is user-scoped but no user id was provided.",
                       "Unable to update value: it is user-scoped but no user ID was provided "
                       "wallpaper",
                       "Unable to clear value: it is user-scoped but no user id was provided."}));
}

TEST_F(StoreValuesTest, UnknownKeysFail) {
    LogCapture log;
    EXPECT_EQ("<none>", read(0u, "missing", -8));
    EXPECT_EQ(-8, mStore->setPreferenceValue(0u, "missing", "1"));
    EXPECT_EQ(-8, mStore->setPreferenceDefault("missing", "1"));
    EXPECT_EQ(-8, mStore->clearCurrentPreferenceValue(0u, "missing"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preference_values"));
    EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                  {"Unable to get value: the scope could not be determined: "
                                   "missing",
                                   "Unable to set value, scope could not be determined missing",
                                   "Unable to update value(scope System, default value): value "
                                   "row for key not found"}));
    EXPECT_EQ(1u, Telemetry::count("getpreferencevalue_error_scope_lookup"));
    EXPECT_EQ(1u, Telemetry::count("updatepreferencevalue_error_retrieve_scope_lookup"));
    EXPECT_EQ(1u, Telemetry::count("updatepreferencevalue_error_value_row_not_found"));
}

TEST_F(StoreValuesTest, NullValuesAndFaultTolerantReads) {
    // A row without a current value reads as the default, reported as a failed read.
    exec("INSERT INTO preference_values (key) VALUES ('volume')");
    {
        LogCapture log;
        EXPECT_EQ("5", read(std::nullopt, "volume"));
        EXPECT_TRUE(hasLogLine(log.text(), 'E',
                               "The current value is null. This should NOT happen volume"));
    }
    EXPECT_EQ(1u, Telemetry::count("getpreferencevalue_error_retrieve_value"));
    // A key without a default and without a value cannot be read.
    ASSERT_EQ(0, registerKey(kAppUid, kApp, "nodefault", Scope::System, Type::String, true,
                             std::nullopt));
    LogCapture log;
    EXPECT_EQ("<none>", read(std::nullopt, "nodefault", -1));
    EXPECT_TRUE(hasLogLine(log.text(), 'E',
                           "The default value is null. This should NOT happen nodefault"));
    EXPECT_EQ(2u, Telemetry::count("getpreferencevalue_error_default_value_null"));
    // Its owner can give it one.
    EXPECT_EQ(0, registerKey(kAppUid, kApp, "nodefault", Scope::System, Type::String, true, "d"));
    EXPECT_EQ("d", read(std::nullopt, "nodefault"));
}

// The expiry sweep deletes a user or cross-user key's values in every user database; a key
// without any value row is only a warning.
TEST_F(StoreValuesTest, SweepDeletesValuesInEveryUserDatabase) {
    for (unsigned int user : {0u, 10u, 11u}) {
        ASSERT_EQ(0, mStore->setPreferenceValue(user, "wallpaper", "w" + std::to_string(user)));
    }
    ASSERT_EQ(0, mStore->setPreferenceValue(11u, "theme", "t"));
    ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "volume", "1"));
    exec("UPDATE preferences SET expires_at = '2001-02-03 04:05:06' WHERE key = 'wallpaper'");
    {
        LogCapture log;
        EXPECT_EQ(0, mStore->unregisterExpiredPreferences());
        EXPECT_EQ("", log.text());
    }
    for (unsigned int user : {0u, 10u}) EXPECT_TRUE(userRows(user).empty()) << user;
    EXPECT_EQ(Rows{"theme|t"}, userRows(11));

    ASSERT_EQ(0, mStore->clearCurrentPreferenceValue(std::nullopt, "volume"));
    exec("UPDATE preferences SET expires_at = '2001-02-03 04:05:06' WHERE key = 'volume'");
    LogCapture log;
    EXPECT_EQ(0, mStore->unregisterExpiredPreferences());
    EXPECT_EQ("", missingLogLines(log.text(), 'W',
                                  {"Unable to delete value row: value row for volume not found. "
                                   "this may be normal.",
                                   "Unable to unregister volume: not found."}));
    EXPECT_FALSE(hasLogLine(log.text(), 'E', "volume")) << log.text();
    EXPECT_EQ(Rows{"theme|t"}, userRows(11));
}

TEST_F(StoreValuesTest, AUserDatabaseThatCannotBeOpenedFailsItsAccesses) {
    // A directory where the file should be.
    ASSERT_EQ(0, mkdir(mDir.file("user12.db").c_str(), 0700));
    LogCapture log;
    EXPECT_EQ("<none>", read(12u, "theme", -2));
    EXPECT_EQ(-2, mStore->setPreferenceValue(12u, "wallpaper", "x"));
    EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                  {"Failed to open db for 12, path " + mDir.file("user12.db"),
                                   "Unable to update value: failed to initialize user DB for user "
                                   "wallpaper"}));
    EXPECT_EQ(2u, Telemetry::count("userdbinit_error"));
    // Other users are not affected.
    EXPECT_EQ(0, mStore->setPreferenceValue(0u, "wallpaper", "x"));
}

}  // namespace
}  // namespace Halo::OS::testing
