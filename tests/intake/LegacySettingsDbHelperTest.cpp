#include "intake/LegacySettingsDbHelper.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "keyvaluestore/KeyValueStore.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::TempDir;

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

void touch(const std::string& path) {
    std::ofstream(path) << "x";
}

// Writes a legacy database the way the older settings service did.
void writeLegacy(const std::string& path, const std::string& table,
                 const std::vector<std::pair<std::string, std::string>>& values) {
    KeyValueStore store(path, table);
    ASSERT_TRUE(store.isValid()) << path;
    for (const auto& [key, value] : values) ASSERT_TRUE(store.set(key, value));
}

TEST(LegacySettingsDbHelperTest, ReadOnlyHelperReadsValuesAndNeverWrites) {
    TempDir dir;
    writeLegacy(dir.file("system.db"), "system_settings", {{"sleep_timer", "15"}, {"empty", ""}});
    writeLegacy(dir.file("user10.db"), "user_settings", {{"font_scale", "1.25"}});

    LegacySettingsDbHelper helper(dir.path());
    EXPECT_EQ(dir.path() + "/", helper.directory());
    EXPECT_EQ("system.db", helper.systemDbName());
    EXPECT_EQ("user", helper.userDbPrefix());
    EXPECT_TRUE(helper.isReadOnly());
    EXPECT_TRUE(helper.extraFlag());
    EXPECT_STREQ("/data/nimbus/settings/", LegacySettingsDbHelper::kDefaultDirectory);
    EXPECT_EQ(dir.path() + "/user10.db", helper.userDbPath(10));

    ASSERT_TRUE(helper.isSystemDatabaseAvailable());
    EXPECT_EQ("15", helper.getSystemSetting("sleep_timer", "d"));
    EXPECT_EQ("", helper.getSystemSetting("empty", "d"));
    EXPECT_EQ("d", helper.getSystemSetting("absent", "d"));
    EXPECT_FALSE(helper.setSystemSetting("sleep_timer", "30"));
    EXPECT_EQ("15", helper.getSystemSetting("sleep_timer", ""));

    EXPECT_TRUE(helper.isUserDatabaseAvailable(10));
    EXPECT_EQ("1.25", helper.getUserSetting("font_scale", "1", 10));
    EXPECT_EQ("1", helper.getUserSetting("absent", "1", 10));
    EXPECT_FALSE(helper.setUserSetting("font_scale", "2", 10));
    EXPECT_EQ("1.25", helper.getUserSetting("font_scale", "", 10));

    // A user without a file is unavailable, and reading it creates nothing.
    EXPECT_FALSE(helper.isUserDatabaseAvailable(5));
    EXPECT_EQ("d", helper.getUserSetting("font_scale", "d", 5));
    EXPECT_FALSE(helper.isUserDatabaseAvailable(-1));
    EXPECT_FALSE(exists(dir.file("user5.db")));

    KeyValueStore check(dir.file("system.db"), "system_settings");
    EXPECT_EQ("15", check.get("sleep_timer"));
}

TEST(LegacySettingsDbHelperTest, MissingOrBrokenSystemFileOpensNothing) {
    TempDir dir;
    {
        LegacySettingsDbHelper helper(dir.path());
        EXPECT_FALSE(helper.isSystemDatabaseAvailable());
        EXPECT_EQ("fallback", helper.getSystemSetting("sleep_timer", "fallback"));
        EXPECT_TRUE(helper.deleteSystemDatabase());
    }
    EXPECT_FALSE(exists(dir.file("system.db")));

    LegacySettingsDbHelper missingDir(dir.file("nowhere"));
    EXPECT_FALSE(missingDir.isSystemDatabaseAvailable());
    EXPECT_TRUE(missingDir.getUserIds().empty());

    std::ofstream(dir.file("system.db")) << "not a database";
    std::ofstream(dir.file("user4.db")) << "not a database either";
    LogCapture log;
    LegacySettingsDbHelper broken(dir.path());
    EXPECT_FALSE(broken.isSystemDatabaseAvailable());
    EXPECT_EQ("fallback", broken.getSystemSetting("k", "fallback"));
    EXPECT_FALSE(broken.isUserDatabaseAvailable(4));
    EXPECT_EQ("fallback", broken.getUserSetting("k", "fallback", 4));
    EXPECT_TRUE(log.contains("legacy system database"));
    EXPECT_TRUE(log.contains("user4.db is not usable"));
}

TEST(LegacySettingsDbHelperTest, WritableHelperCreatesAndWritesDatabases) {
    TempDir dir;
    {
        LegacySettingsDbHelper helper(dir.path() + "/", "system.db", "user", false, false);
        EXPECT_FALSE(helper.extraFlag());
        ASSERT_TRUE(helper.isSystemDatabaseAvailable());
        EXPECT_TRUE(helper.setSystemSetting("wake_word", "true"));
        EXPECT_TRUE(helper.setUserSetting("font_scale", "1.5", 3));
        EXPECT_TRUE(helper.setUserSetting("font_scale", "1.75", 3));
        EXPECT_EQ("1.75", helper.getUserSetting("font_scale", "", 3));
    }
    LegacySettingsDbHelper reader(dir.path());
    EXPECT_EQ("true", reader.getSystemSetting("wake_word", ""));
    EXPECT_EQ("1.75", reader.getUserSetting("font_scale", "", 3));
    EXPECT_EQ(std::vector<int>({3}), reader.getUserIds());
}

