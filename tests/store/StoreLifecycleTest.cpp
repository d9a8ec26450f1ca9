#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "store/LogLines.h"
#include "store/StoreTest.h"
#include "store/StoreTexts.h"
#include "support/LogCapture.h"
#include "support/SqlRows.h"

namespace Halo::OS::testing {
namespace {

// The plan of statements that select permission rows by package must use the package index, or
// each of them scans the table.
std::string planOfPackageDelete(const std::string& path) {
    std::string plan;
    for (const std::string& row :
         sqlRows(path,
                 "EXPLAIN QUERY PLAN DELETE FROM permissions WHERE package_uid = 1 AND "
                 "package_name = 'a' AND package_name NOT LIKE 'nimbus.preferences.service%'")) {
        plan += row + "\n";
    }
    return plan;
}

std::vector<unsigned int> sorted(std::vector<unsigned int> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
}

void touch(const std::string& path) {
    std::ofstream(path) << "x";
}

std::string readFile(const std::string& path) {
    std::string text;
    std::getline(std::ifstream(path), text, '\0');
    return text;
}

// The tables of an older store, before its `preferences` table is created.
constexpr const char* kOldTables =
        "CREATE TABLE packages (package_uid INTEGER NOT NULL, package_name TEXT NOT NULL PRIMARY "
        "KEY, UNIQUE(package_name, package_uid) ON CONFLICT ABORT);"
        "CREATE TABLE permissions (key TEXT NOT NULL REFERENCES preferences(key) ON DELETE "
        "CASCADE, package_uid INTEGER, package_name TEXT, permission INTEGER NOT NULL "
        "CHECK(permission >= 0 AND permission <= 3), UNIQUE(key, package_name, package_uid) ON "
        "CONFLICT ABORT, FOREIGN KEY(package_name, package_uid) REFERENCES packages(package_name, "
        "package_uid) ON DELETE CASCADE);"
        "CREATE TABLE preference_values (key TEXT NOT NULL PRIMARY KEY REFERENCES "
        "preferences(key) ON DELETE CASCADE, current_value TEXT);";
constexpr const char* kOldRows =
        "INSERT INTO packages VALUES (1010123, 'com.example.app');"
        "INSERT INTO preferences VALUES ('volume', 0, 0, 1010123, 'com.example.app', '5', NULL);"
        "INSERT INTO preferences VALUES ('theme', 2, 1, NULL, NULL, 'dark', NULL);"
        "INSERT INTO permissions VALUES ('volume', 1010123, 'com.example.app', 2);"
        "INSERT INTO permissions VALUES ('theme', 1010123, 'com.example.app', 1);"
        "INSERT INTO preference_values VALUES ('volume', '7');";

class StoreLifecycleTest : public StoreTest {};

// A new store is stamped version 2, keeps its files in write-ahead logging with 4 KiB pages, and
// its tables refuse what they must: values outside the type and scope codes, duplicate listener
// rows; listener rows live only as long as the connection.
TEST_F(StoreLifecycleTest, NewSystemDbIsVersion2AndEnforcesItsSchema) {
    EXPECT_EQ(2, mStore->getDatabaseUserVersion());
    EXPECT_EQ("2", scalar("PRAGMA user_version"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "theme", Scope::User, Type::String, true, "dark"));
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "theme", "light"));
    for (const char* file : {"system.db", "user0.db"}) {
        EXPECT_EQ("wal", scalar("PRAGMA journal_mode", file)) << file;
        EXPECT_EQ("4096", scalar("PRAGMA page_size", file)) << file;
    }
    {
        LogCapture log;
        EXPECT_EQ(-1, registerKey(kAppUid, kApp, "bad_type", Scope::System, Type::NoType, true,
                                  std::nullopt));
        EXPECT_TRUE(hasLogLine(log.text(), 'E', "Unable to insert duplicate row for bad_type."));
    }
    unsigned int listenerId = 0;
    ASSERT_EQ(0, mStore->registerPreferenceListener(kAppUid, {"theme"}, listenerId));
    reopenStore();
    std::vector<std::pair<unsigned int, unsigned int>> listeners;
    EXPECT_EQ(0, mStore->getPreferenceListenersForKey("theme", listeners));
    EXPECT_TRUE(listeners.empty());
    EXPECT_EQ(2, mStore->getDatabaseUserVersion());
    EXPECT_EQ("light", read(0u, "theme"));
}

