#pragma once

#include <sqlite3.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "store/IPreferencesDb.h"
#include "store/PreferencesKeyMetadataCache.h"
#include "store/PreferencesValueCache.h"

namespace Halo::OS {

// The SQLite preference store.
//
// Files: "system.db" (key definitions, packages, permissions, system values) and one "userN.db"
// per Android user (values of User and Cross keys) in "/data/nimbus/preferences/"; a derived
// store may root them elsewhere by overriding the path operations, which this class only ever
// calls through the virtual table. Listener rows live in an in-memory database attached to the
// system connection, so they vanish with the process.
//
// Every statement that runs more than once is prepared when its database is opened and reset and
// re-bound before each use; statements are also reset after each use so that no read
// transaction stays open between calls.
//
// Scope, type, default value and permissions of keys are remembered between calls
// (PreferencesKeyMetadataCache) as long as the system database is unchanged, so that reading or
// writing a value runs the value statement alone; current values are remembered likewise per
// database (PreferencesValueCache) until that database commits a write. Every answer is the one
// the database gives.
//
// Thread safety: none. The owner (the key manager) serialises all calls under its main mutex;
// SQLite connections are used from whichever thread holds it. uninitialize() (and so the
// destructor and reset()) calls sqlite3_shutdown(), so no other SQLite connection of the process
// may be open when it runs.
class Sqlite3PreferencesDb : public IPreferencesDb {
public:
    // Which value of a key an update writes.
    using PreferenceValueType = PreferencesKeyInfo::PreferenceValueType;

    Sqlite3PreferencesDb();
    ~Sqlite3PreferencesDb() override;
    Sqlite3PreferencesDb(const Sqlite3PreferencesDb&) = delete;
    Sqlite3PreferencesDb& operator=(const Sqlite3PreferencesDb&) = delete;

    // ---- IPreferencesDb ----
    int32_t initialize() override;
    int32_t upgradeVersionFromV0ToV1() override;
    int32_t getDatabaseUserVersion() override;
    int32_t upgradeVersionFromV1ToV2() override;
    int32_t uninitialize() override;
    int32_t registerPackage(unsigned int uid, const std::string& packageName) override;
    int32_t unregisterPackage(unsigned int uid, const std::string& packageName) override;
    int32_t unregisterMissingPackages(const PackageSet& present, KeySourceDomain domain) override;
    int32_t registerPreference(unsigned int requesterUid, const std::string& requesterPackage,
                               const std::string& key, PreferenceScope scope, Type type,
                               const std::optional<unsigned int>& ownerUid,
                               const std::optional<std::string>& ownerPackage,
                               const std::optional<std::string>& defaultValue) override;
    int32_t markPreferencesForExpiration(std::chrono::seconds delay,
                                         KeySourceDomain domain) override;
    int32_t markOrphanedPreferencesForExpiration(std::chrono::seconds delay) override;
    int32_t unregisterExpiredPreferences() override;
    int32_t downGradeScopeForPackage() override;
    int32_t getPreferenceValue(const std::optional<unsigned int>& userId, const std::string& key,
                               std::optional<std::string>& value) override;
    int32_t getPreferenceValue(const std::optional<unsigned int>& userId,
                               const std::optional<unsigned int>& currentUserId,
                               const std::string& key, std::optional<std::string>& value) override;
    int32_t setPreferenceValue(const std::optional<unsigned int>& userId, const std::string& key,
                               const std::string& value) override;
    int32_t setPreferenceValue(const std::optional<unsigned int>& userId,
                               const std::optional<unsigned int>& currentUserId,
                               const std::string& key, const std::string& value) override;
    int32_t setPreferenceDefault(const std::string& key, const std::string& value) override;
    int32_t clearCurrentPreferenceValue(const std::optional<unsigned int>& userId,
                                        const std::string& key) override;
    int32_t getPreferenceScope(const std::string& key, PreferenceScope& scope, bool quiet) override;
    int32_t getPreferenceType(const std::string& key, Type& type) override;
    int32_t getPreferenceOwner(const std::string& key, std::optional<unsigned int>& uid,
                               std::optional<std::string>& packageName) override;
    int32_t clearPreferenceOwnerForNonMigrationKeys(KeySourceDomain domain) override;
    int32_t setPreferencePermission(const std::string& key, unsigned int uid,
                                    const std::string& packageName,
                                    PreferencePermission permission) override;
    int32_t getPreferencePermission(const std::string& key, unsigned int uid,
                                    PreferencePermission& permission) override;
    int32_t clearPermissionsForPackage(unsigned int uid, const std::string& packageName) override;
    int32_t registerPreferenceListener(unsigned int uid, const std::vector<std::string>& keys,
                                       unsigned int& listenerId) override;
    int32_t unregisterPreferenceListener(unsigned int uid, unsigned int listenerId) override;
    int32_t getPreferenceListenersForKey(
            const std::string& key,
            std::vector<std::pair<unsigned int, unsigned int>>& listeners) override;
    int32_t getPreferenceListenersIdsForPackage(unsigned int uid,
                                                std::vector<unsigned int>& listenerIds) override;
    int32_t reset() override;
    int32_t dumpDatabases(int fd) override;
    int32_t dumpPreferencesTable(int fd) override;
    int32_t deleteUserData(unsigned int userId) override;
    int32_t beginBatch() override;
    int32_t commitBatch() override;
    int32_t updateUserList(const std::vector<int>& userIds) override;
    const char* getQueryCreatePreferencesMapTable() const override;
    std::string getUserDbPath(unsigned int userId) const override;
    std::string getSystemDbPath() const override;
    bool getUserIdsForExistingDbs(std::vector<unsigned int>& userIds) override;
    int32_t getPreferenceDefinitions(const std::optional<std::string>& key,
                                     std::vector<PreferenceDefinition>& definitions) override;

