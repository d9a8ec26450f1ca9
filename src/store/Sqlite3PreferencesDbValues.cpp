// Reading, writing, clearing and deleting values of Sqlite3PreferencesDb.

#define LOG_TAG "PreferencesService"
#include <log/log.h>

#include <string>

#include "store/ScopedStatementReset.h"
#include "store/Sqlite3PreferencesDb.h"
#include "store/SqliteBinding.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using PreferenceScope = PreferencesKeyInfo::PreferenceScope;

bool isUserDbScope(PreferenceScope scope) {
    return scope == PreferenceScope::User || scope == PreferenceScope::Cross;
}

}  // namespace

// ---- Reading ----

int32_t Sqlite3PreferencesDb::getPreferenceValue(const std::optional<unsigned int>& userId,
                                                 const std::string& key,
                                                 std::optional<std::string>& value) {
    return getPreferenceValue(userId, userId, key, value);
}

int32_t Sqlite3PreferencesDb::getPreferenceValue(const std::optional<unsigned int>& userId,
                                                 const std::optional<unsigned int>& currentUserId,
                                                 const std::string& key,
                                                 std::optional<std::string>& value) {
    PreferenceScope scope;
    int32_t result = getPreferenceScope(key, scope, false);
    if (result != 0) {
        ALOGE("Unable to get value: the scope could not be determined: %s", key.c_str());
        Telemetry::report("getpreferencevalue_error_scope_lookup");
        return result;
    }
    if (scope == PreferenceScope::User) {
        // A user value is only read for the user in the foreground.
        if (!userId.has_value() || !currentUserId.has_value() || *userId != *currentUserId) {
            return -14;
        }
    } else if (scope == PreferenceScope::Cross && !userId.has_value()) {
        ALOGE("Unable to get value: it is user-scoped but no user id was provided.");
        return -14;
    }
    if (isUserDbScope(scope)) {
        result = initializeUserDb(*userId);
        if (result != 0) return result;
    }
    value.reset();
    if (getCurrentValue(key, scope, userId, value) != 0) {
        ALOGE("Unable to get value: failed to read current value. This should NOT happen, but "
              "attempting to read default value instead for fault tolerance.");
        Telemetry::report("getpreferencevalue_error_retrieve_value");
        value.reset();
    }
    if (value.has_value()) return 0;
    result = getDefaultValue(key, value);
    if (result != 0) {
        ALOGE("Unable to get value: failed to read default value %s", key.c_str());
        Telemetry::report("getpreferencevalue_error_retrieve_default_value");
    }
    return result;
}

int32_t Sqlite3PreferencesDb::getCurrentValue(const std::string& key, PreferenceScope scope,
                                              const std::optional<unsigned int>& userId,
                                              std::optional<std::string>& value) {
    if (isUserDbScope(scope) && !userId.has_value()) {
        ALOGE("Unable to get value %s: it is user-scoped but no user ID was provided.",
              key.c_str());
        return -14;
    }
    sqlite3_stmt* statement = valueStatement(kValueGetCurrent, scope, userId);
    PreferencesValueCache* cache = statement != nullptr ? valueCache(scope, userId) : nullptr;
    if (cache != nullptr) {
        if (const std::optional<std::string>* known = cache->find(key)) {
            value = *known;
            return 0;
        }
    }
    if (!prepareToRun(statement, scope, userId)) return -1;
    ScopedStatementReset reset(statement);
    if (!bindText(statement, 1, key)) {
        logFailureToBuildQuery(scope, userId);
        return -1;
    }
    switch (step(statement)) {
        case SQLITE_ROW:
            value = columnText(statement, 0);
            if (value.has_value()) {
                if (cache != nullptr) cache->remember(key, value);
                return 0;
            }
            ALOGE("The current value is null. This should NOT happen %s", key.c_str());
            Telemetry::report("getpreferencevalue_error_default_value_null");
            return -1;
        case SQLITE_DONE:
            value.reset();
            if (cache != nullptr) cache->remember(key, value);
            return 0;
        default:
            logFailureToExecutePreparedStatement(statement, scope, userId);
            return -1;
    }
}

int32_t Sqlite3PreferencesDb::getDefaultValue(const std::string& key,
                                              std::optional<std::string>& value) {
    const bool cached = mMetadata.use(metadataDb());
    if (cached) {
        if (std::optional<std::string> known = mMetadata.defaultValue(key)) {
            value = std::move(known);
            return 0;
        }
    }
    sqlite3_stmt* statement = systemStatement(kGetDefault);
    if (!prepareToRun(statement, PreferenceScope::System)) return -1;
    ScopedStatementReset reset(statement);
    if (!bindText(statement, 1, key)) {
        logFailureToBuildQuery(PreferenceScope::System);
        return -1;
    }
    switch (step(statement)) {
        case SQLITE_ROW:
            value = columnText(statement, 0);
            if (value.has_value()) {
                if (cached) mMetadata.setDefaultValue(key, *value);
                return 0;
            }
            ALOGE("The default value is null. This should NOT happen %s", key.c_str());
            Telemetry::report("getpreferencevalue_error_default_value_null");
            return -1;
        case SQLITE_DONE:
            ALOGE("Unable to set default: key does not exist in table %s", key.c_str());
            return -8;
        default:
            logFailureToExecutePreparedStatement(statement, PreferenceScope::System);
            return -1;
    }
}