TEST_F(StoreLifecycleTest, ExistingDbKeepsItsVersionAndGetsOnlyMissingTables) {
    closeStore();
    const std::string v1Preferences =
            "CREATE TABLE preferences (key TEXT NOT NULL PRIMARY KEY, type INTEGER NOT NULL "
            "CHECK(type >= 0 AND type < 6), scope INTEGER NOT NULL CHECK(scope == 0 OR scope == "
            "1 OR scope == 2), owner_package_uid INTEGER, owner_package_name TEXT, default_value "
            "TEXT, expires_at TEXT)";
    std::remove(mDir.file("system.db").c_str());
    // An older store that had only these two tables.
    sqlRows(mDir.file("system.db"),
            "CREATE TABLE packages (package_uid INTEGER NOT NULL, package_name TEXT NOT NULL "
            "PRIMARY KEY, UNIQUE(package_name, package_uid) ON CONFLICT ABORT);" +
                    v1Preferences +
                    ";INSERT INTO packages VALUES (1010123, 'com.example.app');"
                    "INSERT INTO preferences VALUES ('volume', 0, 0, 1010123, "
                    "'com.example.app', '5', NULL);PRAGMA user_version = 1;");
    openStore();
    EXPECT_EQ(1, mStore->getDatabaseUserVersion());
    EXPECT_EQ(v1Preferences, scalar("SELECT sql FROM sqlite_master WHERE name = 'preferences'"));
    EXPECT_EQ("packages|permissions|preference_values|preferences|reap_orphaned_preferences",
              scalar("SELECT group_concat(name, '|') FROM (SELECT name FROM sqlite_master WHERE "
                     "type IN ('table', 'trigger') ORDER BY name)"));
    EXPECT_EQ("volume|0|0|1010123|com.example.app|5|NULL",
              scalar("SELECT * FROM preferences WHERE key = 'volume'"));
    // A database from before the package index gets it.
    const std::string plan = planOfPackageDelete(mDir.file("system.db"));
    EXPECT_NE(std::string::npos, plan.find("permissions_by_package")) << plan;
}

