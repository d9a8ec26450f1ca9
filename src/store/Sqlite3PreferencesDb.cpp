#define LOG_TAG "PreferencesService"
#include <log/log.h>

#include "store/Sqlite3PreferencesDb.h"
#include "store/StoreTexts.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <regex>
#include <unordered_set>

#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using PreferenceScope = PreferencesKeyInfo::PreferenceScope;

constexpr const char* kDatabaseDirectory = "/data/nimbus/preferences/";
constexpr const char* kSystemDbName = "system";
constexpr const char* kUserDbPrefix = "user";
constexpr const char* kDbExtension = ".db";
// Files SQLite keeps beside a database while it is open or after a crash.
// Names of user database files; group 1 is the user id. Compiled once, at load time.
const std::regex kUserDbFilePattern("^user([0-9]+)\\.db$", std::regex::ECMAScript);

constexpr const char* kQueryCreatePackagesTable =
        "CREATE TABLE IF NOT EXISTS packages (package_uid INTEGER NOT NULL, package_name TEXT NOT "
        "NULL PRIMARY KEY, UNIQUE(package_name, package_uid) ON CONFLICT ABORT)";
constexpr const char* kQueryCreatePreferencesMapTable =
        "CREATE TABLE IF NOT EXISTS preferences (key TEXT NOT NULL PRIMARY KEY, type INTEGER NOT "
        "NULL CHECK(type >= 0 AND type < 6), scope INTEGER NOT NULL CHECK(scope == 0 OR scope == 1 "
        "OR scope == 2), owner_package_uid INTEGER, owner_package_name TEXT, default_value TEXT, "
        "migration INTEGER NOT NULL DEFAULT 0, expires_at TEXT)";
constexpr const char* kQueryCreatePermissionsTable =
        "CREATE TABLE IF NOT EXISTS permissions (key TEXT NOT NULL REFERENCES preferences(key) ON "
        "DELETE CASCADE, package_uid INTEGER, package_name TEXT, permission INTEGER NOT NULL "
        "CHECK(permission >= 0 AND permission <= 3), UNIQUE(key, package_name, package_uid) ON "
        "CONFLICT ABORT, FOREIGN KEY(package_name, package_uid) REFERENCES packages(package_name, "
        "package_uid) ON DELETE CASCADE)";
constexpr const char* kQueryCreateValuesTable =
        "CREATE TABLE IF NOT EXISTS preference_values (key TEXT NOT NULL PRIMARY KEY REFERENCES "
        "preferences(key) ON DELETE CASCADE, current_value TEXT)";
constexpr const char* kQueryCreateListenersTable =
        "CREATE TABLE IF NOT EXISTS mem.listeners (listener_uuid INTEGER NOT NULL, key TEXT NOT "
        "NULL, package_uid INTEGER NOT NULL, UNIQUE(key, package_uid, listener_uuid) ON CONFLICT "
        "ABORT)";
constexpr const char* kQueryCreateReapOrphanedPreferencesTrigger =
        "CREATE TRIGGER IF NOT EXISTS reap_orphaned_preferences AFTER DELETE ON permissions WHEN "
        "NOT EXISTS (SELECT 1 FROM permissions WHERE key = OLD.key) BEGIN DELETE FROM preferences "
        "WHERE key = OLD.key; END";
// Permission rows by package: deleting a package cascades to its rows, clearing a package's
// permissions deletes them, and re-registering a package looks for its unexpired keys. Without it
// each of these scans the whole table.
constexpr const char* kQueryCreatePermissionsByPackageIndex =
        "CREATE INDEX IF NOT EXISTS permissions_by_package ON permissions(package_name, "
        "package_uid)";
constexpr const char* kQueryDropReapOrphanedPreferencesTrigger =
        "DROP TRIGGER IF EXISTS reap_orphaned_preferences";
constexpr const char* kQueryCreateUserValuesTable =
        "CREATE TABLE IF NOT EXISTS preference_values (key TEXT NOT NULL PRIMARY KEY, "
        "current_value TEXT)";
constexpr const char* kQueryCheckIfTableIsEmpty =
        "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name != 'android_metadata' "
        "AND name != 'sqlite_sequence'";
constexpr const char* kQueryAttachInMemDb = "ATTACH DATABASE ':memory:' as mem";
constexpr const char* kQueryDropListeners = "DROP TABLE IF EXISTS listeners";
constexpr const char* kQueryDropSystemTables[] = {
        "DROP TABLE IF EXISTS preference_values", "DROP TABLE IF EXISTS permissions",
        "DROP TABLE IF EXISTS listeners",         "DROP TABLE IF EXISTS packages",
        "DROP TABLE IF EXISTS preferences",
};
constexpr const char* kQueryDropUserValuesTable = "DROP TABLE IF EXISTS preference_values";
constexpr const char* kQueryCacheSize = "PRAGMA cache_size = 256";
constexpr const char* kQueryPageSize = "PRAGMA page_size = 4096";
constexpr const char* kQueryJournalModeWal = "PRAGMA main.journal_mode = WAL";
constexpr const char* kQuerySynchronousNormal = "PRAGMA synchronous = NORMAL";
constexpr const char* kQueryForeignKeysOn = "PRAGMA foreign_keys = ON";
constexpr const char* kQueryUpgradeForeignKeysOff = "PRAGMA foreign_keys=OFF";
constexpr const char* kQueryUpgradeForeignKeysOn = "PRAGMA foreign_keys=ON";
constexpr const char* kQueryStampVersion2 = "PRAGMA user_version=2";
constexpr const char* kQueryUpgradeV0ToV1 =
        "BEGIN;CREATE TABLE IF NOT EXISTS preferences_bk (key TEXT NOT NULL PRIMARY KEY, type "
        "INTEGER NOT NULL CHECK(type >= 0 AND type < 6), scope INTEGER NOT NULL CHECK(scope == 0 "
        "OR "
        "scope == 1 OR scope == 2), owner_package_uid INTEGER, owner_package_name TEXT, "
        "default_value TEXT, expires_at TEXT);INSERT INTO preferences_bk SELECT * FROM "
        "preferences;DROP TABLE preferences;ALTER TABLE preferences_bk RENAME TO "
        "preferences;COMMIT";
constexpr const char* kQueryUpgradeV1ToV2 =
        "BEGIN;ALTER TABLE preferences ADD migration INTEGER NOT NULL DEFAULT 0;COMMIT";
constexpr const char* kQueryBegin = "BEGIN";
constexpr const char* kQueryCommit = "COMMIT";

}  // namespace