    // ---- Databases ----

    // The connection serving `scope`: the system connection for System; for User and Cross the
    // connection of `userId` (null when none is given, logged) -- an absent user gets an empty
    // record, so the result is null until that user's database is opened. Null for other scopes.
    sqlite3* getDbForScope(PreferenceScope scope, const std::optional<unsigned int>& userId);
    // Runs SQL text (several statements allowed) without result rows on `db`; -3 when `db` is
    // null, -1 (logged and reported) when SQLite fails.
    int32_t executeRawQuery(const char* sql, sqlite3* db, PreferenceScope scopeForLogs);
    // sqlite3_reset (result ignored) and sqlite3_clear_bindings; a null statement succeeds.
    bool resetPreparedStatement(sqlite3_stmt* statement);
    // Resets every prepared statement of the system database and of the open user databases;
    // -4 at the first one that cannot be cleared.
    int32_t resetPreparedStatements();
    // Opens a user's database (a no-op when it is open); a half-open one is closed first.
    int32_t initializeUserDb(unsigned int userId);
    // -15 when the user has no record; 0 when it is closed already.
    int32_t uninitializeUserDb(unsigned int userId);
    int32_t dropTables();
    int32_t dropSystemTables();
    int32_t dropTablesForUser(unsigned int userId);

    // ---- Packages, keys, owners, permissions, expiry ----