TEST_F(StoreLifecycleTest, UpgradesAVersion0DatabaseToVersion2KeepingItsRows) {
    closeStore();
    std::remove(mDir.file("system.db").c_str());
    // Version 0: the same seven columns without the CHECK constraints of version 1.
    sqlRows(mDir.file("system.db"),
            std::string(kOldTables) +
                    "CREATE TABLE preferences (key TEXT PRIMARY KEY, type INTEGER, scope "
                    "INTEGER, owner_package_uid INTEGER, owner_package_name TEXT, "
                    "default_value TEXT, expires_at TEXT);" +
                    kOldRows);
    openStore();
    ASSERT_EQ(0, mStore->getDatabaseUserVersion());
    // The trigger exists before the upgrade (initialize() created it), as on a device.
    ASSERT_EQ("1", scalar("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'"));

    EXPECT_EQ(0, mStore->upgradeVersionFromV0ToV1());
    EXPECT_EQ(0, mStore->getDatabaseUserVersion());  // the step does not stamp a version
    EXPECT_EQ(
            "CREATE TABLE \"preferences\" (key TEXT NOT NULL PRIMARY KEY, type INTEGER NOT NULL "
            "CHECK(type >= 0 AND type < 6), scope INTEGER NOT NULL CHECK(scope == 0 OR scope == "
            "1 OR scope == 2), owner_package_uid INTEGER, owner_package_name TEXT, "
            "default_value TEXT, expires_at TEXT)",
            scalar("SELECT sql FROM sqlite_master WHERE name = 'preferences'"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM sqlite_master WHERE name = 'preferences_bk'"));
    EXPECT_EQ("1", scalar("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM pragma_foreign_key_check"));

    EXPECT_EQ(0, mStore->upgradeVersionFromV1ToV2());
    EXPECT_EQ(2, mStore->getDatabaseUserVersion());
    EXPECT_EQ((std::vector<std::string>{"theme|2|1|NULL|NULL|dark|NULL|0",
                                        "volume|0|0|1010123|com.example.app|5|NULL|0"}),
              query("SELECT * FROM preferences ORDER BY key"));

    // The upgraded store works as a new one: values, cascades (foreign keys are on again) and
    // the reaping trigger.
    EXPECT_EQ("7", read(std::nullopt, "volume"));
    EXPECT_EQ(0, mStore->unregisterPackage(1010123, "com.example.app"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preferences"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preference_values"));
}

TEST_F(StoreLifecycleTest, UpgradeToVersion2WritesNothingWhenTheColumnExists) {
    exec("PRAGMA user_version = 1");
    const std::string schema = scalar("SELECT group_concat(sql, ';') FROM sqlite_master");
    EXPECT_EQ(0, mStore->upgradeVersionFromV1ToV2());
    EXPECT_EQ(1, mStore->getDatabaseUserVersion());
    EXPECT_EQ(schema, scalar("SELECT group_concat(sql, ';') FROM sqlite_master"));
}

TEST_F(StoreLifecycleTest, FailedUpgradeLeavesTheTableAndNoOpenTransaction) {
    closeStore();
    std::remove(mDir.file("system.db").c_str());
    // Eight columns: the copy into the seven-column table cannot work.
    sqlRows(mDir.file("system.db"),
            std::string(kOldTables) +
                    "CREATE TABLE preferences (key TEXT PRIMARY KEY, type INTEGER, scope "
                    "INTEGER, owner_package_uid INTEGER, owner_package_name TEXT, "
                    "default_value TEXT, expires_at TEXT, extra TEXT);");
    openStore();
    {
        LogCapture log;
        EXPECT_EQ(-16, mStore->upgradeVersionFromV0ToV1());
        EXPECT_TRUE(hasLogLine(log.text(), 'E', "Failed to upgrade system DB from version 0 to 1"))
                << log.text();
    }
    EXPECT_EQ("0", scalar("SELECT count(*) FROM sqlite_master WHERE name = 'preferences_bk'"));
    EXPECT_EQ("1", scalar("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'"));
    // No transaction was left open: a batch can begin.
    EXPECT_EQ(0, mStore->beginBatch());
    EXPECT_EQ(0, mStore->commitBatch());
}

TEST_F(StoreLifecycleTest, UserIdsComeOnlyFromUserDatabaseFileNames) {
    for (const char* name : {"user0.db", "user10.db", "user.db", "user10.db-journal", "userx.db",
                             "auser3.db", "user4.dbx", "user99999999999.db"}) {
        touch(mDir.file(name));
    }
    std::vector<unsigned int> ids = {42};  // appended to, not replaced
    EXPECT_TRUE(mStore->getUserIdsForExistingDbs(ids));
    EXPECT_EQ((std::vector<unsigned int>{0, 10, 42}), sorted(ids));

    DirectoryPreferencesDb missing(mDir.file("absent"));
    LogCapture log;
    EXPECT_FALSE(missing.getUserIdsForExistingDbs(ids));
    EXPECT_TRUE(hasLogLine(log.text(), 'E',
                           "Unable to get user IDs for existing DBs: failed to open directory."));
}

TEST_F(StoreLifecycleTest, DeletingUsersClosesTheirDatabasesAndRemovesExactlyTheirFiles) {
    const std::string key = "volume";
    ASSERT_EQ(0, declare(kAppUid, kApp, key, Scope::Cross, Type::Integer, true, "1"));
    for (unsigned int user : {0u, 5u, 10u, 11u}) {
        ASSERT_EQ(0, mStore->setPreferenceValue(user, key, std::to_string(user + 100)));
    }
    ASSERT_TRUE(fileExists("user10.db-wal"));
    touch(mDir.file("user10.db-journal"));

    EXPECT_EQ(0, mStore->deleteUserData(5));
    EXPECT_EQ(0, mStore->updateUserList({0, 11, 12}));
    for (const char* gone : {"user5.db", "user5.db-wal", "user5.db-shm", "user10.db",
                             "user10.db-wal", "user10.db-shm", "user10.db-journal", "user12.db"}) {
        EXPECT_FALSE(fileExists(gone)) << gone;
    }
    EXPECT_TRUE(fileExists("user0.db"));
    EXPECT_TRUE(fileExists("user11.db"));
    EXPECT_EQ("100", read(0u, key));
    EXPECT_EQ("111", read(11u, key));
    // Deleted users start again from an empty database on their next use.
    EXPECT_EQ("1", read(5u, key));
    EXPECT_EQ("1", read(10u, key));

    EXPECT_EQ(-15, mStore->deleteUserData(77));  // no such file
    // A file that cannot be removed stops the update.
    ASSERT_EQ(0, mkdir(mDir.file("user13.db").c_str(), 0700));
    LogCapture log;
    EXPECT_EQ(-15, mStore->updateUserList({0}));
    EXPECT_TRUE(hasLogLine(log.text(), 'W', "Failed to delete data: 13")) << log.text();
}

TEST_F(StoreLifecycleTest, ResetLeavesEmptyFreshTablesAndClosedUserDatabases) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "theme", Scope::User, Type::String, true, "dark"));
    ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "volume", "3"));
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "theme", "light"));
    ASSERT_EQ(0, mStore->setPreferenceValue(10u, "theme", "blue"));
    unsigned int listenerId = 0;
    ASSERT_EQ(0, mStore->registerPreferenceListener(kAppUid, {"volume", "theme"}, listenerId));
    exec("PRAGMA user_version = 1");

    EXPECT_EQ(0, mStore->reset());

    EXPECT_EQ(2, mStore->getDatabaseUserVersion());
    for (const char* table : {"packages", "preferences", "permissions", "preference_values"}) {
        EXPECT_EQ("0", scalar(std::string("SELECT count(*) FROM ") + table)) << table;
    }
    std::vector<unsigned int> listenerIds;
    EXPECT_EQ(0, mStore->getPreferenceListenersIdsForPackage(kAppUid, listenerIds));
    EXPECT_TRUE(listenerIds.empty());
    EXPECT_EQ("1", scalar("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'"));
    // Dropping the permissions table took its index along; the fresh table has it again.
    EXPECT_EQ("permissions_by_package|permissions",
              scalar("SELECT name, tbl_name FROM sqlite_master WHERE type = 'index' AND sql IS "
                     "NOT NULL"));
    // The user files stay, closed and without their table until they are used again.
    EXPECT_EQ("0", scalar("SELECT count(*) FROM sqlite_master", "user10.db"));
    EXPECT_EQ(0, mStore->registerPreferenceListener(kAppUid, {}, listenerId));
    EXPECT_EQ(1u, listenerId);
}

