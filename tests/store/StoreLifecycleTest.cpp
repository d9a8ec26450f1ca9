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
#include "support/LogCapture.h"
#include "support/SqlRows.h"

namespace Halo::OS::testing {
namespace {

const std::vector<std::string> kExpectedSystemStatements = {
        "PRAGMA foreign_keys",
        "SELECT package_name, package_uid FROM packages",
        "INSERT INTO packages (package_uid, package_name) VALUES (?, ?)",
        "DELETE FROM packages WHERE package_uid = ? AND package_name = ?",
        "UPDATE preferences SET owner_package_uid = NULL AND owner_package_name = NULL WHERE "
        "owner_package_uid = ? AND owner_package_name = ?",
        "UPDATE preferences SET expires_at = datetime('now') WHERE   KEY IN (SELECT DISTINCT key "
        "FROM permissions WHERE     package_uid = ? AND package_name = ?) AND   KEY NOT IN (SELECT "
        "DISTINCT key FROM permissions WHERE     package_uid != ? AND package_name != ?)",
        "INSERT INTO preferences (key, type, scope, owner_package_uid, owner_package_name, "
        "default_value) VALUES (?, ?, ?, ?, ?, ?)",
        "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key NOT IN (SELECT DISTINCT "
        "key FROM permissions WHERE    package_name LIKE 'nimbus.preferences.service%' )",
        "UPDATE preferences SET expires_at = datetime('now', ?) WHERE   (NOT EXISTS (SELECT key "
        "FROM permissions WHERE permissions.key = preferences.key LIMIT 1)      AND (        "
        "(SELECT owner_package_uid FROM preferences WHERE owner_package_uid IS NULL)        OR     "
        "   (NOT EXISTS (SELECT package_uid, package_name FROM packages WHERE                     "
        "packages.package_uid = preferences.owner_package_uid AND                     "
        "packages.package_name = preferences.owner_package_name                     LIMIT 1))))",
        "UPDATE preferences SET expires_at = NULL WHERE key = ?",
        "SELECT key, scope FROM preferences WHERE strftime('%s', 'now') - strftime('%s', "
        "expires_at) >= 0",
        "DELETE FROM preferences WHERE strftime('%s', 'now') - strftime('%s', expires_at) >= 0",
        "SELECT scope FROM preferences WHERE key = ?",
        "UPDATE preferences SET scope = ? WHERE key = ?",
        "SELECT type FROM preferences WHERE key = ?",
        "UPDATE preferences SET type = ? WHERE key = ?",
        "INSERT INTO permissions (key, package_uid, package_name, permission) VALUES (?, ?, ?, ?)",
        "SELECT MAX(permission) FROM permissions WHERE key = ? AND package_uid = ?",
        "UPDATE permissions SET permission = ? WHERE key = ? AND package_uid = ? AND package_name "
        "= ?",
        "DELETE FROM permissions WHERE package_uid = ? AND package_name = ? AND package_name NOT "
        "LIKE 'nimbus.preferences.service%'",
        "SELECT owner_package_uid, owner_package_name FROM preferences WHERE key = ?",
        "UPDATE preferences SET owner_package_uid = ?, owner_package_name = ? WHERE key = ?",
        "UPDATE preferences SET owner_package_uid = NULL, owner_package_name = NULL WHERE "
        "owner_package_name LIKE 'nimbus.preferences.service%'",
        "UPDATE preferences SET owner_package_uid = NULL, owner_package_name = NULL WHERE "
        "owner_package_name LIKE 'nimbus.preferences.native%'",
        "UPDATE preferences SET owner_package_uid = NULL, owner_package_name = NULL WHERE "
        "owner_package_name NOT LIKE 'nimbus.preferences.service%'AND owner_package_name NOT LIKE "
        "'nimbus.preferences.native%'",
        "SELECT MAX(listener_uuid) FROM mem.listeners",
        "INSERT INTO mem.listeners (listener_uuid, key, package_uid) VALUES (?, ?, ?)",
        "DELETE FROM mem.listeners WHERE package_uid = ? AND listener_uuid = ?",
        "SELECT package_uid, listener_uuid FROM mem.listeners WHERE key = ?",
        "SELECT listener_uuid FROM mem.listeners WHERE package_uid = ?",
        "DELETE from mem.listeners WHERE key NOT IN (SELECT key from preferences)",
        "SELECT default_value FROM preferences WHERE key = ?",
        "UPDATE preferences SET default_value = ? WHERE key = ?",
        "INSERT INTO preference_values (key) VALUES (?)",
        "SELECT current_value FROM preference_values WHERE key = ?",
        "UPDATE preference_values SET current_value = ? WHERE key = ?",
        "DELETE FROM preference_values WHERE key = ?",
        "DELETE FROM preference_values WHERE key = ?",
        "SELECT package_uid, package_name FROM packages",
        "SELECT key, package_uid, permission FROM permissions",
        "SELECT key, current_value FROM preference_values",
        "SELECT listener_uuid, key, package_uid FROM mem.listeners",
        "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key IN (SELECT DISTINCT key "
        "FROM permissions WHERE    package_name LIKE 'nimbus.preferences.service%' )",
        "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key IN (SELECT DISTINCT key "
        "FROM permissions WHERE    package_name LIKE 'nimbus.preferences.native%' )",
        "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key NOT IN (SELECT DISTINCT "
        "key FROM permissions WHERE    package_name LIKE 'nimbus.preferences.service%'    OR "
        "package_name LIKE 'nimbus.preferences.native%' )",
        "UPDATE preferences SET scope = 1 WHERE scope = 2 AND (owner_package_name NOT LIKE "
        "'nimbus.preferences.service%' OR owner_package_name IS NULL)",
        "SELECT * FROM pragma_user_version LIMIT 1",
        "SELECT name FROM pragma_table_info('preferences') WHERE name = 'migration'",
        // The store's own lookups.
        "SELECT 1 FROM permissions JOIN preferences ON preferences.key = permissions.key WHERE "
        "permissions.package_uid = ? AND permissions.package_name = ? AND NOT "
        "coalesce(strftime('%s', 'now') - strftime('%s', preferences.expires_at) >= 0, 0) LIMIT 1",
};

// The plan of statements that select permission rows by package must use the package index, or
// each of them scans the table.
std::string planOfPackageDelete(sqlite3* db) {
    std::string plan;
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db,
                       "EXPLAIN QUERY PLAN DELETE FROM permissions WHERE package_uid = ? AND "
                       "package_name = ? AND package_name NOT LIKE 'nimbus.preferences.service%'",
                       -1, &statement, nullptr);
    while (sqlite3_step(statement) == SQLITE_ROW) {
        plan += reinterpret_cast<const char*>(sqlite3_column_text(statement, 3));
        plan += "\n";
    }
    sqlite3_finalize(statement);
    return plan;
}

const std::vector<std::string> kExpectedUserStatements = {
        "INSERT INTO preference_values (key) VALUES (?)",
        "SELECT current_value FROM preference_values WHERE key = ?",
        "UPDATE preference_values SET current_value = ? WHERE key = ?",
        "DELETE FROM preference_values WHERE key = ?",
        "DELETE FROM preference_values WHERE key = ?",
        "SELECT key, current_value FROM preference_values",
};

// The SQL of every statement prepared on `db`, sorted.
std::vector<std::string> preparedStatements(sqlite3* db) {
    std::vector<std::string> texts;
    for (sqlite3_stmt* s = sqlite3_next_stmt(db, nullptr); s != nullptr;
         s = sqlite3_next_stmt(db, s)) {
        texts.push_back(sqlite3_sql(s));
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

std::vector<std::string> sorted(std::vector<std::string> texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
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

TEST_F(StoreLifecycleTest, NewSystemDbHasTheTablesTheTriggerAndVersion2) {
    EXPECT_EQ((std::vector<std::string>{
                      "table|packages|CREATE TABLE packages (package_uid INTEGER NOT NULL, "
                      "package_name TEXT NOT NULL PRIMARY KEY, UNIQUE(package_name, package_uid) "
                      "ON CONFLICT ABORT)",
                      "table|permissions|CREATE TABLE permissions (key TEXT NOT NULL REFERENCES "
                      "preferences(key) ON DELETE CASCADE, package_uid INTEGER, package_name "
                      "TEXT, permission INTEGER NOT NULL CHECK(permission >= 0 AND permission <= "
                      "3), UNIQUE(key, package_name, package_uid) ON CONFLICT ABORT, FOREIGN "
                      "KEY(package_name, package_uid) REFERENCES packages(package_name, "
                      "package_uid) ON DELETE CASCADE)",
                      "table|preference_values|CREATE TABLE preference_values (key TEXT NOT NULL "
                      "PRIMARY KEY REFERENCES preferences(key) ON DELETE CASCADE, current_value "
                      "TEXT)",
                      "table|preferences|CREATE TABLE preferences (key TEXT NOT NULL PRIMARY KEY, "
                      "type INTEGER NOT NULL CHECK(type >= 0 AND type < 6), scope INTEGER NOT "
                      "NULL CHECK(scope == 0 OR scope == 1 OR scope == 2), owner_package_uid "
                      "INTEGER, owner_package_name TEXT, default_value TEXT, migration INTEGER NOT "
                      "NULL DEFAULT 0, expires_at TEXT)",
                      "trigger|reap_orphaned_preferences|CREATE TRIGGER reap_orphaned_preferences "
                      "AFTER DELETE ON permissions WHEN NOT EXISTS (SELECT 1 FROM permissions "
                      "WHERE key = OLD.key) BEGIN DELETE FROM preferences WHERE key = OLD.key; "
                      "END",
              }),
              query("SELECT type, name, sql FROM main.sqlite_master WHERE type IN ('table', "
                    "'trigger', 'view') ORDER BY name"));
    EXPECT_EQ((std::vector<std::string>{
                      "table|listeners|CREATE TABLE listeners (listener_uuid INTEGER NOT NULL, "
                      "key TEXT NOT NULL, package_uid INTEGER NOT NULL, UNIQUE(key, package_uid, "
                      "listener_uuid) ON CONFLICT ABORT)"}),
              query("SELECT type, name, sql FROM mem.sqlite_master WHERE type IN ('table', "
                    "'trigger')"));
    EXPECT_EQ("", scalar("SELECT file FROM pragma_database_list WHERE name = 'mem'"));
    EXPECT_EQ("2", scalar("PRAGMA user_version"));
    EXPECT_EQ(2, mStore->getDatabaseUserVersion());

    // Pragmas: bounded cache, foreign keys for the cascades, and the journal that makes a
    // returned write survive a crash of the process.
    EXPECT_EQ("256", scalar("PRAGMA cache_size"));
    EXPECT_EQ("4096", scalar("PRAGMA page_size"));
    EXPECT_EQ("1", scalar("PRAGMA foreign_keys"));
    EXPECT_EQ("wal", scalar("PRAGMA main.journal_mode"));
    EXPECT_EQ("1", scalar("PRAGMA synchronous"));  // NORMAL

    // Every statement is prepared once, with its exact text.
    EXPECT_EQ(sorted(kExpectedSystemStatements), preparedStatements(systemDb()));
    sqlite3* user = userDb(3);
    EXPECT_EQ(sorted(kExpectedUserStatements), preparedStatements(user));
    EXPECT_EQ("wal", scalar("PRAGMA journal_mode", user));
    EXPECT_EQ("4096", scalar("PRAGMA page_size", user));
    EXPECT_EQ("256", scalar("PRAGMA cache_size", user));
    EXPECT_EQ((std::vector<std::string>{"CREATE TABLE preference_values (key TEXT NOT NULL "
                                        "PRIMARY KEY, current_value TEXT)"}),
              query("SELECT sql FROM sqlite_master WHERE type = 'table'", user));

    // Opening again changes nothing: same connection, same statements.
    sqlite3* before = systemDb();
    EXPECT_EQ(0, mStore->initialize());
    EXPECT_EQ(before, systemDb());
    EXPECT_EQ(sorted(kExpectedSystemStatements), preparedStatements(systemDb()));
    EXPECT_EQ(0, mStore->initializeUserDb(3));
    EXPECT_EQ(user, mStore->getDbForScope(Scope::User, 3));
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
    EXPECT_NE(std::string::npos, planOfPackageDelete(systemDb()).find("permissions_by_package"))
            << planOfPackageDelete(systemDb());
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
    EXPECT_EQ("1", scalar("PRAGMA foreign_keys"));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM pragma_foreign_key_check"));

    EXPECT_EQ(0, mStore->upgradeVersionFromV1ToV2());
    EXPECT_EQ(2, mStore->getDatabaseUserVersion());
    EXPECT_EQ("1", scalar("PRAGMA foreign_keys"));
    EXPECT_EQ((std::vector<std::string>{"theme|2|1|NULL|NULL|dark|NULL|0",
                                        "volume|0|0|1010123|com.example.app|5|NULL|0"}),
              query("SELECT * FROM preferences ORDER BY key"));

    // The upgraded store works as a new one: values, cascades and the reaping trigger.
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
    EXPECT_EQ(1, sqlite3_get_autocommit(systemDb()));
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
    EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::User, 5u));
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

TEST_F(StoreLifecycleTest, DatabaseChoiceByScope) {
    {
        LogCapture log;
        EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::User, std::nullopt));
        EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::Cross, std::nullopt));
        EXPECT_EQ(nullptr, mStore->getDbForScope(static_cast<Scope>(3), 0u));
        EXPECT_TRUE(hasLogLine(log.text(), 'E',
                               "Unable to get db for user scope as no user ID was provided."));
        EXPECT_TRUE(hasLogLine(log.text(), 'E', "Invalid Scope 3 provided to getDbForScope."));
    }
    EXPECT_NE(nullptr, mStore->getDbForScope(Scope::System, 4u));
    // A user that was never opened gets an empty record, which uninitializeUserDb then finds.
    EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::User, 7u));
    EXPECT_EQ(0, mStore->uninitializeUserDb(7));
    EXPECT_FALSE(fileExists("user7.db"));
    LogCapture log;
    EXPECT_EQ(-15, mStore->uninitializeUserDb(8));
    EXPECT_TRUE(
            hasLogLine(log.text(), 'E', "Could not find an existing database connection for: 8"));
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
    for (const char* table :
         {"packages", "preferences", "permissions", "preference_values", "mem.listeners"}) {
        EXPECT_EQ("0", scalar(std::string("SELECT count(*) FROM ") + table)) << table;
    }
    EXPECT_EQ("1", scalar("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'"));
    // Dropping the permissions table took its index along; the fresh table has it again.
    EXPECT_EQ("permissions_by_package|permissions",
              scalar("SELECT name, tbl_name FROM sqlite_master WHERE type = 'index' AND sql IS "
                     "NOT NULL"));
    EXPECT_EQ(sorted(kExpectedSystemStatements), preparedStatements(systemDb()));
    EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::User, 0u));
    EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::User, 10u));
    // The user files stay, without their table until they are opened again.
    EXPECT_EQ("0", scalar("SELECT count(*) FROM u.sqlite_master", [&] {
                  exec("ATTACH DATABASE '" + mDir.file("user10.db") + "' AS u");
                  return systemDb();
              }()));
    exec("DETACH DATABASE u");
    unsigned int nextId = 0;
    EXPECT_EQ(0, mStore->getNextlistenerUuid(nextId));
    EXPECT_EQ(1u, nextId);
}