    int32_t getAllPackages(PackageSet& packages);
    // Sets owner_package_uid of the package's keys to NULL; owner_package_name stays.
    int32_t clearPackageOwnership(unsigned int uid, const std::string& packageName);
    // Legacy: "nimbus.preferences.service" names; NativeService: "nimbus.preferences.native"
    // names; Application: every other name.
    static bool isPackageInDomain(const std::string& packageName, KeySourceDomain domain);
    int32_t insertPreferenceInPreferencesMap(PreferenceScope scope, Type type,
                                             const std::optional<unsigned int>& ownerUid,
                                             const std::optional<std::string>& ownerPackage,
                                             const std::string& key,
                                             const std::optional<std::string>& defaultValue);
    // Type, owner and default (absent when NULL) of an existing key; -8 for an unknown key, -1 on
    // failure, each logged and reported as a failure to read the type, the owner or the default.
    int32_t getPreferenceConfiguration(const std::string& key, Type& type,
                                       std::optional<unsigned int>& ownerUid,
                                       std::optional<std::string>& ownerPackage,
                                       std::optional<std::string>& defaultValue);
    int32_t updatePreferenceScope(const std::string& key, PreferenceScope scope);
    int32_t updatePreferenceType(const std::string& key, Type type);
    // Owner uid and name both given or both absent (else -9); -8 for an unknown key.
    int32_t setPreferenceOwner(const std::string& key, const std::optional<unsigned int>& uid,
                               const std::optional<std::string>& packageName);
    int32_t updatePreferencePermission(const std::string& key, unsigned int uid,
                                       const std::string& packageName,
                                       PreferencePermission permission);
    // Marks, as expiring now, the keys on which only this package holds a permission. Does
    // nothing for "nimbus.preferences.service" packages, nor when every key the package holds a
    // permission on has expired already (those keep their earlier, passed, expiry time).
    int32_t markPreferencesReferencedOnlyByPackageForExpiration(unsigned int uid,
                                                                const std::string& packageName);
    // 1 when some key on which the package holds a permission has no expiry or one still to
    // come, 0 when there is none, -1 on failure (logged).
    int32_t hasUnexpiredKey(unsigned int uid, const std::string& packageName);
    int32_t clearExpiration(const std::string& key);
    // Appends (key, scope) of every key whose expiry time has passed.
    int32_t getExpiredPreferences(std::vector<std::pair<std::string, PreferenceScope>>& expired);
    int32_t deleteExpiredPreferencesFromMapPermissions();

    // ---- Values ----

    // The stored current value only (empty when there is none).
    int32_t getCurrentValue(const std::string& key, PreferenceScope scope,
                            const std::optional<unsigned int>& userId,
                            std::optional<std::string>& value);
    // The default value only; -8 for an unknown key, -1 when it is NULL.
    int32_t getDefaultValue(const std::string& key, std::optional<std::string>& value);
    int32_t updatePreferenceValue(const std::optional<unsigned int>& userId,
                                  PreferenceValueType valueType, const std::string& key,
                                  const std::string& value);
    // Updates the value row, inserting it first when the key has none yet.
    int32_t updatePreferenceValue(const std::optional<unsigned int>& userId,
                                  const std::optional<unsigned int>& currentUserId,
                                  PreferenceValueType valueType, const std::string& key,
                                  const std::string& value);
    int32_t insertValueRow(const std::optional<unsigned int>& userId, const std::string& key,
                           PreferenceScope scope);
    int32_t clearCurrentPreferenceValue(const std::optional<unsigned int>& userId,
                                        const std::string& key, PreferenceScope scope);
    // Clears the key in every user database; goes on after a failure and returns the first one.
    int32_t clearCurrentPreferenceValueFromUserDbs(const std::string& key);
    int32_t deletePreferenceFromValueTables(const std::string& key, PreferenceScope scope);
    // -8 (a warning) when there is no row.
    int32_t deletePreferenceValueRow(const std::optional<unsigned int>& userId,
                                     const std::string& key, PreferenceScope scope);
    // Visits every user database file: 0 when some row was deleted, -8 when none was, else the
    // first failure.
    int32_t deletePreferenceValueRowFromUserDbs(const std::string& key);

    // ---- Listener rows ----

    // One more than the highest listener id in use (1 when none is); -1 when the ids are spent.
    // Only an empty set of ids in use is seeded from the table's highest id, so the cost does not
    // grow with the number of rows.
    int32_t getNextlistenerUuid(unsigned int& listenerId);
    // -11 for a duplicate row. A stored row puts its id in use.
    int32_t registerListener(unsigned int listenerId, const std::string& key, unsigned int uid);
    // Deletes listener rows whose key no longer exists.
    int32_t cleanupDanglingListeners();