TEST_F(StoreLifecycleTest, ClosingWritesEverythingBackAndReopeningFindsIt) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "theme", Scope::User, Type::String, true, "dark"));
    ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "volume", "3"));
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "theme", "light"));

    EXPECT_EQ(0, mStore->uninitialize());
    EXPECT_FALSE(fileExists("system.db-wal"));  // checkpointed on close
    EXPECT_FALSE(fileExists("user0.db-wal"));

    reopenStore();
    EXPECT_EQ("3", read(std::nullopt, "volume"));
    EXPECT_EQ("light", read(0u, "theme"));
}

TEST_F(StoreLifecycleTest, BatchesAndRawQueries) {
    EXPECT_EQ(0, mStore->beginBatch());
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "1"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preferences"));  // not committed yet
    {
        LogCapture log;
        EXPECT_EQ(-1, mStore->beginBatch());
        const std::string details =
                "scope=System, query='BEGIN', code='1', error='cannot start a transaction within "
                "a transaction'";
        EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                      {"Failed to execute raw query: " + details,
                                       "Failed to begin batch mode transaction for system DB"}));
        EXPECT_EQ(1u, Telemetry::count("executerawquery_error_sqlite3_exec:" + details));
    }
    EXPECT_EQ(0, mStore->commitBatch());
    EXPECT_EQ("volume", scalar("SELECT key FROM preferences"));
    {
        LogCapture log;
        EXPECT_EQ(-1, mStore->commitBatch());
        EXPECT_TRUE(hasLogLine(log.text(), 'E', "Failed to commit batch operations for system DB"));
    }
    // A store that was never opened has no connection to run them on.
    closeStore();
    DirectoryPreferencesDb unopened(mDir.path());
    LogCapture log;
    EXPECT_EQ(-3, unopened.beginBatch());
    EXPECT_TRUE(hasLogLine(log.text(), 'E',
                           "Unable to execute raw query because DB (scope=System) is not "
                           "initialized."));
}

