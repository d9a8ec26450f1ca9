// Listener rows and the text dumps of Sqlite3PreferencesDb.

#define LOG_TAG "PreferencesService"
#include <log/log.h>

#include <cstdio>
#include <limits>
#include <string>

#include "store/Sqlite3PreferencesDb.h"
#include "store/SqliteBinding.h"
#include "store/StoreTexts.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using PreferenceScope = PreferencesKeyInfo::PreferenceScope;
using PreferencePermission = PreferencesKeyInfo::PreferencePermission;
using Type = PreferencesKeyInfo::Type;

constexpr const char* kQueryDumpPreferencesTable =
        "SELECT key, type, scope, owner_package_uid, owner_package_name, default_value, migration, "
        "expires_at FROM preferences";

constexpr int kExtendedForeignKeyFailure = SQLITE_CONSTRAINT_FOREIGNKEY;  // 787
constexpr int kExtendedUniqueFailure = SQLITE_CONSTRAINT_UNIQUE;          // 2067

// NULL text columns print as "(null)", as printf prints a null string.
const char* orNull(const char* text) {
    return text != nullptr ? text : "(null)";
}

void writeTableHeader(int fd, const char* title, const char* schema) {
    dprintf(fd, "\n=== Start of %s table dump ===\nSchema: %s\n-------------------\n", title,
            schema);
}

void printPackageRow(int fd, sqlite3_stmt* statement) {
    dprintf(fd, "  > Package: %u | %s\n", columnUnsigned(statement, 0),
            orNull(columnCString(statement, 1)));
}

void printPermissionRow(int fd, sqlite3_stmt* statement) {
    const auto permission = static_cast<PreferencePermission>(sqlite3_column_int(statement, 2));
    dprintf(fd, "  > Permission: %s | %u | %s\n", orNull(columnCString(statement, 0)),
            columnUnsigned(statement, 1), permissionToString(permission));
}

void printListenerRow(int fd, sqlite3_stmt* statement) {
    dprintf(fd, "  > Listener: %u | %s | %u\n", columnUnsigned(statement, 0),
            orNull(columnCString(statement, 1)), columnUnsigned(statement, 2));
}

void printValueRow(int fd, sqlite3_stmt* statement) {
    dprintf(fd, "  > Value: %s | %s\n", orNull(columnCString(statement, 0)),
            orNull(columnCString(statement, 1)));
}

void printPreferenceRow(int fd, sqlite3_stmt* statement) {
    const auto type = static_cast<Type>(sqlite3_column_int(statement, 1));
    const auto scope = static_cast<PreferenceScope>(sqlite3_column_int(statement, 2));
    dprintf(fd, "  > Preference: %s | %s | %s | %u | %s | %s | %s | %s\n",
            orNull(columnCString(statement, 0)), typeToString(type), scopeToString(scope),
            columnUnsigned(statement, 3), orNull(columnCString(statement, 4)),
            orNull(columnCString(statement, 5)),
            sqlite3_column_int64(statement, 6) != 0 ? "yes" : "no",
            orNull(columnCString(statement, 7)));
}

}  // namespace

// ---- Listener rows ----