    // ---- Dumps (text to a file descriptor) ----

    int32_t dumpSystemDb(int fd);
    int32_t dumpUserDbs(int fd);
    int32_t dumpUserDb(unsigned int userId, int fd);
    int32_t dumpValuesTable(const std::optional<unsigned int>& userId, PreferenceScope scope,
                            int fd);
    int32_t dumpPackagesTable(int fd);
    int32_t dumpPermissionsTable(int fd);
    int32_t dumpListenersTable(int fd);

    // ---- Texts for logs and dumps ----

    // A scope or domain outside the enumeration is a fatal "lookup error".
    static const char* scopeToString(PreferenceScope scope);
    static const char* domainToString(KeySourceDomain domain);
    // "[unknown type]" (logged) outside 0..5.
    static const char* typeToString(Type type);
    // "Invalid Permissions" (logged) outside 0..2.
    static const char* permissionToString(PreferencePermission permission);

    // When set, each prepared statement is expanded before it runs (for debugging sessions).
    void setQueryLogging(bool enabled) { mQueryLogging = enabled; }

protected:
    // The files SQLite keeps beside a database, named by appending these to its path.
    static constexpr const char* kCompanionSuffixes[] = {"-journal", "-wal", "-shm"};

    // Asked before the database at `path` (system or user) is opened: false keeps it closed,
    // and the open fails as when SQLite cannot open the file. The reason is the override's to
    // log. This store opens every path.
    virtual bool mayOpenDatabase(const std::string& path) const;

    // Appends the user ids of the "userN.db" files in `directory`; false when it cannot be read.
    static bool getUserIdsInDirectory(const std::string& directory,
                                      std::vector<unsigned int>& userIds);

private:
    enum class DbState : int32_t {
        Closed = 0,
        Opening = 1,
        Ready = 2,
    };

    // The prepared statements of the system database, in preparation order.
    enum SystemStatement : size_t {
        kForeignKeys = 0,
        kListPackages,
        kInsertPackage,
        kDeletePackage,
        kClearPackageOwnership,
        kExpireReferencedOnlyByPackage,
        kInsertPreference,
        kExpireNotReferencedByService,
        kExpireOrphaned,
        kClearExpiration,
        kListExpired,
        kDeleteExpired,
        kGetScope,
        kSetScope,
        kGetType,
        kSetType,
        kInsertPermission,
        kGetPermission,
        kUpdatePermission,
        kClearPackagePermissions,
        kGetOwner,
        kSetOwner,
        kClearOwnerLegacy,
        kClearOwnerNativeService,
        kClearOwnerApplication,
        kMaxListenerId,
        kInsertListener,
        kDeleteListener,
        kListenersOfKey,
        kListenerIdsOfPackage,
        kDeleteDanglingListeners,
        kGetDefault,
        kSetDefault,
        kInsertValueRow,
        kGetCurrentValue,
        kUpdateCurrentValue,
        kClearCurrentValue,
        kDeleteValueRow,
        kDumpPackages,
        kDumpPermissions,
        kDumpValues,
        kDumpListeners,
        kExpireLegacy,
        kExpireNativeService,
        kExpireApplication,
        kDowngradeCrossScope,
        kUserVersion,
        kHasMigrationColumn,
        kFindUnexpiredKeyOfPackage,
        kSystemStatementCount,
    };

    // The statements of a database that holds values; the system database has the same roles
    // among its statements.
    enum ValueStatement : size_t {
        kValueInsertRow = 0,
        kValueGetCurrent,
        kValueUpdateCurrent,
        kValueClearCurrent,
        kValueDeleteRow,
        kValueDump,
        kValueStatementCount,
    };

    struct SystemDb {
        sqlite3* db = nullptr;
        DbState state = DbState::Closed;
        std::array<sqlite3_stmt*, kSystemStatementCount> statements{};
    };