TEST_F(StoreLifecycleTest, StoreThatCannotOpenItsDatabaseFailsCleanly) {
    closeStore();
    mStore = std::make_unique<DirectoryPreferencesDb>(mDir.file("absent"));
    {
        LogCapture log;
        EXPECT_EQ(-2, mStore->initialize());
        EXPECT_TRUE(hasLogLine(log.text(), 'E', "Failed to open db"));
    }
    EXPECT_EQ(1u, Telemetry::count("systemdbinit_error"));
    LogCapture log;
    EXPECT_EQ(-1, mStore->registerPackage(kAppUid, kApp));
    std::optional<std::string> value;
    EXPECT_EQ(-1, mStore->getPreferenceValue(0u, "volume", value));
    EXPECT_EQ(-1, mStore->getDatabaseUserVersion());
    // The handle of the failed open stays: a query on it fails as a query.
    EXPECT_EQ(-1, mStore->beginBatch());
    EXPECT_TRUE(hasLogLine(log.text(), 'E', "Unable to prepare or bind statement (scope System)"))
            << log.text();
    // A later attempt in an existing directory succeeds from a fresh record.
    mStore.reset();
    openStore();
}

// A database, or a file SQLite keeps beside it, that is not a private regular file of the
// store's uid is never opened: that database fails as one SQLite cannot open, and stays as it is.
TEST_F(StoreLifecycleTest, DatabaseFilesOfOthersAreNotOpened) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "theme", Scope::User, Type::String, true, "dark"));
    struct Planted {
        const char* name;
        uid_t owner;
        mode_t mode;
    };
    for (const Planted& planted : std::vector<Planted>{{"user10.db", kAppUid, 0600},
                                                       {"user10.db", 0, 0666},
                                                       {"user10.db-journal", kAppUid, 0600},
                                                       {"user10.db-wal", 0, 0620},
                                                       {"user10.db-shm", 0, 0602},
                                                       {"user10.db", 0, 0}}) {
        const std::string path = mDir.file(planted.name);
        std::ofstream(path) << "planted";
        if (planted.mode == 0) {
            ASSERT_EQ(0, rename(path.c_str(), (path + ".target").c_str()));
            ASSERT_EQ(0, symlink((path + ".target").c_str(), path.c_str()));
        } else {
            ASSERT_EQ(0, chown(path.c_str(), planted.owner, planted.owner));
            ASSERT_EQ(0, chmod(path.c_str(), planted.mode));
        }
        LogCapture log;
        EXPECT_EQ("<none>", read(10u, "theme", -2)) << planted.name;
        EXPECT_TRUE(log.contains("Refusing to open " + mDir.file("user10.db") + ": " + path))
                << log.text();
        EXPECT_EQ("planted", readFile(planted.mode == 0 ? path + ".target" : path));
        EXPECT_EQ("dark", read(0u, "theme")) << "other users are served";
        unlink(path.c_str());
        unlink((path + ".target").c_str());
    }
    EXPECT_EQ("dark", read(10u, "theme"));

    // The system database likewise.
    closeStore();
    ASSERT_EQ(0, chown(mDir.file("system.db").c_str(), kAppUid, kAppUid));
    mStore = std::make_unique<DirectoryPreferencesDb>(mDir.path());
    EXPECT_EQ(-2, mStore->initialize());
    ASSERT_EQ(0, chown(mDir.file("system.db").c_str(), 0, 0));
    mStore.reset();
    openStore();
}