// The statements of the system database and of a user database, in preparation order, each text
// beside the enumerator it is prepared for. The texts are kept exactly as they are: the SET clause
// of "clear package ownership" joins its assignments with AND, so it only sets owner_package_uid
// (to NULL) and leaves owner_package_name alone, which unregistering relies on.
struct Sqlite3PreferencesDb::StatementTexts {
    struct System {
        SystemStatement id;
        const char* sql;
    };
    struct Value {
        ValueStatement id;
        const char* sql;
    };

    static constexpr System kSystem[] = {
            {kForeignKeys, "PRAGMA foreign_keys"},
            {kListPackages, "SELECT package_name, package_uid FROM packages"},
            {kInsertPackage, "INSERT INTO packages (package_uid, package_name) VALUES (?, ?)"},
            {kDeletePackage, "DELETE FROM packages WHERE package_uid = ? AND package_name = ?"},
            {kClearPackageOwnership,
             "UPDATE preferences SET owner_package_uid = NULL AND owner_package_name = NULL WHERE "
             "owner_package_uid = ? AND owner_package_name = ?"},
            {kExpireReferencedOnlyByPackage,
             "UPDATE preferences SET expires_at = datetime('now') WHERE   KEY IN (SELECT DISTINCT "
             "key "
             "FROM permissions WHERE     package_uid = ? AND package_name = ?) AND   KEY NOT IN "
             "(SELECT "
             "DISTINCT key FROM permissions WHERE     package_uid != ? AND package_name != ?)"},
            {kInsertPreference,
             "INSERT INTO preferences (key, type, scope, owner_package_uid, owner_package_name, "
             "default_value) VALUES (?, ?, ?, ?, ?, ?)"},
            {kExpireNotReferencedByService,
             "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key NOT IN (SELECT "
             "DISTINCT "
             "key FROM permissions WHERE    package_name LIKE 'nimbus.preferences.service%' )"},
            {kExpireOrphaned,
             "UPDATE preferences SET expires_at = datetime('now', ?) WHERE   (NOT EXISTS (SELECT "
             "key "
             "FROM permissions WHERE permissions.key = preferences.key LIMIT 1)      AND (        "
             "(SELECT owner_package_uid FROM preferences WHERE owner_package_uid IS NULL)        "
             "OR     "
             "   (NOT EXISTS (SELECT package_uid, package_name FROM packages WHERE                 "
             "    "
             "packages.package_uid = preferences.owner_package_uid AND                     "
             "packages.package_name = preferences.owner_package_name                     LIMIT "
             "1))))"},
            {kClearExpiration, "UPDATE preferences SET expires_at = NULL WHERE key = ?"},
            {kListExpired,
             "SELECT key, scope FROM preferences WHERE strftime('%s', 'now') - strftime('%s', "
             "expires_at) >= 0"},
            {kDeleteExpired,
             "DELETE FROM preferences WHERE strftime('%s', 'now') - strftime('%s', expires_at) >= "
             "0"},
            {kGetScope, "SELECT scope FROM preferences WHERE key = ?"},
            {kSetScope, "UPDATE preferences SET scope = ? WHERE key = ?"},
            {kGetType, "SELECT type FROM preferences WHERE key = ?"},
            {kSetType, "UPDATE preferences SET type = ? WHERE key = ?"},
            {kInsertPermission,
             "INSERT INTO permissions (key, package_uid, package_name, permission) VALUES (?, ?, "
             "?, ?)"},
            {kGetPermission,
             "SELECT MAX(permission) FROM permissions WHERE key = ? AND package_uid = ?"},
            {kUpdatePermission,
             "UPDATE permissions SET permission = ? WHERE key = ? AND package_uid = ? AND "
             "package_name "
             "= ?"},
            {kClearPackagePermissions,
             "DELETE FROM permissions WHERE package_uid = ? AND package_name = ? AND package_name "
             "NOT "
             "LIKE 'nimbus.preferences.service%'"},
            {kGetOwner,
             "SELECT owner_package_uid, owner_package_name FROM preferences WHERE key = ?"},
            {kSetOwner,
             "UPDATE preferences SET owner_package_uid = ?, owner_package_name = ? WHERE key = ?"},
            {kClearOwnerLegacy,
             "UPDATE preferences SET owner_package_uid = NULL, owner_package_name = NULL WHERE "
             "owner_package_name LIKE 'nimbus.preferences.service%'"},
            {kClearOwnerNativeService,
             "UPDATE preferences SET owner_package_uid = NULL, owner_package_name = NULL WHERE "
             "owner_package_name LIKE 'nimbus.preferences.native%'"},
            {kClearOwnerApplication,
             "UPDATE preferences SET owner_package_uid = NULL, owner_package_name = NULL WHERE "
             "owner_package_name NOT LIKE 'nimbus.preferences.service%'AND owner_package_name NOT "
             "LIKE "
             "'nimbus.preferences.native%'"},
            {kMaxListenerId, "SELECT MAX(listener_uuid) FROM mem.listeners"},
            {kInsertListener,
             "INSERT INTO mem.listeners (listener_uuid, key, package_uid) VALUES (?, ?, ?)"},
            {kDeleteListener,
             "DELETE FROM mem.listeners WHERE package_uid = ? AND listener_uuid = ?"},
            {kListenersOfKey, "SELECT package_uid, listener_uuid FROM mem.listeners WHERE key = ?"},
            {kListenerIdsOfPackage,
             "SELECT listener_uuid FROM mem.listeners WHERE package_uid = ?"},
            {kDeleteDanglingListeners,
             "DELETE from mem.listeners WHERE key NOT IN (SELECT key from preferences)"},
            {kGetDefault, "SELECT default_value FROM preferences WHERE key = ?"},
            {kSetDefault, "UPDATE preferences SET default_value = ? WHERE key = ?"},
            {kInsertValueRow, "INSERT INTO preference_values (key) VALUES (?)"},
            {kGetCurrentValue, "SELECT current_value FROM preference_values WHERE key = ?"},
            {kUpdateCurrentValue, "UPDATE preference_values SET current_value = ? WHERE key = ?"},
            {kClearCurrentValue, "DELETE FROM preference_values WHERE key = ?"},
            {kDeleteValueRow, "DELETE FROM preference_values WHERE key = ?"},
            {kDumpPackages, "SELECT package_uid, package_name FROM packages"},
            {kDumpPermissions, "SELECT key, package_uid, permission FROM permissions"},
            {kDumpValues, "SELECT key, current_value FROM preference_values"},
            {kDumpListeners, "SELECT listener_uuid, key, package_uid FROM mem.listeners"},
            {kExpireLegacy,
             "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key IN (SELECT "
             "DISTINCT key "
             "FROM permissions WHERE    package_name LIKE 'nimbus.preferences.service%' )"},
            {kExpireNativeService,
             "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key IN (SELECT "
             "DISTINCT key "
             "FROM permissions WHERE    package_name LIKE 'nimbus.preferences.native%' )"},
            {kExpireApplication,
             "UPDATE preferences SET expires_at = datetime('now', ?) WHERE  key NOT IN (SELECT "
             "DISTINCT "
             "key FROM permissions WHERE    package_name LIKE 'nimbus.preferences.service%'    OR "
             "package_name LIKE 'nimbus.preferences.native%' )"},
            {kDowngradeCrossScope,
             "UPDATE preferences SET scope = 1 WHERE scope = 2 AND (owner_package_name NOT LIKE "
             "'nimbus.preferences.service%' OR owner_package_name IS NULL)"},
            {kUserVersion, "SELECT * FROM pragma_user_version LIMIT 1"},
            {kHasMigrationColumn,
             "SELECT name FROM pragma_table_info('preferences') WHERE name = 'migration'"},
            // The store's own statements, not of the fixed set above.
            // one key on which the package holds a permission and that has not expired (the test of
            // "list expired keys", negated; an unreadable expiry counts as not expired)
            {kFindUnexpiredKeyOfPackage,
             "SELECT 1 FROM permissions JOIN preferences ON preferences.key = permissions.key "
             "WHERE "
             "permissions.package_uid = ? AND permissions.package_name = ? AND NOT "
             "coalesce(strftime('%s', 'now') - strftime('%s', preferences.expires_at) >= 0, 0) "
             "LIMIT 1"},
            // every key's definition, and one key's (the owner's name only counts with an owner
            // uid: clearing a package's ownership leaves the name behind)
            {kListDefinitions,
             "SELECT key, type, scope, CASE WHEN owner_package_uid IS NULL THEN NULL ELSE "
             "owner_package_name END, default_value FROM preferences ORDER BY key"},
            {kGetDefinition,
             "SELECT key, type, scope, CASE WHEN owner_package_uid IS NULL THEN NULL ELSE "
             "owner_package_name END, default_value FROM preferences WHERE key = ?"},
    };
    static constexpr Value kUser[] = {
            {kValueInsertRow, "INSERT INTO preference_values (key) VALUES (?)"},
            {kValueGetCurrent, "SELECT current_value FROM preference_values WHERE key = ?"},
            {kValueUpdateCurrent, "UPDATE preference_values SET current_value = ? WHERE key = ?"},
            {kValueClearCurrent, "DELETE FROM preference_values WHERE key = ?"},
            {kValueDeleteRow, "DELETE FROM preference_values WHERE key = ?"},
            {kValueDump, "SELECT key, current_value FROM preference_values"},
    };