    struct UserDb {
        sqlite3* db = nullptr;
        DbState state = DbState::Closed;
        std::array<sqlite3_stmt*, kValueStatementCount> statements{};
        // Commits of `db`, counted by its commit hook (countCommit), and the values read from it.
        uint64_t commits = 0;
        PreferencesValueCache values;
    };

    // Lifecycle of the system database.
    int32_t initializeSystemDb();
    int32_t initializeInMemDb();
    int32_t configureSystemCache();
    int32_t configureForeignKeys();
    int32_t createSystemTables();
    // Indexes that only speed statements up: a failure is logged at warning priority and the
    // database is used without them.
    void createSystemIndexes();
    int32_t createReapOrphanedPreferencesTrigger();
    int32_t dropReapOrphanedPreferencesTrigger();
    int32_t initializePreparedStatementsForSystemDb();
    int32_t uninitializeSystemDb();
    void uninitializePreparedStatementsForSystemDb();
    // Closes a connection left half-open by a failed initialisation.
    void closeHalfOpenSystemDb();
    // Journal mode and synchronous setting of a file database (see the definition for why).
    int32_t configureDurability(sqlite3* db, PreferenceScope scope,
                                const std::optional<unsigned int>& userId);

    // Lifecycle of a user database.
    int32_t configureUserCache(unsigned int userId);
    int32_t createUserTable(unsigned int userId);
    int32_t initializePreparedStatementsForUserDb(unsigned int userId);
    void uninitializePreparedStatementsForUserDb(unsigned int userId);
    // Removes a file; a missing file is an error only when `mustExist`.
    static bool removeFile(const std::string& path, bool mustExist);

    // The record of `userId`, inserted empty when absent.
    UserDb& userDbRecord(unsigned int userId);
    // The value statement of `role` for `scope`, or null when that database is not open.
    sqlite3_stmt* valueStatement(ValueStatement role, PreferenceScope scope,
                                 const std::optional<unsigned int>& userId);
    sqlite3_stmt* systemStatement(SystemStatement statement) const;
    // Resets a statement before use; on failure logs the build failure and returns false.
    bool prepareToRun(sqlite3_stmt* statement, PreferenceScope scope,
                      const std::optional<unsigned int>& userId = std::nullopt);
    // sqlite3_step, after logPreparedStatementQuery.
    int step(sqlite3_stmt* statement);
    // Steps a statement that writes; 0, or -1 after logging a failed step.
    int32_t runWrite(sqlite3_stmt* statement, PreferenceScope scope,
                     const std::optional<unsigned int>& userId = std::nullopt);
    // step() for a statement that writes the preference_values table of the scope's database and
    // nothing else: the remembered key metadata stays valid across it.
    int stepValueWrite(sqlite3_stmt* statement, PreferenceScope scope);
    // runWrite() with stepValueWrite().
    int32_t runValueWrite(sqlite3_stmt* statement, PreferenceScope scope,
                          const std::optional<unsigned int>& userId);
    // The system connection when the key metadata cache may be used with it (open and ready),
    // else null.
    sqlite3* metadataDb() const;
    // The cache of current values of the database that holds `scope`'s values for `userId`, when
    // it may be used now (the database is ready and has no transaction open); else null. Never
    // inserts a user database record.
    PreferencesValueCache* valueCache(PreferenceScope scope,
                                      const std::optional<unsigned int>& userId);
    // The commit hook of user connections: counts the commit in the UserDb record `record`.
    static int countCommit(void* record);
    // Steps a write statement with the expiry modifier bound as parameter 1.
    int32_t runExpiryMark(SystemStatement statement, std::chrono::seconds delay);
    int32_t runSystemWrite(SystemStatement statement);
    int changedRows(PreferenceScope scope, const std::optional<unsigned int>& userId);

