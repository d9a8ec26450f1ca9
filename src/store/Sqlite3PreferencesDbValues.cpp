// Reading, writing, clearing and deleting values of Sqlite3PreferencesDb.

#define LOG_TAG "PreferencesService"
#include <log/log.h>

#include <string>

#include "store/Sqlite3PreferencesDb.h"
#include "store/SqliteBinding.h"
#include "store/StoreTexts.h"
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
                                                 const std::optional<unsigned int>& callerUserId,
                                                 const std::string& key,
                                                 std::optional<std::string>& value) {
    PreferenceScope scope;
    int32_t result = getPreferenceScope(key, scope, false);
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to get value: the scope could not be determined: %s", key.c_str());
        Telemetry::report("getpreferencevalue_error_scope_lookup");
        return result;
    }
    if (scope == PreferenceScope::User) {
        // A user value is only read for the caller's own user.
        if (!userId.has_value() || !callerUserId.has_value() || *userId != *callerUserId) {
            return StoreStatus::UserRequired;
        }
    } else if (scope == PreferenceScope::Cross && !userId.has_value()) {
        ALOGE("Unable to get value: it is user-scoped but no user id was provided.");
        return StoreStatus::UserRequired;
    }
    if (isUserDbScope(scope)) {
        result = initializeUserDb(*userId);
        if (result != StoreStatus::Ok) return result;
    }
    value.reset();
    if (getCurrentValue(key, scope, userId, value) != StoreStatus::Ok) {
        ALOGE("Unable to get value: failed to read current value. This should NOT happen, but "
              "attempting to read default value instead for fault tolerance.");
        Telemetry::report("getpreferencevalue_error_retrieve_value");
        value.reset();
    }
    if (value.has_value()) return StoreStatus::Ok;
    result = getDefaultValue(key, value);
    if (result != StoreStatus::Ok) {
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
        return StoreStatus::UserRequired;
    }
    sqlite3_stmt* statement = valueStatement(kValueGetCurrent, scope, userId);
    PreferencesValueCache* cache = statement != nullptr ? valueCache(scope, userId) : nullptr;
    if (cache != nullptr) {
        if (const std::optional<std::string>* known = cache->find(key)) {
            value = *known;
            return StoreStatus::Ok;
        }
    }
    Query query(*this, statement, scope, userId, key);
    if (!query.built()) return StoreStatus::Failed;
    switch (query.step()) {
        case SQLITE_ROW:
            value = columnText(query.statement(), 0);
            if (value.has_value()) {
                if (cache != nullptr) cache->remember(key, value);
                return StoreStatus::Ok;
            }
            ALOGE("The current value is null. This should NOT happen %s", key.c_str());
            Telemetry::report("getpreferencevalue_error_default_value_null");
            return StoreStatus::Failed;
        case SQLITE_DONE:
            value.reset();
            if (cache != nullptr) cache->remember(key, value);
            return StoreStatus::Ok;
        default:
            query.logFailedStep();
            return StoreStatus::Failed;
    }
}

int32_t Sqlite3PreferencesDb::getDefaultValue(const std::string& key,
                                              std::optional<std::string>& value) {
    const bool cached = mMetadata.use(metadataDb());
    if (cached) {
        if (std::optional<std::string> known = mMetadata.defaultValue(key)) {
            value = std::move(known);
            return StoreStatus::Ok;
        }
    }
    Query query = systemQuery(kGetDefault, key);
    if (!query.built()) return StoreStatus::Failed;
    switch (query.step()) {
        case SQLITE_ROW:
            value = columnText(query.statement(), 0);
            if (value.has_value()) {
                if (cached) mMetadata.setDefaultValue(key, *value);
                return StoreStatus::Ok;
            }
            ALOGE("The default value is null. This should NOT happen %s", key.c_str());
            Telemetry::report("getpreferencevalue_error_default_value_null");
            return StoreStatus::Failed;
        case SQLITE_DONE:
            ALOGE("Unable to set default: key does not exist in table %s", key.c_str());
            return StoreStatus::UnknownKey;
        default:
            query.logFailedStep();
            return StoreStatus::Failed;
    }
}

// ---- Writing ----

int32_t Sqlite3PreferencesDb::setPreferenceValue(const std::optional<unsigned int>& userId,
                                                 const std::string& key, const std::string& value) {
    return setPreferenceValue(userId, userId, key, value);
}