TEST(Sqlite3PreferencesDbPathsTest, DevicePathsAndDirectoryPaths) {
    Sqlite3PreferencesDb device;
    EXPECT_EQ("/data/nimbus/preferences/system.db", device.getSystemDbPath());
    EXPECT_EQ("/data/nimbus/preferences/user10.db", device.getUserDbPath(10));
    DirectoryPreferencesDb slash("/tmp/prefs/");
    EXPECT_EQ("/tmp/prefs/system.db", slash.getSystemDbPath());
    EXPECT_EQ("/tmp/prefs/user4294967295.db", slash.getUserDbPath(4294967295u));
    EXPECT_EQ("/system.db", DirectoryPreferencesDb("/").getSystemDbPath());
}

// Type and permission codes outside their tables are logged and named (the names inside them are
// seen in the dumps); scope and domain codes outside theirs abort (below).
TEST(Sqlite3PreferencesDbTextsTest, CodesOutsideTheirTables) {
    EXPECT_STREQ("NativeService", domainToString(KeySourceDomain::NativeService));
    LogCapture log;
    EXPECT_STREQ("[unknown type]", typeToString(PreferencesKeyInfo::Type::NoType));
    EXPECT_STREQ("Invalid Permissions",
                 permissionToString(static_cast<PreferencesKeyInfo::PreferencePermission>(3)));
    EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                  {"Invalid type provided to typeToString: 6",
                                   "Unable to convert permissions 3 to string."}));
}

TEST(Sqlite3PreferencesDbTextsDeathTest, ScopeAndDomainOutsideTheirRangeAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(scopeToString(static_cast<PreferencesKeyInfo::PreferenceScope>(3)),
                 "lookup error");
    EXPECT_DEATH(domainToString(static_cast<KeySourceDomain>(3)), "lookup error");
}

// A value write that returned must be in the database after the process is killed right after
// it, before any close or checkpoint.
TEST(Sqlite3PreferencesDbDurabilityTest, ReturnedWriteSurvivesKillOfTheProcess) {
    TempDir dir;
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        close(ready[0]);
        DirectoryPreferencesDb store(dir.path());
        using Scope = PreferencesKeyInfo::PreferenceScope;
        using Type = PreferencesKeyInfo::Type;
        bool ok = store.initialize() == 0 && store.registerPackage(1010123, "com.example.app") == 0;
        ok = ok && store.registerPreference(1010123, "com.example.app", "volume", Scope::System,
                                            Type::Integer, 1010123, "com.example.app", "1") == 0;
        ok = ok && store.registerPreference(1010123, "com.example.app", "theme", Scope::User,
                                            Type::String, 1010123, "com.example.app", "dark") == 0;
        ok = ok && store.setPreferenceValue(std::nullopt, "volume", "11") == 0;
        ok = ok && store.setPreferenceValue(0u, "theme", "light") == 0;
        ok = ok && store.setPreferenceValue(std::nullopt, "volume", "12") == 0;
        const char status = ok ? 'y' : 'n';
        if (write(ready[1], &status, 1) != 1) _exit(2);
        while (true) pause();
    }
    close(ready[1]);
    char status = 0;
    ASSERT_EQ(1, read(ready[0], &status, 1));
    close(ready[0]);
    ASSERT_EQ(0, kill(child, SIGKILL));
    int wstatus = 0;
    ASSERT_EQ(child, waitpid(child, &wstatus, 0));
    ASSERT_TRUE(WIFSIGNALED(wstatus) && WTERMSIG(wstatus) == SIGKILL);
    ASSERT_EQ('y', status);
    // The commits are only in the write-ahead logs: recovery has to find them.
    EXPECT_EQ(0, access(dir.file("system.db-wal").c_str(), F_OK));
    EXPECT_EQ(0, access(dir.file("user0.db-wal").c_str(), F_OK));

    DirectoryPreferencesDb store(dir.path());
    ASSERT_EQ(0, store.initialize());
    std::optional<std::string> value;
    EXPECT_EQ(0, store.getPreferenceValue(std::nullopt, "volume", value));
    EXPECT_EQ("12", value.value_or("<none>"));
    EXPECT_EQ(0, store.getPreferenceValue(0u, "theme", value));
    EXPECT_EQ("light", value.value_or("<none>"));
}

}  // namespace
}  // namespace Halo::OS::testing