    // Registration of an existing key.
    int32_t updateExistingPreference(unsigned int requesterUid, const std::string& requesterPackage,
                                     const std::string& key, PreferenceScope currentScope,
                                     PreferenceScope scope, Type type,
                                     const std::optional<unsigned int>& ownerUid,
                                     const std::optional<std::string>& ownerPackage,
                                     const std::optional<std::string>& defaultValue);
    // `ownerUid` and `ownerPackage` hold the current owner and receive the owner that results.
    int32_t processPreferenceOwnerChangeRequest(
            unsigned int requesterUid, const std::string& requesterPackage, const std::string& key,
            std::optional<unsigned int>& ownerUid, std::optional<std::string>& ownerPackage,
            const std::optional<unsigned int>& requestedOwnerUid,
            const std::optional<std::string>& requestedOwnerPackage);
    int32_t processPreferenceScopeChangeRequest(unsigned int requesterUid,
                                                const std::string& requesterPackage,
                                                const std::string& key,
                                                PreferenceScope currentScope,
                                                PreferenceScope requestedScope,
                                                const std::optional<unsigned int>& ownerUid,
                                                const std::optional<std::string>& ownerPackage);
    int32_t processPreferenceTypeChangeRequest(unsigned int requesterUid,
                                               const std::string& requesterPackage,
                                               const std::string& key, Type currentType,
                                               Type requestedType,
                                               const std::optional<unsigned int>& ownerUid,
                                               const std::optional<std::string>& ownerPackage);
    int32_t processPreferenceDefaultValueChangeRequest(
            unsigned int requesterUid, const std::string& requesterPackage, const std::string& key,
            const std::optional<std::string>& currentDefault,
            const std::optional<std::string>& requestedDefault,
            const std::optional<unsigned int>& ownerUid,
            const std::optional<std::string>& ownerPackage);
    // The user ids of the databases in the directory, for operations that visit every user
    // database for one key. Outside a batch the directory is read on every call; within one it
    // is read once and then kept in step with the databases this store opens and deletes, since
    // a schema list would otherwise read it for every key. False when it cannot be read.
    bool getUserIdsOfDbsForKey(std::vector<unsigned int>& userIds);
    // Writes NULL as the default of an existing key.
    int32_t clearPreferenceDefault(const std::string& key);

    // Writes one row of a table dump.
    using RowPrinter = void (*)(int fd, sqlite3_stmt* statement);
    // One table of the system database: the header, one line per row, the end line.
    int32_t dumpTable(int fd, const char* title, const char* schema, SystemStatement statement,
                      RowPrinter printRow);
    // The rows of a reset statement and the end line; an error line (logged) when a step fails.
    int32_t dumpTableRows(int fd, const char* title, sqlite3_stmt* statement, PreferenceScope scope,
                          const std::optional<unsigned int>& userId, RowPrinter printRow);

    // Logging helpers.
    void logFailureToBuildQuery(PreferenceScope scope,
                                const std::optional<unsigned int>& userId = std::nullopt);
    void logFailureToExecutePreparedStatement(
            sqlite3_stmt* statement, PreferenceScope scope,
            const std::optional<unsigned int>& userId = std::nullopt);
    void logRawQuery(PreferenceScope scope, const char* sql);
    void logPreparedStatementQuery(sqlite3_stmt* statement);

    std::unique_ptr<SystemDb> mSystemDb;
    std::map<unsigned int, std::unique_ptr<UserDb>> mUserDbs;
    // Between a successful beginBatch() and the next commitBatch().
    bool mInBatch = false;
    // Within a batch, the user databases in the directory once it has been read; see
    // getUserIdsOfDbsForKey.
    std::optional<std::vector<unsigned int>> mBatchUserIds;
    bool mQueryLogging = false;
    // Key metadata of the system database; see PreferencesKeyMetadataCache.
    PreferencesKeyMetadataCache mMetadata;
    // Current values of the system database; its commits are those mMetadata counts.
    PreferencesValueCache mSystemValues;
    // Listener ids in use: handed out by registerPreferenceListener (with or without rows) and
    // not yet unregistered. A listener whose rows are gone (no keys, or its keys expired) keeps
    // its id, so that no later listener is given the id of a live one. Emptied with the table.
    std::set<unsigned int> mListenerIds;
};

}  // namespace Halo::OS
