#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/DirectoryPreferencesDb.h"
#include "support/TempDir.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS::testing {

// A store rooted in a fresh temporary directory, opened before each test. Only one store is open
// at a time: closing a store shuts SQLite down for the whole process.
class StoreTest : public ::testing::Test {
protected:
    using Type = PreferencesKeyInfo::Type;
    using Scope = PreferencesKeyInfo::PreferenceScope;
    using Permission = PreferencesKeyInfo::PreferencePermission;

    static constexpr unsigned int kAppUid = 1010123;
    static constexpr unsigned int kOtherUid = 1010456;
    static constexpr const char* kApp = "com.example.app";
    static constexpr const char* kOther = "com.example.other";

    void SetUp() override {
        Telemetry::resetCounts();
        openStore();
    }
    void TearDown() override { mStore.reset(); }

    void openStore() {
        mStore = std::make_unique<DirectoryPreferencesDb>(mDir.path());
        ASSERT_EQ(0, initializeCapturing(*mStore));
    }
    // initialize(), remembering the connections the store opens meanwhile (the first one is its
    // system connection) through an SQLite auto-extension, which runs for every connection the
    // process opens. Closing a store shuts SQLite down, which removes the extension again.
    static int32_t initializeCapturing(IPreferencesDb& store) {
        sCaptured = nullptr;
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(&StoreTest::capture));
        const int32_t result = store.initialize();
        sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(&StoreTest::capture));
        return result;
    }
    // The store's own system connection, for tests that inject faults into its statements.
    static sqlite3* storeConnection() { return sCaptured; }
    // Runs `sql` on the store's own system connection, where a schema change is seen when the
    // store next prepares a statement rather than when it next steps one.
    static void execOnStore(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(sCaptured, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << (error != nullptr ? error : "?");
        }
        sqlite3_free(error);
    }
    void closeStore() { mStore.reset(); }
    void reopenStore() {
        closeStore();
        openStore();
    }

    static int capture(sqlite3* db, const char** /*error*/, const sqlite3_api_routines* /*api*/) {
        if (sCaptured == nullptr) sCaptured = db;
        return SQLITE_OK;
    }

    // Rows of `sql` (several statements allowed) run on the database file `file` of the store's
    // directory through a connection of the test's own, opened and closed for each call, so that
    // none is open when the store shuts SQLite down. A file that does not exist has no rows (and
    // is not created). Columns are joined with '|', NULL shown as "NULL"; a failing statement
    // fails the test. The store's listener rows live in its own connection's memory: tests see
    // them through the store.
    std::vector<std::string> query(const std::string& sql, const std::string& file = "system.db") {
        std::vector<std::string> rows;
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(mDir.file(file).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) !=
            SQLITE_OK) {
            sqlite3_close(db);
            return rows;
        }
        for (const char* next = sql.c_str(); *next != '\0';) {
            sqlite3_stmt* statement = nullptr;
            if (sqlite3_prepare_v2(db, next, -1, &statement, &next) != SQLITE_OK) {
                ADD_FAILURE() << next << ": " << sqlite3_errmsg(db);
                break;
            }
            int stepped = SQLITE_DONE;
            while (statement != nullptr && (stepped = sqlite3_step(statement)) == SQLITE_ROW) {
                std::string row;
                for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                    const unsigned char* text = sqlite3_column_text(statement, i);
                    row += (i > 0 ? "|" : "") +
                           std::string(text != nullptr ? reinterpret_cast<const char*>(text)
                                                       : "NULL");
                }
                rows.push_back(row);
            }
            if (stepped != SQLITE_DONE) ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
            sqlite3_finalize(statement);
        }
        sqlite3_close(db);
        return rows;
    }
    // The single value of a one-row, one-column query.
    std::string scalar(const std::string& sql, const std::string& file = "system.db") {
        std::vector<std::string> rows = query(sql, file);
        return rows.size() == 1 ? rows[0] : "<" + std::to_string(rows.size()) + " rows>";
    }
    void exec(const std::string& sql, const std::string& file = "system.db") { query(sql, file); }

    // Registers `key` as `uid`/`package` (its owner when `owner`) without touching packages or
    // permissions.
    int32_t registerKey(unsigned int uid, const std::string& package, const std::string& key,
                        Scope scope, Type type, bool owner, const std::optional<std::string>& def) {
        return mStore->registerPreference(
                uid, package, key, scope, type,
                owner ? std::optional<unsigned int>(uid) : std::nullopt,
                owner ? std::optional<std::string>(package) : std::nullopt, def);
    }
    // Registers the package (if new: registering a known package marks its keys), the key and
    // the package's permission on it, as the key manager does for one schema entry. Returns the
    // first non-zero store result.
    int32_t declare(unsigned int uid, const std::string& package, const std::string& key,
                    Scope scope, Type type, bool owner, const std::string& defaultValue,
                    Permission permission = Permission::ReadWrite) {
        int32_t result = 0;
        if (scalar("SELECT count(*) FROM packages WHERE package_uid = " + std::to_string(uid) +
                   " AND package_name = '" + package + "'") == "0") {
            result = mStore->registerPackage(uid, package);
        }
        if (result == 0) result = registerKey(uid, package, key, scope, type, owner, defaultValue);
        if (result != 0) return result;
        return mStore->setPreferencePermission(key, uid, package, permission);
    }

    // The value the store reads for `key` in `userId` ("<none>" for none), expecting the read
    // to return `expected`; the second form with `callerUserId` as the caller's user.
    std::string read(const std::optional<unsigned int>& userId, const std::string& key,
                     int32_t expected = 0) {
        std::optional<std::string> value;
        EXPECT_EQ(expected, mStore->getPreferenceValue(userId, key, value)) << key;
        return value.value_or("<none>");
    }
    std::string read(const std::optional<unsigned int>& userId,
                     const std::optional<unsigned int>& callerUserId, const std::string& key,
                     int32_t expected = 0) {
        std::optional<std::string> value;
        EXPECT_EQ(expected, mStore->getPreferenceValue(userId, callerUserId, key, value)) << key;
        return value.value_or("<none>");
    }

    // The keys whose expiry time has passed, sorted.
    std::vector<std::string> expiredKeys() {
        return query(
                "SELECT key FROM preferences WHERE expires_at <= datetime('now') ORDER BY key");
    }
    // The database file of an Android user.
    static std::string userDbFile(unsigned int userId) {
        return "user" + std::to_string(userId) + ".db";
    }

    bool fileExists(const std::string& name) const {
        return access(mDir.file(name).c_str(), F_OK) == 0;
    }

    TempDir mDir;
    static inline sqlite3* sCaptured = nullptr;
    std::unique_ptr<DirectoryPreferencesDb> mStore;
};

}  // namespace Halo::OS::testing