int32_t Sqlite3PreferencesDb::getNextlistenerUuid(unsigned int& listenerId) {
    if (!mListenerIds.empty()) {
        if (*mListenerIds.rbegin() == std::numeric_limits<unsigned int>::max())
            return StoreStatus::Failed;
        listenerId = *mListenerIds.rbegin() + 1;
        return StoreStatus::Ok;
    }
    Query query = systemQuery(kMaxListenerId);
    if (!query.built()) return StoreStatus::Failed;
    if (query.step() != SQLITE_ROW) {
        query.logFailedStep();
        return StoreStatus::Failed;
    }
    // MAX() of an empty table is NULL, read as 0: the first id is 1.
    listenerId = columnUnsigned(query.statement(), 0) + 1;
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::registerPreferenceListener(unsigned int uid,
                                                         const std::vector<std::string>& keys,
                                                         unsigned int& listenerId) {
    unsigned int id = 0;
    int32_t result = getNextlistenerUuid(id);
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to register listener; failed to get next listener UUID %d", result);
        Telemetry::report("registerpreferencelistener_error_new_uuid");
        return result;
    }
    listenerId = id;
    mListenerIds.insert(id);
    for (const std::string& key : keys) {
        result = registerListener(id, key, uid);
        if (result != StoreStatus::Ok) return result;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::registerListener(unsigned int listenerId, const std::string& key,
                                               unsigned int uid) {
    Query query = systemQuery(kInsertListener, listenerId, key, uid);
    if (!query.built()) return StoreStatus::Failed;
    const int stepped = query.step();
    if (stepped == SQLITE_DONE) {
        mListenerIds.insert(listenerId);
        return StoreStatus::Ok;
    }
    if (isConstraintFailure(stepped)) {
        const int extended = sqlite3_extended_errcode(mSystemDb->db);
        if (extended == kExtendedForeignKeyFailure) {
            ALOGE("Unable to register listener, %s is not registered", key.c_str());
            Telemetry::report("registerpreferencelistener_error_unregister_key");
            return StoreStatus::UnknownKey;
        }
        if (extended == kExtendedUniqueFailure) {
            ALOGE("Unable to insert duplicate listener, %s", key.c_str());
            Telemetry::report("registerpreferencelistener_error_duplicate_listener");
            return StoreStatus::DuplicateListener;
        }
    }
    query.logFailedStep();
    return StoreStatus::Failed;
}

int32_t Sqlite3PreferencesDb::unregisterPreferenceListener(unsigned int uid,
                                                           unsigned int listenerId) {
    Query query = systemQuery(kDeleteListener, uid, listenerId);
    if (!query.built()) return StoreStatus::Failed;
    if (query.step() != SQLITE_DONE) {
        query.logFailedStep();
        Telemetry::report("unregisterpreferencelistener_error");
        return StoreStatus::Failed;
    }
    // Also the id of a listener without rows is free from now on.
    mListenerIds.erase(listenerId);
    if (changedRows(PreferenceScope::System, std::nullopt) == 0) {
        Telemetry::report("unregisterpreferencelistener_error");
        return StoreStatus::NoListener;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::getPreferenceListenersForKey(
        const std::string& key, std::vector<std::pair<unsigned int, unsigned int>>& listeners) {
    Query query = systemQuery(kListenersOfKey, key);
    if (!query.built()) return StoreStatus::Failed;
    int stepped;
    while ((stepped = query.step()) == SQLITE_ROW) {
        listeners.emplace_back(columnUnsigned(query.statement(), 0),
                               columnUnsigned(query.statement(), 1));
    }
    if (stepped != SQLITE_DONE) {
        query.logFailedStep();
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::getPreferenceListenersIdsForPackage(
        unsigned int uid, std::vector<unsigned int>& listenerIds) {
    Query query = systemQuery(kListenerIdsOfPackage, uid);
    if (!query.built()) return StoreStatus::Failed;
    int stepped;
    while ((stepped = query.step()) == SQLITE_ROW) {
        listenerIds.push_back(columnUnsigned(query.statement(), 0));
    }
    if (stepped != SQLITE_DONE) {
        query.logFailedStep();
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::cleanupDanglingListeners() {
    return runSystemWrite(kDeleteDanglingListeners);
}

// ---- Dumps ----

int32_t Sqlite3PreferencesDb::dumpDatabases(int fd) {
    dprintf(fd, "=== Start of Sqlite3PreferencesDb dump ===\n");
    const int32_t system = dumpSystemDb(fd);
    if (system != StoreStatus::Ok) ALOGE("Unable to dump system DB.");
    const int32_t users = dumpUserDbs(fd);
    if (users != StoreStatus::Ok) ALOGE("Unable to dump user DB(s).");
    dprintf(fd, "\n=== End of Sqlite3PreferencesDb dump ===\n");
    return system != StoreStatus::Ok ? system : users;
}

int32_t Sqlite3PreferencesDb::dumpSystemDb(int fd) {
    dprintf(fd, "\n=== Start of system DB dump ===\n");
    const int32_t packages = dumpPackagesTable(fd);
    const int32_t preferences = dumpPreferencesTable(fd);
    const int32_t permissions = dumpPermissionsTable(fd);
    const int32_t values = dumpValuesTable(std::nullopt, PreferenceScope::System, fd);
    const int32_t listeners = dumpListenersTable(fd);
    dprintf(fd, "=== End of system DB dump ===\n");
    for (int32_t result : {listeners, values, permissions, preferences, packages}) {
        if (result != StoreStatus::Ok) return result;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::dumpUserDbs(int fd) {
    std::vector<unsigned int> userIds;
    if (!getUserIdsForExistingDbs(userIds)) {
        dprintf(fd, "Error encountered while dumping table %s: %s.\n", "User Values",
                "Unable to get user IDs");
        return StoreStatus::Failed;
    }
    int32_t result = StoreStatus::Ok;
    for (unsigned int userId : userIds) {
        const int32_t dumped = dumpUserDb(userId, fd);
        if (dumped != StoreStatus::Ok) {
            ALOGE("Unable to dump user database for user");
            if (result == StoreStatus::Ok) result = dumped;
        }
    }
    return result;
}

int32_t Sqlite3PreferencesDb::dumpUserDb(unsigned int userId, int fd) {
    dprintf(fd, "\n=== Start of user %u DB dump ===\n", userId);
    const int32_t result = dumpValuesTable(userId, PreferenceScope::User, fd);
    if (result != StoreStatus::Ok) ALOGE("Unable to dump user values table for user");
    dprintf(fd, "=== End of user %u DB dump ===\n", userId);
    return result;
}

int32_t Sqlite3PreferencesDb::dumpTable(int fd, const char* title, const char* schema,
                                        SystemStatement statementId, RowPrinter printRow) {
    writeTableHeader(fd, title, schema);
    Query query = systemQuery(statementId);
    if (!query.built()) {
        dprintf(fd, "Error encountered while dumping table %s.\n", title);
        return StoreStatus::Failed;
    }
    return dumpTableRows(fd, title, query, printRow);
}

int32_t Sqlite3PreferencesDb::dumpTableRows(int fd, const char* title, Query& query,
                                            RowPrinter printRow) {
    int32_t result = StoreStatus::Ok;
    int stepped;
    while ((stepped = query.step()) == SQLITE_ROW) printRow(fd, query.statement());
    if (stepped != SQLITE_DONE) {
        dprintf(fd, "Error encountered while dumping table %s.\n", title);
        query.logFailedStep();
        result = StoreStatus::Failed;
    }
    dprintf(fd, "=== End of %s table dump ===\n", title);
    return result;
}

int32_t Sqlite3PreferencesDb::dumpPackagesTable(int fd) {
    return dumpTable(fd, "Packages", "package_uid | package_name", kDumpPackages, printPackageRow);
}

int32_t Sqlite3PreferencesDb::dumpPermissionsTable(int fd) {
    return dumpTable(fd, "Permissions", "key | package_uid | permission", kDumpPermissions,
                     printPermissionRow);
}

int32_t Sqlite3PreferencesDb::dumpListenersTable(int fd) {
    return dumpTable(fd, "Listeners", "listener_uuid, key, package_uid", kDumpListeners,
                     printListenerRow);
}

int32_t Sqlite3PreferencesDb::dumpValuesTable(const std::optional<unsigned int>& userId,
                                              PreferenceScope scope, int fd) {
    const char* title = scope == PreferenceScope::System ? "System Values" : "User Values";
    writeTableHeader(fd, title, "key | current_value");
    std::optional<unsigned int> dbUserId;
    if (scope != PreferenceScope::System) {
        if (!userId.has_value()) {
            ALOGE("Unable to dump user values table: no id was provided.");
            dprintf(fd, "Error encountered while dumping table %s: %s.\n", "Preferences",
                    "No user ID provided");
            return StoreStatus::UserRequired;
        }
        const int32_t result = initializeUserDb(*userId);
        if (result != StoreStatus::Ok) {
            dprintf(fd, "Error encountered while dumping table %s: %s.\n", "Preferences",
                    "Unable to initialize user DB");
            return result;
        }
        dbUserId = userId;
    }
    Query query(*this, valueStatement(kValueDump, scope, dbUserId), scope, dbUserId);
    if (!query.built()) {
        dprintf(fd, "Error encountered while dumping table %s.\n", "Preferences");
        return StoreStatus::Failed;
    }
    return dumpTableRows(fd, title, query, printValueRow);
}

int32_t Sqlite3PreferencesDb::dumpPreferencesTable(int fd) {
    static constexpr const char* kTitle = "Preferences";
    writeTableHeader(fd, kTitle,
                     "key | type | scope | owner_package_uid | owner_package_name | "
                     "default_value | expires_at");
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(getDbForScope(PreferenceScope::System, std::nullopt),
                           kQueryDumpPreferencesTable, -1, &statement, nullptr) != SQLITE_OK) {
        ALOGE("Error initializing prepared statements: kQueryDumpPreferencesTable");
        sqlite3_finalize(statement);
        return StoreStatus::Failed;
    }
    int32_t result;
    {
        Query query(*this, statement, PreferenceScope::System, std::nullopt);
        result = dumpTableRows(fd, kTitle, query, printPreferenceRow);
    }
    sqlite3_finalize(statement);
    return result;
}

}  // namespace Halo::OS