    // Every enumerator has its text, in enumeration order: a missing, extra or misplaced entry
    // does not compile.
    template <typename Entry, size_t kCount>
    static constexpr bool inOrder(const Entry (&entries)[kCount]) {
        for (size_t i = 0; i < kCount; ++i) {
            if (static_cast<size_t>(entries[i].id) != i) return false;
        }
        return true;
    }
    // Compiled for its checks only (in a member function, where the class is complete).
    static void checkTables() {
        static_assert(std::size(kSystem) == kSystemStatementCount && inOrder(kSystem));
        static_assert(std::size(kUser) == kValueStatementCount && inOrder(kUser));
    }
};

namespace {

// Rolls back a transaction that a failed multi-statement text began and left open.
void rollBackLeftOpenTransaction(sqlite3* db, bool wasAutocommit) {
    if (db != nullptr && wasAutocommit && sqlite3_get_autocommit(db) == 0) {
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

}  // namespace

Sqlite3PreferencesDb::Sqlite3PreferencesDb() = default;

Sqlite3PreferencesDb::~Sqlite3PreferencesDb() {
    if (uninitialize() != StoreStatus::Ok) ALOGE("Unable to uninitialize DB during destruction.");
}

// ---- Paths ----

const char* Sqlite3PreferencesDb::getQueryCreatePreferencesMapTable() const {
    return kQueryCreatePreferencesMapTable;
}

std::string Sqlite3PreferencesDb::getUserDbPath(unsigned int userId) const {
    return std::string(kDatabaseDirectory) + kUserDbPrefix + std::to_string(userId) + kDbExtension;
}

bool Sqlite3PreferencesDb::mayOpenDatabase(const std::string& /*path*/) const {
    return true;
}

std::string Sqlite3PreferencesDb::getSystemDbPath() const {
    return std::string(kDatabaseDirectory) + kSystemDbName + kDbExtension;
}

bool Sqlite3PreferencesDb::getUserIdsForExistingDbs(std::vector<unsigned int>& userIds) {
    return getUserIdsInDirectory(kDatabaseDirectory, userIds);
}

bool Sqlite3PreferencesDb::getUserIdsOfDbsForKey(std::vector<unsigned int>& userIds) {
    if (!mInBatch) return getUserIdsForExistingDbs(userIds);
    if (!mBatchUserIds.has_value()) {
        std::vector<unsigned int> listed;
        if (!getUserIdsForExistingDbs(listed)) return false;
        mBatchUserIds = std::move(listed);
    }
    userIds.insert(userIds.end(), mBatchUserIds->begin(), mBatchUserIds->end());
    return true;
}

bool Sqlite3PreferencesDb::getUserIdsInDirectory(const std::string& directory,
                                                 std::vector<unsigned int>& userIds) {
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) {
        ALOGE("Unable to get user IDs for existing DBs: failed to open directory.");
        return false;
    }
    while (const dirent* entry = readdir(dir)) {
        std::cmatch match;
        if (!std::regex_search(entry->d_name, match, kUserDbFilePattern)) continue;
        errno = 0;
        const unsigned long long id = strtoull(match[1].first, nullptr, 10);
        // A number that is not a 32-bit user id cannot name an Android user's database.
        if (errno == ERANGE || id > UINT_MAX) {
            ALOGW("Ignoring database file %s: user id out of range.", entry->d_name);
            continue;
        }
        userIds.push_back(static_cast<unsigned int>(id));
    }
    closedir(dir);
    return true;
}

// ---- Choosing a database and running SQL ----

Sqlite3PreferencesDb::UserDb& Sqlite3PreferencesDb::userDbRecord(unsigned int userId) {
    std::unique_ptr<UserDb>& record = mUserDbs[userId];
    if (record == nullptr) record = std::make_unique<UserDb>();
    return *record;
}

sqlite3* Sqlite3PreferencesDb::getDbForScope(PreferenceScope scope,
                                             const std::optional<unsigned int>& userId) {
    switch (scope) {
        case PreferenceScope::System:
            return mSystemDb != nullptr ? mSystemDb->db : nullptr;
        case PreferenceScope::User:
        case PreferenceScope::Cross:
            if (!userId.has_value()) {
                ALOGE("Unable to get db for user scope as no user ID was provided.");
                return nullptr;
            }
            return userDbRecord(*userId).db;
    }
    ALOGE("Invalid Scope %u provided to getDbForScope.", static_cast<unsigned int>(scope));
    return nullptr;
}

sqlite3_stmt* Sqlite3PreferencesDb::systemStatement(SystemStatement statement) const {
    return mSystemDb != nullptr ? mSystemDb->statements[statement] : nullptr;
}

sqlite3_stmt* Sqlite3PreferencesDb::valueStatement(ValueStatement role, PreferenceScope scope,
                                                   const std::optional<unsigned int>& userId) {
    static constexpr SystemStatement kSystemRoles[kValueStatementCount] = {
            kInsertValueRow,    kGetCurrentValue, kUpdateCurrentValue,
            kClearCurrentValue, kDeleteValueRow,  kDumpValues,
    };
    switch (scope) {
        case PreferenceScope::System:
            return systemStatement(kSystemRoles[role]);
        case PreferenceScope::User:
        case PreferenceScope::Cross:
            if (!userId.has_value()) return nullptr;
            return userDbRecord(*userId).statements[role];
    }
    return nullptr;
}

int32_t Sqlite3PreferencesDb::executeRawQuery(const char* sql, sqlite3* db,
                                              PreferenceScope scopeForLogs) {
    logRawQuery(scopeForLogs, sql);
    if (db == nullptr) {
        ALOGE("Unable to execute raw query because DB (scope=%s) is not initialized.",
              scopeToString(scopeForLogs));
        return StoreStatus::NotOpen;
    }
    char* error = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string details = std::string("scope=") + scopeToString(scopeForLogs) +
                                    ", query='" + sql + "', code='" +
                                    std::to_string(sqlite3_extended_errcode(db)) + "', error='" +
                                    (error != nullptr ? error : "") + "'";
        ALOGE("Failed to execute raw query: %s", details.c_str());
        Telemetry::report("executerawquery_error_sqlite3_exec:" + details);
        sqlite3_free(error);
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

bool Sqlite3PreferencesDb::resetPreparedStatement(sqlite3_stmt* statement) {
    if (statement == nullptr) return true;
    sqlite3_reset(statement);
    if (sqlite3_clear_bindings(statement) != SQLITE_OK) {
        ALOGE("Unable to clear statement bindings.");
        return false;
    }
    return true;
}

int32_t Sqlite3PreferencesDb::resetPreparedStatements() {
    if (mSystemDb != nullptr) {
        for (sqlite3_stmt* statement : mSystemDb->statements) {
            if (!resetPreparedStatement(statement)) return StoreStatus::CreateFailed;
        }
    }
    for (auto& [userId, record] : mUserDbs) {
        for (sqlite3_stmt* statement : record->statements) {
            if (!resetPreparedStatement(statement)) return StoreStatus::CreateFailed;
        }
    }
    return StoreStatus::Ok;
}

int Sqlite3PreferencesDb::step(sqlite3_stmt* statement) {
    logPreparedStatementQuery(statement);
    return sqlite3_step(statement);
}

Sqlite3PreferencesDb::Query::~Query() {
    if (mStatement == nullptr) return;
    sqlite3_reset(mStatement);
    sqlite3_clear_bindings(mStatement);
}

int32_t Sqlite3PreferencesDb::Query::write() {
    if (!mBuilt) return StoreStatus::Failed;
    if (step() == SQLITE_DONE) return StoreStatus::Ok;
    logFailedStep();
    return StoreStatus::Failed;
}

int32_t Sqlite3PreferencesDb::Query::writeValue() {
    if (!mBuilt) return StoreStatus::Failed;
    if (stepValue() == SQLITE_DONE) return StoreStatus::Ok;
    logFailedStep();
    return StoreStatus::Failed;
}

void Sqlite3PreferencesDb::Query::logFailedStep() {
    mStore.logFailureToExecutePreparedStatement(mStatement, mScope, mUserId);
}

sqlite3* Sqlite3PreferencesDb::metadataDb() const {
    if (mSystemDb == nullptr || mSystemDb->state != DbState::Ready) return nullptr;
    return mSystemDb->db;
}

PreferencesValueCache* Sqlite3PreferencesDb::valueCache(PreferenceScope scope,
                                                        const std::optional<unsigned int>& userId) {
    if (scope == PreferenceScope::System) {
        sqlite3* db = metadataDb();
        const std::optional<uint64_t> commits = mMetadata.commitsOf(db);
        if (!commits.has_value() || !mSystemValues.use(db, *commits)) return nullptr;
        return &mSystemValues;
    }
    if (!userId.has_value()) return nullptr;
    auto found = mUserDbs.find(*userId);
    if (found == mUserDbs.end() || found->second == nullptr) return nullptr;
    UserDb& record = *found->second;
    if (record.state != DbState::Ready || !record.values.use(record.db, record.commits)) {
        return nullptr;
    }
    return &record.values;
}

int Sqlite3PreferencesDb::countCommit(void* record) {
    ++static_cast<UserDb*>(record)->commits;
    return 0;
}

// The values table has no trigger and no table refers to it, so a write of values alone leaves
// key metadata as it was. The row counts check that: anything a trigger or cascade changed would
// count in the connection's total but not in the statement's own changes.
int Sqlite3PreferencesDb::stepValueWrite(sqlite3_stmt* statement, PreferenceScope scope) {
    sqlite3* db = scope == PreferenceScope::System ? metadataDb() : nullptr;
    const std::optional<uint64_t> version = mMetadata.currentVersion(db);
    if (!version.has_value()) return step(statement);
    const sqlite3_int64 totalBefore = sqlite3_total_changes64(db);
    const int result = step(statement);
    if (sqlite3_total_changes64(db) - totalBefore == sqlite3_changes64(db)) {
        mMetadata.keepAcross(db, *version);
    } else {
        mMetadata.clear();
    }
    return result;
}

int Sqlite3PreferencesDb::changedRows(PreferenceScope scope,
                                      const std::optional<unsigned int>& userId) {
    sqlite3* db = getDbForScope(scope, userId);
    return db != nullptr ? sqlite3_changes(db) : 0;
}

// ---- System database ----

int32_t Sqlite3PreferencesDb::initialize() {
    return initializeSystemDb();
}

void Sqlite3PreferencesDb::closeHalfOpenSystemDb() {
    mMetadata.detach();
    mSystemValues.clear();
    mListenerIds.clear();
    if (mSystemDb == nullptr || mSystemDb->db == nullptr) return;
    uninitializePreparedStatementsForSystemDb();
    sqlite3_close_v2(mSystemDb->db);
    mSystemDb->db = nullptr;
}

int32_t Sqlite3PreferencesDb::initializeSystemDb() {
    if (mSystemDb != nullptr && mSystemDb->state == DbState::Ready) return StoreStatus::Ok;
    // A connection left open by a failed attempt would otherwise leak with its record.
    closeHalfOpenSystemDb();
    mSystemDb = std::make_unique<SystemDb>();
    mSystemDb->state = DbState::Opening;

    const std::string path = getSystemDbPath();
    if (!mayOpenDatabase(path) || sqlite3_open(path.c_str(), &mSystemDb->db) != SQLITE_OK) {
        ALOGE("Failed to open db");
        Telemetry::report("systemdbinit_error");
        // The handle stays with the record (state Opening): later queries on it fail as queries
        // and report their error, and the next attempt or uninitialize() closes it.
        return StoreStatus::OpenFailed;
    }
    mMetadata.attach(mSystemDb->db);
    mSystemValues.clear();
    int32_t result = initializeInMemDb();
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to initalize in memory DB.");
        Telemetry::report("systemdbinit_error_attach_in_mem_db");
        return result;
    }
    if (configureSystemCache() != StoreStatus::Ok) {
        ALOGE("Unable to configure cache for system DB.");
        Telemetry::report("systemdbinit_error_cache");
    }
    configureDurability(mSystemDb->db, PreferenceScope::System, std::nullopt);
    result = createSystemTables();
    if (result != StoreStatus::Ok) {
        ALOGE("Failed to create system DB tables.");
        Telemetry::report("systemdbinit_error_tables_creation");
        return result;
    }
    createSystemIndexes();
    result = initializePreparedStatementsForSystemDb();
    if (result != StoreStatus::Ok) return result;
    result = configureForeignKeys();
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to enable foreign keys. Cascade deletion would fail, preventing cleanup of "
              "orphaned data.");
        Telemetry::report("systemdbinit_error_foreignkeys");
        return result;
    }
    mSystemDb->state = DbState::Ready;
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::initializeInMemDb() {
    const int32_t result =
            executeRawQuery(kQueryAttachInMemDb, mSystemDb->db, PreferenceScope::System);
    if (result != StoreStatus::Ok) {
        ALOGE("Failed to create in memory database");
        Telemetry::report("systemdbinit_error_attach_in_mem_db");
    }
    return result;
}