TEST(LegacySettingsDbHelperTest, UserIdsComeOnlyFromUserDatabaseNames) {
    TempDir dir;
    for (const char* name :
         {"user.db", "userx.db", "user10.db-journal", "user7.db", "user0.db", "user07.db",
          "user12.dbx", "user2147483648.db", "user-1.db", "user+5.db", "user 6.db", "system.db",
          "anotheruser5.db", "User8.db", "user42.db", "user42.db-wal"}) {
        touch(dir.file(name));
    }
    ASSERT_EQ(0, mkdir(dir.file("user3.db").c_str(), 0700));
    LegacySettingsDbHelper helper(dir.path());
    EXPECT_EQ(std::vector<int>({0, 3, 7, 42}), helper.getUserIds());

    LegacySettingsDbHelper prefixed(dir.path(), "system.db", "anotheruser");
    EXPECT_EQ(std::vector<int>({5}), prefixed.getUserIds());

    EXPECT_TRUE(LegacySettingsDbHelper::doesFileExist(dir.path(), "user7.db"));
    EXPECT_TRUE(LegacySettingsDbHelper::doesFileExist(dir.path(), "user3.db"));
    EXPECT_FALSE(LegacySettingsDbHelper::doesFileExist(dir.path(), "user8.db"));
    EXPECT_FALSE(LegacySettingsDbHelper::doesFileExist(dir.path(), "user7"));
    EXPECT_FALSE(LegacySettingsDbHelper::doesFileExist(dir.file("nowhere"), "user7.db"));
}

TEST(LegacySettingsDbHelperTest, DeletionsRemoveDatabasesWithTheirCompanions) {
    TempDir dir;
    writeLegacy(dir.file("system.db"), "system_settings", {{"a", "1"}});
    writeLegacy(dir.file("user0.db"), "user_settings", {{"b", "2"}});
    writeLegacy(dir.file("user7.db"), "user_settings", {{"c", "3"}});
    writeLegacy(dir.file("user11.db"), "user_settings", {{"d", "4"}});
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        touch(dir.file(std::string("system.db") + suffix));
        touch(dir.file(std::string("user7.db") + suffix));
        touch(dir.file(std::string("user11.db") + suffix));
    }
    touch(dir.file("user.db"));
    touch(dir.file("notes.txt"));

    LegacySettingsDbHelper helper(dir.path());  // read-only helpers may still delete
    ASSERT_TRUE(helper.isSystemDatabaseAvailable());
    ASSERT_TRUE(helper.isUserDatabaseAvailable(7));
    EXPECT_EQ("3", helper.getUserSetting("c", "", 7));

    EXPECT_TRUE(helper.deleteUserSettingsDb(7));
    EXPECT_FALSE(exists(dir.file("user7.db")));
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        EXPECT_FALSE(exists(dir.file(std::string("user7.db") + suffix))) << suffix;
    }
    EXPECT_FALSE(helper.isUserDatabaseAvailable(7));
    EXPECT_EQ("gone", helper.getUserSetting("c", "gone", 7));
    EXPECT_TRUE(helper.deleteUserSettingsDb(9));  // never existed

    EXPECT_TRUE(helper.deleteSystemDatabase());
    EXPECT_FALSE(helper.isSystemDatabaseAvailable());
    EXPECT_EQ("gone", helper.getSystemSetting("a", "gone"));
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        EXPECT_FALSE(exists(dir.file(std::string("system.db") + suffix))) << suffix;
    }

    ASSERT_TRUE(helper.isUserDatabaseAvailable(0));
    EXPECT_TRUE(helper.deleteAllUserDbs());
    EXPECT_TRUE(helper.getUserIds().empty());
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        EXPECT_FALSE(exists(dir.file(std::string("user11.db") + suffix))) << suffix;
    }
    EXPECT_FALSE(exists(dir.file("user0.db")));
    EXPECT_TRUE(exists(dir.file("user.db")));
    EXPECT_TRUE(exists(dir.file("notes.txt")));
    EXPECT_TRUE(helper.deleteSystemAndAllUserDbs());  // nothing left to do
}

TEST(LegacySettingsDbHelperTest, FailedRemovalIsReportedAndTheRestStillRemoved) {
    TempDir dir;
    writeLegacy(dir.file("system.db"), "system_settings", {{"a", "1"}});
    writeLegacy(dir.file("user0.db"), "user_settings", {{"b", "2"}});
    writeLegacy(dir.file("user5.db"), "user_settings", {{"c", "3"}});
    // A non-empty directory in place of user 3's database cannot be removed.
    ASSERT_EQ(0, mkdir(dir.file("user3.db").c_str(), 0700));
    touch(dir.file("user3.db/inside"));

    LegacySettingsDbHelper helper(dir.path());
    {
        LogCapture log;
        EXPECT_FALSE(helper.deleteAllUserDbs());
        EXPECT_TRUE(log.contains("3: legacy database is unable to be deleted"));
        EXPECT_FALSE(log.contains("0: legacy database is unable to be deleted"));
    }
    EXPECT_FALSE(exists(dir.file("user0.db")));
    EXPECT_FALSE(exists(dir.file("user5.db")));
    EXPECT_TRUE(exists(dir.file("user3.db/inside")));

    {
        LogCapture log;
        EXPECT_FALSE(helper.deleteSystemAndAllUserDbs());
        EXPECT_TRUE(log.contains("3: legacy database is unable to be deleted"));
    }
    EXPECT_FALSE(exists(dir.file("system.db")));  // the system part still happened
}

}  // namespace
}  // namespace Halo::OS