TEST_F(StoreLifecycleTest, ClosingWritesEverythingBackAndReopeningFindsIt) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "theme", Scope::User, Type::String, true, "dark"));
    ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "volume", "3"));
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "theme", "light"));

    EXPECT_EQ(0, mStore->uninitialize());
    EXPECT_EQ(nullptr, systemDb());
    EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::User, 0u));
    EXPECT_FALSE(fileExists("system.db-wal"));  // checkpointed on close
    EXPECT_FALSE(fileExists("user0.db-wal"));

    reopenStore();
    EXPECT_EQ("3", read(std::nullopt, "volume"));
    EXPECT_EQ("light", read(0u, "theme"));
}

TEST_F(StoreLifecycleTest, BatchesAndRawQueries) {
    EXPECT_EQ(0, mStore->beginBatch());
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "1"));
    EXPECT_EQ(0, sqlite3_get_autocommit(systemDb()));
    {
        LogCapture log;
        EXPECT_EQ(-1, mStore->beginBatch());
        EXPECT_TRUE(hasLogLine(log.text(), 'E',
                               "Failed to begin batch mode transaction for system DB"));
    }
    EXPECT_EQ(0, mStore->commitBatch());
    EXPECT_EQ(1, sqlite3_get_autocommit(systemDb()));
    {
        LogCapture log;
        EXPECT_EQ(-1, mStore->commitBatch());
        EXPECT_TRUE(hasLogLine(log.text(), 'E', "Failed to commit batch operations for system DB"));
    }
    EXPECT_EQ("volume", scalar("SELECT key FROM preferences"));

    Telemetry::resetCounts();
    LogCapture log;
    EXPECT_EQ(-1, mStore->executeRawQuery("SELEC 1", systemDb(), Scope::System));
    const std::string details =
            "scope=System, query='SELEC 1', code='1', error='near \"SELEC\": syntax error'";
    EXPECT_TRUE(hasLogLine(log.text(), 'E', "Failed to execute raw query: " + details))
            << log.text();
    EXPECT_EQ(1u, Telemetry::count("executerawquery_error_sqlite3_exec:" + details));
    LogCapture nullDbLog;
    EXPECT_EQ(-3, mStore->executeRawQuery("SELECT 1", nullptr, Scope::User));
    EXPECT_TRUE(hasLogLine(nullDbLog.text(), 'E',
                           "Unable to execute raw query because DB (scope=User) is not "
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
    EXPECT_EQ(-3, mStore->dropSystemTables());
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
        EXPECT_EQ(-2, mStore->initializeUserDb(10)) << planted.name;
        EXPECT_TRUE(log.contains("Refusing to open " + mDir.file("user10.db") + ": " + path))
                << log.text();
        EXPECT_EQ(nullptr, mStore->getDbForScope(Scope::User, 10u));
        EXPECT_EQ("planted", readFile(planted.mode == 0 ? path + ".target" : path));
        EXPECT_EQ("dark", read(0u, "theme")) << "other users are served";
        unlink(path.c_str());
        unlink((path + ".target").c_str());
    }
    EXPECT_EQ(0, mStore->initializeUserDb(10));

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
    EXPECT_STREQ("NativeService",
                 Sqlite3PreferencesDb::domainToString(KeySourceDomain::NativeService));
    LogCapture log;
    EXPECT_STREQ("[unknown type]",
                 Sqlite3PreferencesDb::typeToString(PreferencesKeyInfo::Type::NoType));
    EXPECT_STREQ("Invalid Permissions",
                 Sqlite3PreferencesDb::permissionToString(
                         static_cast<PreferencesKeyInfo::PreferencePermission>(3)));
    EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                  {"Invalid type provided to typeToString: 6",
                                   "Unable to convert permissions 3 to string."}));
}

TEST(Sqlite3PreferencesDbTextsDeathTest, ScopeAndDomainOutsideTheirRangeAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Sqlite3PreferencesDb::scopeToString(
                         static_cast<PreferencesKeyInfo::PreferenceScope>(3)),
                 "lookup error");
    EXPECT_DEATH(Sqlite3PreferencesDb::domainToString(static_cast<KeySourceDomain>(3)),
                 "lookup error");
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
