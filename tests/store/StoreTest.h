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
        ASSERT_EQ(0, mStore->initialize());
    }
    void closeStore() { mStore.reset(); }
    void reopenStore() {
        closeStore();
        openStore();
    }

    sqlite3* systemDb() { return mStore->getDbForScope(Scope::System, std::nullopt); }
    // The user's connection, opening the user's database first.
    sqlite3* userDb(unsigned int userId) {
        EXPECT_EQ(0, mStore->initializeUserDb(userId));
        return mStore->getDbForScope(Scope::User, userId);
    }

    // Rows of `sql` on `db` (the system connection by default), columns joined with '|' and NULL
    // shown as "NULL". A failing statement fails the test.
    std::vector<std::string> query(const std::string& sql, sqlite3* db = nullptr) {
        if (db == nullptr) db = systemDb();
        std::vector<std::string> rows;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
            return rows;
        }
        int stepped;
        while ((stepped = sqlite3_step(statement)) == SQLITE_ROW) {
            std::string row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                if (i > 0) row += "|";
                const unsigned char* text = sqlite3_column_text(statement, i);
                row += text != nullptr ? reinterpret_cast<const char*>(text) : "NULL";
            }
            rows.push_back(row);
        }
        if (stepped != SQLITE_DONE) ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
        sqlite3_finalize(statement);
        return rows;
    }
    // The single value of a one-row, one-column query.
    std::string scalar(const std::string& sql, sqlite3* db = nullptr) {
        std::vector<std::string> rows = query(sql, db);
        return rows.size() == 1 ? rows[0] : "<" + std::to_string(rows.size()) + " rows>";
    }
    void exec(const std::string& sql, sqlite3* db = nullptr) {
        if (db == nullptr) db = systemDb();
        char* error = nullptr;
        if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << (error != nullptr ? error : "?");
        }
        sqlite3_free(error);
    }

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
        IPreferencesDb::PackageSet known;
        int32_t result = mStore->getAllPackages(known);
        if (result == 0 && known.count({uid, package}) == 0) {
            result = mStore->registerPackage(uid, package);
        }
        if (result == 0) result = registerKey(uid, package, key, scope, type, owner, defaultValue);
        if (result != 0) return result;
        return mStore->setPreferencePermission(key, uid, package, permission);
    }

    // The value the store reads for `key` in `userId` ("<none>" for none), expecting the read
    // to return `expected`; the second form with `currentUserId` as the current user.
    std::string read(const std::optional<unsigned int>& userId, const std::string& key,
                     int32_t expected = 0) {
        std::optional<std::string> value;
        EXPECT_EQ(expected, mStore->getPreferenceValue(userId, key, value)) << key;
        return value.value_or("<none>");
    }
    std::string read(const std::optional<unsigned int>& userId,
                     const std::optional<unsigned int>& currentUserId, const std::string& key,
                     int32_t expected = 0) {
        std::optional<std::string> value;
        EXPECT_EQ(expected, mStore->getPreferenceValue(userId, currentUserId, key, value)) << key;
        return value.value_or("<none>");
    }

    bool fileExists(const std::string& name) const {
        return access(mDir.file(name).c_str(), F_OK) == 0;
    }

    TempDir mDir;
    std::unique_ptr<DirectoryPreferencesDb> mStore;
};

}  // namespace Halo::OS::testing