int32_t Sqlite3PreferencesDb::setPreferenceValue(const std::optional<unsigned int>& userId,
                                                 const std::optional<unsigned int>& callerUserId,
                                                 const std::string& key, const std::string& value) {
    return updatePreferenceValue(userId, callerUserId, PreferenceValueType::Current, key, value);
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

int32_t Sqlite3PreferencesDb::updatePreferenceValue(const std::optional<unsigned int>& userId,
                                                    const std::optional<unsigned int>& callerUserId,
                                                    PreferenceValueType valueType,
                                                    const std::string& key,
                                                    const std::string& value) {
    PreferenceScope scope = PreferenceScope::System;
    sqlite3_stmt* statement = nullptr;
    switch (valueType) {
        case PreferenceValueType::Current: {
            const int32_t result = getPreferenceScope(key, scope, false);
            if (result != StoreStatus::Ok) {
                ALOGE("Unable to set value, scope could not be determined %s", key.c_str());
                Telemetry::report("updatepreferencevalue_error_retrieve_scope_lookup");
                return result;
            }
            if (isUserDbScope(scope)) {
                if (!userId.has_value()) {
                    ALOGE("Unable to update value: it is user-scoped but no user ID was provided "
                          "%s",
                          key.c_str());
                    return StoreStatus::UserRequired;
                }
                // A user value is only written for the caller's own user.
                if (scope == PreferenceScope::User &&
                    (!callerUserId.has_value() || *callerUserId != *userId)) {
                    return StoreStatus::Failed;
                }
                const int32_t opened = initializeUserDb(*userId);
                if (opened != StoreStatus::Ok) {
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
        Query query(*this, statement, scope, dbUserId, value, key);
        if (!query.built()) return StoreStatus::Failed;
        // Only a current value leaves key metadata alone; a default is key metadata.
        const int32_t written =
                valueType == PreferenceValueType::Current ? query.writeValue() : query.write();
        if (written != StoreStatus::Ok) return StoreStatus::Failed;
        if (changedRows(scope, dbUserId) > 0) return StoreStatus::Ok;
        if (valueType != PreferenceValueType::Current || inserted) {
            ALOGE("Unable to update value(scope %s, %s value): value row for key not found",
                  scopeToString(scope),
                  valueType == PreferenceValueType::Default ? "default" : "current");
            Telemetry::report("updatepreferencevalue_error_value_row_not_found");
            return StoreStatus::UnknownKey;
        }
        const int32_t result = insertValueRow(dbUserId, key, scope);
        if (result != StoreStatus::Ok) {
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
            return StoreStatus::UserRequired;
        }
        const int32_t result = initializeUserDb(*userId);
        if (result != StoreStatus::Ok) return result;
    }
    Query query(*this, valueStatement(kValueInsertRow, scope, userId), scope, userId, key);
    if (!query.built()) return StoreStatus::Failed;
    const int stepped = query.stepValue();
    if (stepped == SQLITE_DONE) return StoreStatus::Ok;
    if (isConstraintFailure(stepped)) {
        ALOGE("Unable to insert duplicate value row for key.");
    } else {
        query.logFailedStep();
    }
    return StoreStatus::Failed;
}

// ---- Clearing ----

int32_t Sqlite3PreferencesDb::clearCurrentPreferenceValue(const std::optional<unsigned int>& userId,
                                                          const std::string& key) {
    PreferenceScope scope;
    int32_t result = getPreferenceScope(key, scope, false);
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to clear value: the scope could not be determined: %s", key.c_str());
        Telemetry::report("clearpreferencevalue_error_scope_lookup");
        return result;
    }
    if (isUserDbScope(scope)) {
        if (!userId.has_value()) {
            ALOGE("Unable to clear value: it is user-scoped but no user id was provided.");
            return StoreStatus::UserRequired;
        }
        result = initializeUserDb(*userId);
        if (result != StoreStatus::Ok) return result;
    } else if (scope != PreferenceScope::System) {
        ALOGE("Invalid scope provided to clear current value: %u.",
              static_cast<unsigned int>(scope));
        return StoreStatus::Failed;
    }
    return clearCurrentPreferenceValue(userId, key, scope);
}

int32_t Sqlite3PreferencesDb::clearCurrentPreferenceValue(const std::optional<unsigned int>& userId,
                                                          const std::string& key,
                                                          PreferenceScope scope) {
    if (isUserDbScope(scope)) {
        if (!userId.has_value()) {
            ALOGE("Unable to clear value: it is user-scoped but no ser ID was provided.");
            return StoreStatus::UserRequired;
        }
        const int32_t result = initializeUserDb(*userId);
        if (result != StoreStatus::Ok) return result;
    }
    Query query(*this, valueStatement(kValueClearCurrent, scope, userId), scope, userId, key);
    return query.writeValue();
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
    return StoreStatus::Failed;
}

int32_t Sqlite3PreferencesDb::deletePreferenceValueRow(const std::optional<unsigned int>& userId,
                                                       const std::string& key,
                                                       PreferenceScope scope) {
    if (isUserDbScope(scope)) {
        if (!userId.has_value()) {
            ALOGE("Unable to delete value row for %s: it is user-scoped but no user was "
                  "provided.",
                  key.c_str());
            return StoreStatus::UserRequired;
        }
        const int32_t result = initializeUserDb(*userId);
        if (result != StoreStatus::Ok) return result;
    }
    Query query(*this, valueStatement(kValueDeleteRow, scope, userId), scope, userId, key);
    if (!query.built()) return StoreStatus::Failed;
    if (query.writeValue() != StoreStatus::Ok) return StoreStatus::Failed;
    if (changedRows(scope, userId) > 0) return StoreStatus::Ok;
    ALOGW("Unable to delete value row: value row for %s not found. this may be normal.",
          key.c_str());
    return StoreStatus::UnknownKey;
}

int32_t Sqlite3PreferencesDb::deletePreferenceValueRowFromUserDbs(const std::string& key) {
    std::vector<unsigned int> userIds;
    if (!getUserIdsOfDbsForKey(userIds)) return StoreStatus::Failed;
    int32_t failure = StoreStatus::Ok;
    bool deleted = false;
    for (unsigned int userId : userIds) {
        int32_t result = initializeUserDb(userId);
        if (result != StoreStatus::Ok) {
            ALOGE("Unable to initialize user database for %d while deleting values for %s", userId,
                  key.c_str());
        } else {
            result = deletePreferenceValueRow(userId, key, PreferenceScope::User);
        }
        if (result == StoreStatus::Ok) {
            deleted = true;
        } else if (result != StoreStatus::UnknownKey && failure == StoreStatus::Ok) {
            failure = result;
        }
    }
    if (failure != StoreStatus::Ok) return failure;
    return deleted ? 0 : StoreStatus::UnknownKey;
}

}  // namespace Halo::OS
