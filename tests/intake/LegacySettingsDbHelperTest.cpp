#include "intake/LegacySettingsDbHelper.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "keyvaluestore/KeyValueStore.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace Halo::OS {
namespace {

using std::filesystem::exists;
using testing::LogCapture;
using testing::TempDir;

const char* const kCompanions[] = {"-journal", "-wal", "-shm"};

void touch(const std::string& path) {
    std::ofstream(path) << "x";
}

// Writes a legacy database the way the older settings service did.
void writeLegacy(const std::string& path, const std::string& table, const std::string& key,
                 const std::string& value) {
    KeyValueStore store(path, table);
    ASSERT_TRUE(store.set(key, value)) << path;
}

TEST(LegacySettingsDbHelperTest, ReadOnlyHelperReadsAndNeverWritesOrCreates) {
    TempDir dir;
    writeLegacy(dir.file("system.db"), "system_settings", "sleep_timer", "15");
    writeLegacy(dir.file("user10.db"), "user_settings", "font_scale", "1.25");
    std::ofstream(dir.file("user4.db")) << "not a database";

    LegacySettingsDbHelper helper(dir.path());
    EXPECT_EQ(dir.path() + "/user10.db", helper.userDbPath(10));
    EXPECT_TRUE(helper.isReadOnly());
    ASSERT_TRUE(helper.isSystemDatabaseAvailable());
    EXPECT_EQ("15", helper.getSystemSetting("sleep_timer", "d"));
    EXPECT_EQ("d", helper.getSystemSetting("absent", "d"));
    EXPECT_FALSE(helper.setSystemSetting("sleep_timer", "30"));
    EXPECT_EQ("1.25", helper.getUserSetting("font_scale", "1", 10));
    EXPECT_FALSE(helper.setUserSetting("font_scale", "2", 10));
    EXPECT_EQ("15", KeyValueStore(dir.file("system.db"), "system_settings").get("sleep_timer"));

    EXPECT_FALSE(helper.isUserDatabaseAvailable(5));  // no file: nothing is created
    EXPECT_EQ("d", helper.getUserSetting("font_scale", "d", 5));
    EXPECT_FALSE(exists(dir.file("user5.db")));
    EXPECT_FALSE(helper.isUserDatabaseAvailable(4));  // not a database

    TempDir empty;
    LegacySettingsDbHelper missing(empty.path());
    EXPECT_FALSE(missing.isSystemDatabaseAvailable());
    EXPECT_EQ("d", missing.getSystemSetting("sleep_timer", "d"));
    EXPECT_TRUE(missing.deleteSystemDatabase());
    EXPECT_FALSE(exists(empty.file("system.db")));

    LegacySettingsDbHelper writable(empty.path(), "system.db", "user", false, false);
    EXPECT_TRUE(writable.setSystemSetting("wake_word", "true"));
    EXPECT_TRUE(writable.setUserSetting("font_scale", "1.5", 3));
    EXPECT_EQ("true", LegacySettingsDbHelper(empty.path()).getSystemSetting("wake_word", ""));
    EXPECT_EQ("1.5", LegacySettingsDbHelper(empty.path()).getUserSetting("font_scale", "", 3));
}

TEST(LegacySettingsDbHelperTest, UserIdsComeOnlyFromUserDatabaseNames) {
    TempDir dir;
    for (const char* name :
         {"user.db", "userx.db", "user10.db-journal", "user7.db", "user0.db", "user07.db",
          "user12.dbx", "user2147483648.db", "user-1.db", "user+5.db", "system.db", "User8.db",
          "anotheruser5.db", "user42.db"}) {
        touch(dir.file(name));
    }
    ASSERT_EQ(0, mkdir(dir.file("user3.db").c_str(), 0700));
    EXPECT_EQ(std::vector<int>({0, 3, 7, 42}), LegacySettingsDbHelper(dir.path()).getUserIds());
    EXPECT_EQ(std::vector<int>({5}),
              LegacySettingsDbHelper(dir.path(), "system.db", "anotheruser").getUserIds());
    EXPECT_TRUE(LegacySettingsDbHelper(dir.file("absent")).getUserIds().empty());
    EXPECT_TRUE(LegacySettingsDbHelper::doesFileExist(dir.path(), "user7.db"));
    EXPECT_FALSE(LegacySettingsDbHelper::doesFileExist(dir.path(), "user7"));
    EXPECT_FALSE(LegacySettingsDbHelper::doesFileExist(dir.file("absent"), "user7.db"));
}

TEST(LegacySettingsDbHelperTest, DeletionsRemoveDatabasesWithTheirCompanions) {
    TempDir dir;
    writeLegacy(dir.file("system.db"), "system_settings", "a", "1");
    for (const char* user : {"user0.db", "user7.db", "user11.db"}) {
        writeLegacy(dir.file(user), "user_settings", "b", "2");
    }
    for (const char* suffix : kCompanions) {
        for (const char* db : {"system.db", "user7.db", "user11.db"}) {
            touch(dir.file(std::string(db) + suffix));
        }
    }
    touch(dir.file("user.db"));

    LegacySettingsDbHelper helper(dir.path());  // read-only helpers still delete
    ASSERT_TRUE(helper.isUserDatabaseAvailable(7));
    EXPECT_TRUE(helper.deleteUserSettingsDb(7));
    EXPECT_FALSE(helper.isUserDatabaseAvailable(7));
    EXPECT_EQ("gone", helper.getUserSetting("b", "gone", 7));
    EXPECT_TRUE(helper.deleteUserSettingsDb(9));  // never existed
    EXPECT_TRUE(helper.deleteSystemDatabase());
    EXPECT_EQ("gone", helper.getSystemSetting("a", "gone"));
    ASSERT_TRUE(helper.isUserDatabaseAvailable(0));
    EXPECT_TRUE(helper.deleteAllUserDbs());
    for (const char* db : {"system.db", "user0.db", "user7.db", "user11.db"}) {
        EXPECT_FALSE(exists(dir.file(db))) << db;
        for (const char* suffix : kCompanions) {
            EXPECT_FALSE(exists(dir.file(std::string(db) + suffix))) << db << suffix;
        }
    }
    EXPECT_TRUE(exists(dir.file("user.db")));
    EXPECT_TRUE(helper.deleteSystemAndAllUserDbs());

    // A non-empty directory in place of user 3's database cannot be removed; the rest goes.
    writeLegacy(dir.file("system.db"), "system_settings", "a", "1");
    writeLegacy(dir.file("user5.db"), "user_settings", "c", "3");
    ASSERT_EQ(0, mkdir(dir.file("user3.db").c_str(), 0700));
    touch(dir.file("user3.db/inside"));
    LegacySettingsDbHelper again(dir.path());
    LogCapture log;
    EXPECT_FALSE(again.deleteSystemAndAllUserDbs());
    EXPECT_TRUE(log.contains("3: legacy database is unable to be deleted"));
    EXPECT_FALSE(log.contains("5: legacy database is unable to be deleted"));
    EXPECT_FALSE(exists(dir.file("user5.db")));
    EXPECT_FALSE(exists(dir.file("system.db")));
    EXPECT_TRUE(exists(dir.file("user3.db/inside")));
}

}  // namespace
}  // namespace Halo::OS