int32_t Sqlite3PreferencesDb::configureSystemCache() {
    sqlite3* db = mSystemDb->db;
    if (executeRawQuery(kQueryCacheSize, db, PreferenceScope::System) != StoreStatus::Ok ||
        executeRawQuery(kQueryPageSize, db, PreferenceScope::System) != StoreStatus::Ok) {
        ALOGE("Unable to configure database cache size of system database. Memory usage "
              "increase.");
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

// Durability: a value write that returned 0 must survive a crash of the service process right
// after it (not a power loss). Whatever the synchronous setting, SQLite has handed a committed
// transaction to the kernel with write() before the commit returns, and the kernel keeps it when
// the process dies, so no fsync is needed for that guarantee. The cheapest way to commit is then
// write-ahead logging with synchronous=NORMAL: a commit is one sequential append to the -wal file
// and no fsync, where a rollback journal creates, writes and deletes a journal file per commit.
// The -wal file is synced only when it is checkpointed into the database, which keeps the
// database uncorrupted even after a power loss (the latest commits may then be lost);
// synchronous=OFF would save only those checkpoint syncs and could corrupt the file on power loss.
// The page size must already be set: a database in WAL mode cannot change it. Failing to switch
// is not fatal, as every journal mode keeps commits across a process crash.
int32_t Sqlite3PreferencesDb::configureDurability(sqlite3* db, PreferenceScope scope,
                                                  const std::optional<unsigned int>& userId) {
    sqlite3_stmt* statement = nullptr;
    std::string mode;
    if (sqlite3_prepare_v2(db, kQueryJournalModeWal, -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(statement, 0);
        if (text != nullptr) mode = reinterpret_cast<const char*>(text);
    }
    sqlite3_finalize(statement);
    int32_t result = StoreStatus::Ok;
    if (mode != "wal") {
        ALOGW("Unable to enable write-ahead logging (scope %s, user %d); journal mode is '%s'.",
              scopeToString(scope),
              userId.has_value() ? static_cast<int>(*userId) : StoreStatus::Failed, mode.c_str());
        result = StoreStatus::CreateFailed;
    }
    if (executeRawQuery(kQuerySynchronousNormal, db, scope) != StoreStatus::Ok)
        result = StoreStatus::CreateFailed;
    return result;
}

int32_t Sqlite3PreferencesDb::createSystemTables() {
    sqlite3* db = mSystemDb->db;
    if (executeRawQuery(kQueryDropListeners, db, PreferenceScope::System) != StoreStatus::Ok) {
        ALOGE("Failed to remove all existing listeners.");
        return StoreStatus::CreateFailed;
    }
    mListenerIds.clear();
    const char* preferencesTable = getQueryCreatePreferencesMapTable();
    if (preferencesTable == nullptr) {
        ALOGE("Failed to create one or more tables in system DB.");
        return StoreStatus::CreateFailed;
    }
    if (strcmp(preferencesTable, kQueryCreatePreferencesMapTable) == 0) {
        // Only a database without tables is new; it gets the current layout and so the current
        // version. An existing database keeps its version for the upgrade steps.
        sqlite3_stmt* check = nullptr;
        if (sqlite3_prepare_v2(db, kQueryCheckIfTableIsEmpty, -1, &check, nullptr) != SQLITE_OK) {
            ALOGE("Error initializing prepared statements: kQueryCheckIfTableIsEmpty");
            sqlite3_finalize(check);
            return StoreStatus::CreateFailed;
        }
        if (sqlite3_step(check) != SQLITE_ROW) {
            ALOGE("database is not configured right");
            sqlite3_finalize(check);
            return StoreStatus::CreateFailed;
        }
        if (sqlite3_column_int64(check, 0) == 0 &&
            executeRawQuery(kQueryStampVersion2, db, PreferenceScope::System) != StoreStatus::Ok) {
            ALOGE("failed to add user version to database");
            sqlite3_finalize(check);
            return StoreStatus::CreateFailed;
        }
        sqlite3_finalize(check);
    }
    const char* tables[] = {kQueryCreatePackagesTable, preferencesTable,
                            kQueryCreatePermissionsTable, kQueryCreateValuesTable,
                            kQueryCreateListenersTable};
    for (const char* table : tables) {
        if (executeRawQuery(table, db, PreferenceScope::System) != StoreStatus::Ok) {
            ALOGE("Failed to create one or more tables in system DB.");
            return StoreStatus::CreateFailed;
        }
    }
    if (createReapOrphanedPreferencesTrigger() != StoreStatus::Ok) return StoreStatus::CreateFailed;
    return StoreStatus::Ok;
}

void Sqlite3PreferencesDb::createSystemIndexes() {
    if (executeRawQuery(kQueryCreatePermissionsByPackageIndex, mSystemDb->db,
                        PreferenceScope::System) != 0) {
        ALOGW("Unable to index permissions by package; package changes will be slower.");
    }
}

int32_t Sqlite3PreferencesDb::createReapOrphanedPreferencesTrigger() {
    const int32_t result = executeRawQuery(kQueryCreateReapOrphanedPreferencesTrigger,
                                           getDbForScope(PreferenceScope::System, std::nullopt),
                                           PreferenceScope::System);
    if (result != StoreStatus::Ok) ALOGE("Failed to create trigger to reap orphaned preferences.");
    return result;
}

int32_t Sqlite3PreferencesDb::dropReapOrphanedPreferencesTrigger() {
    const int32_t result = executeRawQuery(kQueryDropReapOrphanedPreferencesTrigger,
                                           getDbForScope(PreferenceScope::System, std::nullopt),
                                           PreferenceScope::System);
    if (result != StoreStatus::Ok) ALOGE("Failed to drop trigger to reap orphaned preferences.");
    return result;
}

int32_t Sqlite3PreferencesDb::initializePreparedStatementsForSystemDb() {
    for (size_t i = 0; i < kSystemStatementCount; ++i) {
        if (sqlite3_prepare_v2(mSystemDb->db, StatementTexts::kSystem[i].sql, -1,
                               &mSystemDb->statements[i], nullptr) != SQLITE_OK) {
            ALOGE("Error initializing prepared statements for system DB.");
            return StoreStatus::CreateFailed;
        }
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::configureForeignKeys() {
    if (executeRawQuery(kQueryForeignKeysOn, mSystemDb->db, PreferenceScope::System) !=
        StoreStatus::Ok) {
        return StoreStatus::CreateFailed;
    }
    Query query = systemQuery(kForeignKeys);
    if (!query.built()) return StoreStatus::Failed;
    switch (query.step()) {
        case SQLITE_DONE:
            ALOGE("Foreign keys are not supported due to incorrect compilation flags.");
            return StoreStatus::CreateFailed;
        case SQLITE_ROW:
            if (sqlite3_column_int(query.statement(), 0) == 1) return StoreStatus::Ok;
            ALOGE("Foreign keys were not enabled.");
            return StoreStatus::CreateFailed;
        default:
            query.logFailedStep();
            return StoreStatus::Failed;
    }
}

void Sqlite3PreferencesDb::uninitializePreparedStatementsForSystemDb() {
    for (sqlite3_stmt*& statement : mSystemDb->statements) {
        sqlite3_finalize(statement);
        statement = nullptr;
    }
}

int32_t Sqlite3PreferencesDb::uninitializeSystemDb() {
    mMetadata.detach();
    mSystemValues.clear();
    if (mSystemDb == nullptr || mSystemDb->state == DbState::Closed) return StoreStatus::Ok;
    uninitializePreparedStatementsForSystemDb();
    if (sqlite3_close(mSystemDb->db) != SQLITE_OK) {
        ALOGE("Failed to close db system DB.");
        return StoreStatus::CloseFailed;
    }
    mSystemDb->db = nullptr;
    mSystemDb->state = DbState::Closed;
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::uninitialize() {
    int32_t result = StoreStatus::Ok;
    if (uninitializeSystemDb() != StoreStatus::Ok) {
        ALOGE("Unable to uninitialize system DB.");
        result = StoreStatus::CloseFailed;
    }
    for (const auto& [userId, record] : mUserDbs) {
        if (uninitializeUserDb(userId) != StoreStatus::Ok) {
            ALOGE("Unable to uninitialize user DB for %d.", userId);
            result = StoreStatus::CloseFailed;
        }
    }
    if (sqlite3_shutdown() != SQLITE_OK) {
        ALOGE("Failed to shutdown DB.");
        result = StoreStatus::CloseFailed;
    }
    return result;
}

// ---- Versions ----

int32_t Sqlite3PreferencesDb::getDatabaseUserVersion() {
    Query query = systemQuery(kUserVersion);
    if (!query.built() || query.step() != SQLITE_ROW) return StoreStatus::Failed;
    return sqlite3_column_int(query.statement(), 0);
}

int32_t Sqlite3PreferencesDb::upgradeVersionFromV0ToV1() {
    resetPreparedStatements();
    sqlite3* db = getDbForScope(PreferenceScope::System, std::nullopt);
    if (executeRawQuery(kQueryUpgradeForeignKeysOff, db, PreferenceScope::System) !=
        StoreStatus::Ok) {
        ALOGE("Failed to turn foreign_keys off");
        return StoreStatus::UpgradeFailed;
    }
    // Since SQLite 3.26, RENAME TABLE checks every trigger of the schema, and between the DROP and
    // the RENAME the reaping trigger names a table that does not exist, which fails the rename.
    // The trigger is therefore taken away for the rebuild and put back afterwards.
    if (dropReapOrphanedPreferencesTrigger() != StoreStatus::Ok) return StoreStatus::UpgradeFailed;
    const bool wasAutocommit = sqlite3_get_autocommit(db) != 0;
    const int32_t upgraded = executeRawQuery(kQueryUpgradeV0ToV1, db, PreferenceScope::System);
    if (upgraded != StoreStatus::Ok) {
        ALOGE("Failed to upgrade system DB from version 0 to 1");
        rollBackLeftOpenTransaction(db, wasAutocommit);
    }
    if (createReapOrphanedPreferencesTrigger() != StoreStatus::Ok || upgraded != StoreStatus::Ok)
        return StoreStatus::UpgradeFailed;
    if (executeRawQuery(kQueryUpgradeForeignKeysOn, db, PreferenceScope::System) !=
        StoreStatus::Ok) {
        ALOGE("Failed to turn foreign_keys on");
        return StoreStatus::UpgradeFailed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::upgradeVersionFromV1ToV2() {
    {
        Query query = systemQuery(kHasMigrationColumn);
        if (!query.built()) return StoreStatus::Failed;
        // Only a row proves the column is there; no row, or a failed step, goes on to add it.
        if (query.step() == SQLITE_ROW) return StoreStatus::Ok;
    }
    sqlite3* db = getDbForScope(PreferenceScope::System, std::nullopt);
    if (executeRawQuery(kQueryUpgradeForeignKeysOff, db, PreferenceScope::System) !=
        StoreStatus::Ok) {
        ALOGE("Failed to turn foreign_keys off");
        return StoreStatus::UpgradeFailed;
    }
    const bool wasAutocommit = sqlite3_get_autocommit(db) != 0;
    if (executeRawQuery(kQueryUpgradeV1ToV2, db, PreferenceScope::System) != StoreStatus::Ok) {
        ALOGE("Failed to upgrade system DB from version 1 to 2");
        rollBackLeftOpenTransaction(db, wasAutocommit);
        return StoreStatus::UpgradeFailed;
    }
    if (executeRawQuery(kQueryStampVersion2, db, PreferenceScope::System) != StoreStatus::Ok) {
        ALOGE("failed to put a user version in database");
        return StoreStatus::CreateFailed;
    }
    if (executeRawQuery(kQueryUpgradeForeignKeysOn, db, PreferenceScope::System) !=
        StoreStatus::Ok) {
        ALOGE("Failed to turn foreign_keys on");
        return StoreStatus::UpgradeFailed;
    }
    return StoreStatus::Ok;
}

// ---- Batches ----

int32_t Sqlite3PreferencesDb::beginBatch() {
    const int32_t result =
            executeRawQuery(kQueryBegin, getDbForScope(PreferenceScope::System, std::nullopt),
                            PreferenceScope::System);
    if (result != StoreStatus::Ok) ALOGE("Failed to begin batch mode transaction for system DB");
    mInBatch = result == StoreStatus::Ok;
    mBatchUserIds.reset();
    return result;
}

int32_t Sqlite3PreferencesDb::commitBatch() {
    const int32_t result =
            executeRawQuery(kQueryCommit, getDbForScope(PreferenceScope::System, std::nullopt),
                            PreferenceScope::System);
    if (result != StoreStatus::Ok) ALOGE("Failed to commit batch operations for system DB");
    mInBatch = false;
    mBatchUserIds.reset();
    return result;
}

// ---- User databases ----

int32_t Sqlite3PreferencesDb::initializeUserDb(unsigned int userId) {
    auto existing = mUserDbs.find(userId);
    if (existing != mUserDbs.end() && existing->second != nullptr) {
        if (existing->second->state == DbState::Ready) return StoreStatus::Ok;
        uninitializeUserDb(userId);
    }
    UserDb& record = userDbRecord(userId);
    record.state = DbState::Opening;
    record.values.clear();

    const std::string path = getUserDbPath(userId);
    if (!mayOpenDatabase(path)) {
        ALOGE("Failed to open db for %d, path %s: error: %d, %s", userId, path.c_str(),
              SQLITE_CANTOPEN, sqlite3_errstr(SQLITE_CANTOPEN));
        Telemetry::report("userdbinit_error");
        return StoreStatus::OpenFailed;
    }
    const int opened = sqlite3_open(path.c_str(), &record.db);
    if (opened != SQLITE_OK) {
        ALOGE("Failed to open db for %d, path %s: error: %d, %s", userId, path.c_str(), opened,
              sqlite3_errmsg(record.db));
        Telemetry::report("userdbinit_error");
        sqlite3_close(record.db);
        record.db = nullptr;
        return StoreStatus::OpenFailed;
    }
    // Opening creates the file when it was missing.
    if (mBatchUserIds.has_value() &&
        std::find(mBatchUserIds->begin(), mBatchUserIds->end(), userId) == mBatchUserIds->end()) {
        mBatchUserIds->push_back(userId);
    }
    sqlite3_commit_hook(record.db, &Sqlite3PreferencesDb::countCommit, &record);
    if (configureUserCache(userId) != StoreStatus::Ok) {
        ALOGE("Unable to configure cache for %d", userId);
        Telemetry::report("userdbinit_error_cache");
    }
    configureDurability(record.db, PreferenceScope::User, userId);
    const int32_t result = createUserTable(userId);
    if (result != StoreStatus::Ok) {
        ALOGE("Failed to create user DB table for: %d.", userId);
        Telemetry::report("userdbinit_error_table");
        return result;
    }
    if (initializePreparedStatementsForUserDb(userId) != StoreStatus::Ok) {
        ALOGE("Failed to initialize prepared statements for: %d.", userId);
        Telemetry::report("userdbinit_error_preparedstatements");
        return StoreStatus::CreateFailed;
    }
    record.state = DbState::Ready;
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::configureUserCache(unsigned int userId) {
    sqlite3* db = userDbRecord(userId).db;
    if (executeRawQuery(kQueryCacheSize, db, PreferenceScope::User) != StoreStatus::Ok ||
        executeRawQuery(kQueryPageSize, db, PreferenceScope::User) != StoreStatus::Ok) {
        ALOGE("Unable to configure database cache size for %d. ", userId);
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::createUserTable(unsigned int userId) {
    if (executeRawQuery(kQueryCreateUserValuesTable, userDbRecord(userId).db,
                        PreferenceScope::User) != 0) {
        ALOGE("Failed to create values table in DB: %d.", userId);
        return StoreStatus::CreateFailed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::initializePreparedStatementsForUserDb(unsigned int userId) {
    UserDb& record = userDbRecord(userId);
    for (size_t i = 0; i < kValueStatementCount; ++i) {
        if (sqlite3_prepare_v2(record.db, StatementTexts::kUser[i].sql, -1, &record.statements[i],
                               nullptr) != SQLITE_OK) {
            ALOGE("Error initializing prepared statements for %d.", userId);
            return StoreStatus::CreateFailed;
        }
    }
    return StoreStatus::Ok;
}

void Sqlite3PreferencesDb::uninitializePreparedStatementsForUserDb(unsigned int userId) {
    for (sqlite3_stmt*& statement : userDbRecord(userId).statements) {
        sqlite3_finalize(statement);
        statement = nullptr;
    }
}

int32_t Sqlite3PreferencesDb::uninitializeUserDb(unsigned int userId) {
    auto found = mUserDbs.find(userId);
    if (found == mUserDbs.end() || found->second == nullptr) {
        ALOGE("Could not find an existing database connection for: %d", userId);
        return StoreStatus::UserDbGone;
    }
    UserDb& record = *found->second;
    record.values.clear();
    if (record.state == DbState::Closed) return StoreStatus::Ok;
    uninitializePreparedStatementsForUserDb(userId);
    if (sqlite3_close(record.db) != SQLITE_OK) {
        ALOGE("Failed to close db %d.", userId);
        Telemetry::report("userdb_error_shutdown");
        return StoreStatus::CloseFailed;
    }
    record.db = nullptr;
    record.state = DbState::Closed;
    return StoreStatus::Ok;
}

bool Sqlite3PreferencesDb::removeFile(const std::string& path, bool mustExist) {
    if (unlink(path.c_str()) == 0) return true;
    if (errno == ENOENT && !mustExist) return true;
    ALOGE("Unable to remove %s: %s", path.c_str(), strerror(errno));
    return false;
}

int32_t Sqlite3PreferencesDb::deleteUserData(unsigned int userId) {
    auto found = mUserDbs.find(userId);
    // A half-open connection is closed as well: its file is about to go.
    if (found != mUserDbs.end() && found->second != nullptr &&
        found->second->state != DbState::Closed) {
        const int32_t result = uninitializeUserDb(userId);
        if (result != StoreStatus::Ok) {
            ALOGE("Unable to uninitialize user DB for %d, in preparation for deleting the db",
                  userId);
            return result;
        }
    }
    // Whatever is left of the files, the directory is read again when next needed.
    mBatchUserIds.reset();
    const std::string path = getUserDbPath(userId);
    if (!removeFile(path, true)) return StoreStatus::UserDbGone;
    // A journal or WAL file left behind would be applied to a later database of the same name.
    int32_t result = StoreStatus::Ok;
    for (const char* suffix : kCompanionSuffixes) {
        if (!removeFile(path + suffix, false)) result = StoreStatus::UserDbGone;
    }
    return result;
}

int32_t Sqlite3PreferencesDb::updateUserList(const std::vector<int>& userIds) {
    std::vector<unsigned int> existing;
    if (!getUserIdsForExistingDbs(existing)) return StoreStatus::Failed;
    const std::unordered_set<int> present(userIds.begin(), userIds.end());
    for (unsigned int userId : existing) {
        if (present.count(static_cast<int>(userId)) != 0) continue;
        const int32_t result = deleteUserData(userId);
        if (result != StoreStatus::Ok) {
            ALOGW("Failed to delete data: %d", userId);
            return result;
        }
    }
    return StoreStatus::Ok;
}

// ---- Dropping tables and resetting ----

int32_t Sqlite3PreferencesDb::dropSystemTables() {
    if (mSystemDb == nullptr || mSystemDb->state != DbState::Ready) return StoreStatus::NotOpen;
    for (const char* drop : kQueryDropSystemTables) {
        if (executeRawQuery(drop, mSystemDb->db, PreferenceScope::System) != StoreStatus::Ok)
            return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::dropTablesForUser(unsigned int userId) {
    const int32_t result = initializeUserDb(userId);
    if (result != StoreStatus::Ok) return result;
    return executeRawQuery(kQueryDropUserValuesTable, userDbRecord(userId).db,
                           PreferenceScope::User);
}

int32_t Sqlite3PreferencesDb::dropTables() {
    int32_t result = dropSystemTables();
    if (result != StoreStatus::Ok) ALOGE("Unable to drop system tables.");
    std::vector<unsigned int> userIds;
    if (!getUserIdsForExistingDbs(userIds)) return StoreStatus::Failed;
    for (unsigned int userId : userIds) {
        const int32_t dropped = dropTablesForUser(userId);
        if (dropped != StoreStatus::Ok) {
            ALOGE("Unable to dump user database");
            if (result == StoreStatus::Ok) result = dropped;
        }
    }
    return result;
}

int32_t Sqlite3PreferencesDb::reset() {
    int32_t result = resetPreparedStatements();
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to reset DBs; failed to reset prepared statement(s), blocking dropping of "
              "tables.");
        return result;
    }
    result = dropTables();
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to reset DBs; failed to drop table(s).");
        return result;
    }
    result = uninitialize();
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to reset DBs; failed to uninitialize.");
        return result;
    }
    result = initialize();
    if (result != StoreStatus::Ok) ALOGE("Unable to reset DBs; failed to reinitialize.");
    return result;
}

// ---- Logging helpers ----

void Sqlite3PreferencesDb::logFailureToBuildQuery(PreferenceScope scope,
                                                  const std::optional<unsigned int>& userId) {
    sqlite3* db = getDbForScope(scope, userId);
    if (db != nullptr) {
        ALOGE("Unable to prepare or bind statement (scope %s). Error: %s. Extended error code: %d.",
              scopeToString(scope), sqlite3_errmsg(db), sqlite3_extended_errcode(db));
    } else {
        ALOGE("DB for scope %s is null.", scopeToString(scope));
    }
}

void Sqlite3PreferencesDb::logFailureToExecutePreparedStatement(
        sqlite3_stmt* statement, PreferenceScope scope, const std::optional<unsigned int>& userId) {
    sqlite3* db = getDbForScope(scope, userId);
    char* sql = sqlite3_expanded_sql(statement);
    ALOGE("Failed to execute prepared statement (scope %s): %s. Error: %s. Extended error code: "
          "%d.",
          scopeToString(scope), sql != nullptr ? sql : "(null)", sqlite3_errmsg(db),
          sqlite3_extended_errcode(db));
    sqlite3_free(sql);
}

void Sqlite3PreferencesDb::logRawQuery(PreferenceScope /*scope*/, const char* /*sql*/) {}

void Sqlite3PreferencesDb::logPreparedStatementQuery(sqlite3_stmt* statement) {
    if (!mQueryLogging) return;
    // Expanding the statement is what a debugger breakpoint here inspects; nothing is written.
    sqlite3_free(sqlite3_expanded_sql(statement));
}

}  // namespace Halo::OS