// ---- Writing ----

int32_t Sqlite3PreferencesDb::setPreferenceValue(const std::optional<unsigned int>& userId,
                                                 const std::string& key, const std::string& value) {
    return setPreferenceValue(userId, userId, key, value);
}

int32_t Sqlite3PreferencesDb::setPreferenceValue(const std::optional<unsigned int>& userId,
                                                 const std::optional<unsigned int>& currentUserId,
                                                 const std::string& key, const std::string& value) {
    return updatePreferenceValue(userId, currentUserId, PreferenceValueType::Current, key, value);
}

int32_t Sqlite3PreferencesDb::setPreferenceDefault(const std::string& key,
                                                   const std::string& value) {
    return updatePreferenceValue(std::nullopt, std::nullopt, PreferenceValueType::Default, key,
                                 value);
}

int32_t Sqlite3PreferencesDb::updatePreferenceValue(const std::optional<unsigned int>& userId,
                                                    PreferenceValueType valueType,
                                                    const std::string& key,
                                                    const std::string& value) {
    return updatePreferenceValue(userId, userId, valueType, key, value);
}

int32_t Sqlite3PreferencesDb::updatePreferenceValue(
        const std::optional<unsigned int>& userId, const std::optional<unsigned int>& currentUserId,
        PreferenceValueType valueType, const std::string& key, const std::string& value) {
    PreferenceScope scope = PreferenceScope::System;
    sqlite3_stmt* statement = nullptr;
    switch (valueType) {
        case PreferenceValueType::Current: {
            const int32_t result = getPreferenceScope(key, scope, false);
            if (result != 0) {
                ALOGE("Unable to set value, scope could not be determined %s", key.c_str());
                Telemetry::report("updatepreferencevalue_error_retrieve_scope_lookup");
                return result;
            }
            if (isUserDbScope(scope)) {
                if (!userId.has_value()) {
                    ALOGE("Unable to update value: it is user-scoped but no user ID was provided "
                          "%s",
                          key.c_str());
                    return -14;
                }
                // A user value is only written for the user in the foreground.
                if (scope == PreferenceScope::User &&
                    (!currentUserId.has_value() || *currentUserId != *userId)) {
                    return -1;
                }
                const int32_t opened = initializeUserDb(*userId);
                if (opened != 0) {
                    ALOGE("Unable to update value: failed to initialize user DB for user %s",
                          key.c_str());
                    return opened;
                }
            }
            statement = valueStatement(kValueUpdateCurrent, scope, userId);
            break;
        }
        case PreferenceValueType::Default:
            statement = systemStatement(kSetDefault);
            break;
        default:
            statement = systemStatement(kUpdateCurrentValue);
            break;
    }
    const std::optional<unsigned int> dbUserId =
            isUserDbScope(scope) ? userId : std::optional<unsigned int>();

    // Update first; only a key without a value row gets one inserted, and is updated once more.
    bool inserted = false;
    while (true) {
        if (!prepareToRun(statement, scope, dbUserId)) return -1;
        ScopedStatementReset reset(statement);
        if (!bindText(statement, 1, value) || !bindText(statement, 2, key)) {
            logFailureToBuildQuery(scope, dbUserId);
            return -1;
        }
        // Only a current value leaves key metadata alone; a default is key metadata.
        const int32_t written = valueType == PreferenceValueType::Current
                                        ? runValueWrite(statement, scope, dbUserId)
                                        : runWrite(statement, scope, dbUserId);
        if (written != 0) return -1;
        if (changedRows(scope, dbUserId) > 0) return 0;
        if (valueType != PreferenceValueType::Current || inserted) {
            ALOGE("Unable to update value(scope %s, %s value): value row for key not found",
                  scopeToString(scope),
                  valueType == PreferenceValueType::Default ? "default" : "current");
            Telemetry::report("updatepreferencevalue_error_value_row_not_found");
            return -8;
        }
        const int32_t result = insertValueRow(dbUserId, key, scope);
        if (result != 0) {
            ALOGE("Unable to set value: failed to insert value row for key.");
            Telemetry::report("updatepreferencevalue_error_insert_value_row");
            return result;
        }
        inserted = true;
    }
}

int32_t Sqlite3PreferencesDb::insertValueRow(const std::optional<unsigned int>& userId,
                                             const std::string& key, PreferenceScope scope) {
    if (isUserDbScope(scope)) {
        if (!userId.has_value()) {
            ALOGE("Unable to insert value row: it is user-scoped but no user was provided.");
            return -14;
        }
        const int32_t result = initializeUserDb(*userId);
        if (result != 0) return result;
    }
    sqlite3_stmt* statement = valueStatement(kValueInsertRow, scope, userId);
    if (!prepareToRun(statement, scope, userId)) return -1;
    ScopedStatementReset reset(statement);
    if (!bindText(statement, 1, key)) {
        logFailureToBuildQuery(scope, userId);
        return -1;
    }
    const int stepped = stepValueWrite(statement, scope);
    if (stepped == SQLITE_DONE) return 0;
    if (isConstraintFailure(stepped)) {
        ALOGE("Unable to insert duplicate value row for key.");
    } else {
        logFailureToExecutePreparedStatement(statement, scope, userId);
    }
    return -1;
}

// ---- Clearing ----

int32_t Sqlite3PreferencesDb::clearCurrentPreferenceValue(const std::optional<unsigned int>& userId,
                                                          const std::string& key) {
    PreferenceScope scope;
    int32_t result = getPreferenceScope(key, scope, false);
    if (result != 0) {
        ALOGE("Unable to clear value: the scope could not be determined: %s", key.c_str());
        Telemetry::report("clearpreferencevalue_error_scope_lookup");
        return result;
    }
    if (isUserDbScope(scope)) {
        if (!userId.has_value()) {
            ALOGE("Unable to clear value: it is user-scoped but no user id was provided.");
            return -14;
        }
        result = initializeUserDb(*userId);
        if (result != 0) return result;
    } else if (scope != PreferenceScope::System) {
        ALOGE("Invalid scope provided to clear current value: %u.",
              static_cast<unsigned int>(scope));
        return -1;
    }
    return clearCurrentPreferenceValue(userId, key, scope);
}

int32_t Sqlite3PreferencesDb::clearCurrentPreferenceValue(const std::optional<unsigned int>& userId,
                                                          const std::string& key,
                                                          PreferenceScope scope) {
    if (isUserDbScope(scope)) {
        if (!userId.has_value()) {
            ALOGE("Unable to clear value: it is user-scoped but no ser ID was provided.");
            return -14;
        }
        const int32_t result = initializeUserDb(*userId);
        if (result != 0) return result;
    }
    sqlite3_stmt* statement = valueStatement(kValueClearCurrent, scope, userId);
    if (!prepareToRun(statement, scope, userId)) return -1;
    ScopedStatementReset reset(statement);
    if (!bindText(statement, 1, key)) {
        logFailureToBuildQuery(scope, userId);
        return -1;
    }
    return runValueWrite(statement, scope, userId);
}

int32_t Sqlite3PreferencesDb::clearCurrentPreferenceValueFromUserDbs(const std::string& key) {
    std::vector<unsigned int> userIds;
    if (!getUserIdsOfDbsForKey(userIds)) return -1;
    int32_t result = 0;
    for (unsigned int userId : userIds) {
        const int32_t cleared = clearCurrentPreferenceValue(userId, key, PreferenceScope::User);
        if (cleared != 0 && result == 0) result = cleared;
    }
    return result;
}

// ---- Deleting ----

int32_t Sqlite3PreferencesDb::deletePreferenceFromValueTables(const std::string& key,
                                                              PreferenceScope scope) {
    switch (scope) {
        case PreferenceScope::System:
            return deletePreferenceValueRow(std::nullopt, key, PreferenceScope::System);
        case PreferenceScope::User:
        case PreferenceScope::Cross:
            return deletePreferenceValueRowFromUserDbs(key);
    }
    ALOGE("Invalid scope provided to delete value from tables: %u.",
          static_cast<unsigned int>(scope));
    return -1;
}

int32_t Sqlite3PreferencesDb::deletePreferenceValueRow(const std::optional<unsigned int>& userId,
                                                       const std::string& key,
                                                       PreferenceScope scope) {
    if (isUserDbScope(scope)) {
        if (!userId.has_value()) {
            ALOGE("Unable to delete value row for %s: it is user-scoped but no user was "
                  "provided.",
                  key.c_str());
            return -14;
        }
        const int32_t result = initializeUserDb(*userId);
        if (result != 0) return result;
    }
    sqlite3_stmt* statement = valueStatement(kValueDeleteRow, scope, userId);
    if (!prepareToRun(statement, scope, userId)) return -1;
    ScopedStatementReset reset(statement);
    if (!bindText(statement, 1, key)) {
        logFailureToBuildQuery(scope, userId);
        return -1;
    }
    if (runValueWrite(statement, scope, userId) != 0) return -1;
    if (changedRows(scope, userId) > 0) return 0;
    ALOGW("Unable to delete value row: value row for %s not found. this may be normal.",
          key.c_str());
    return -8;
}

int32_t Sqlite3PreferencesDb::deletePreferenceValueRowFromUserDbs(const std::string& key) {
    std::vector<unsigned int> userIds;
    if (!getUserIdsOfDbsForKey(userIds)) return -1;
    int32_t failure = 0;
    bool deleted = false;
    for (unsigned int userId : userIds) {
        int32_t result = initializeUserDb(userId);
        if (result != 0) {
            ALOGE("Unable to initialize user database for %d while deleting values for %s", userId,
                  key.c_str());
        } else {
            result = deletePreferenceValueRow(userId, key, PreferenceScope::User);
        }
        if (result == 0) {
            deleted = true;
        } else if (result != -8 && failure == 0) {
            failure = result;
        }
    }
    if (failure != 0) return failure;
    return deleted ? 0 : -8;
}

}  // namespace Halo::OS
