#define LOG_TAG "PreferencesService"

#include "intake/PreferencesLegacyKeysMigrationManager.h"

#include <cutils/multiuser.h>
#include <log/log.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <unordered_set>
#include <utility>

#include "model/JsonParsing.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {

using Status = PreferencesLegacyKeysMigrationManager::Status;

const char* const PreferencesLegacyKeysMigrationManager::kCoreStatusSchemaList = R"json({
    "add": true,
    "restart": false,
    "schemas": [
        {
            "version": "1.0",
            "packageName": "nimbus.preferences.service.core",
            "date": "01/26/2021",
            "contents": [
                {
                    "key": "preferences_service_legacy_keys_migration_status_key",
                    "type": "integer",
                    "default": "1",
                    "hasWritePermission": true,
                    "scope": "system",
                    "isOwner": true
                }
            ]
        }
    ]
})json";

const char* const PreferencesLegacyKeysMigrationManager::kRemovalSchemaList = R"json({
    "add": false,
    "restart": false,
    "schemas": [
        {
            "version": "1.0",
            "packageName": "nimbus.preferences.service.core",
            "date": "01/26/2021"
        },
        {
            "version": "1.0",
            "packageName": "nimbus.preferences.service.legacy",
            "date": "01/26/2021"
        }
    ]
})json";

PreferencesLegacyKeysMigrationManager::PreferencesLegacyKeysMigrationManager(
        std::shared_ptr<PreferencesKeyManager> keyManager)
    : PreferencesLegacyKeysMigrationManager(std::move(keyManager),
                                            std::make_shared<LegacySettingsDbHelper>()) {}

PreferencesLegacyKeysMigrationManager::PreferencesLegacyKeysMigrationManager(
        std::shared_ptr<PreferencesKeyManager> keyManager,
        std::shared_ptr<LegacySettingsDbHelper> legacyDb,
        std::shared_ptr<const PreferencesDeviceConfig> config)
    : mKeyManager(std::move(keyManager)),
      mLegacyDb(std::move(legacyDb)),
      mConfig(config != nullptr ? std::move(config) : PreferencesDeviceConfig::instance()) {}

bool PreferencesLegacyKeysMigrationManager::migrateLegacyKeys() {
    if (mKeyManager == nullptr || mLegacyDb == nullptr) {
        ALOGE("migration modules missing");
        return false;
    }

    // The key manager applies the legacy access rules by name, on every start: before any legacy
    // value is written here, and whatever the status.
    std::unordered_set<std::string> legacyNames;
    for (const auto& [index, name] : mConfig->legacyKeyTables().names()) legacyNames.insert(name);
    mKeyManager->setLegacyKeys(std::move(legacyNames));

    const Status status = getLegacyKeysMigrationStatus();
    // An unknown status (above Removed, or a negative number) leaves everything as it is: it may
    // come from a newer migration, and deleting legacy files that were not copied would lose
    // values.
    if (static_cast<int>(status) > static_cast<int>(Status::Removed) ||
        static_cast<int>(status) < static_cast<int>(Status::NoStatus)) {
        return true;
    }

    if (status == Status::Removed) {
        // Declared again so that a changed list reaches the store.
        if (!injectKeys(mConfig->legacyKeySchemaList())) {
            ALOGE("migration: failed to inject legacy key again to udpate DB");
        }
        return true;
    }

    bool minorFailure = false;
    if (status == Status::NoStatus) {
        if (!injectKeys(kCoreStatusSchemaList)) {
            ALOGE("migration: migration status injection failed");
            Telemetry::report("migration_statuskey_injection_failed");
            return false;
        }
        if (!setLegacyKeysMigrationStatus(Status::NotStarted)) {
            ALOGE("migration: failed to set migration status to not started");
            Telemetry::report("migration_statuskey_setto_notstarted_failed");
            minorFailure = true;
        }
    }

    if (status == Status::NoStatus || status == Status::NotStarted) {
        if (!injectKeys(mConfig->legacyKeySchemaList())) {
            ALOGE("migration: failed to inject legacy key");
            Telemetry::report("migration_legacykeys_injection_failed");
            return false;
        }
        if (!migrateLegacyKeyValue()) {
            ALOGE("migration: failed to migrate legacy key value");
            Telemetry::report("migration_legacykeys_value_migration_failed");
            minorFailure = true;
        }
        // The legacy files are deleted only once this is stored.
        if (!setLegacyKeysMigrationStatus(Status::Completed)) {
            ALOGE("migration: failed to set migration status to completed");
            Telemetry::report("migration_statuskey_setto_completed_failed");
            return false;
        }
    }

    if (!mLegacyDb->deleteSystemAndAllUserDbs()) {
        ALOGE("migration: failed to remove old database");
        Telemetry::report("migration_legacy_database_files_deletion_failed");
        minorFailure = true;
    }
    if (!setLegacyKeysMigrationStatus(Status::Removed)) {
        ALOGE("migration: failed to set migration status key value to removed");
        Telemetry::report("migration_statuskey_setto_removed_failed");
        minorFailure = true;
    }

    Telemetry::report("migration_successful_prefstore_running");
    if (minorFailure) ALOGE("migration: has minor failure which do not impact performance");
    return true;
}

Status PreferencesLegacyKeysMigrationManager::getLegacyKeysMigrationStatus() const {
    // A fresh store has not declared the key yet: no status, without a refused read in the log.
    if (mKeyManager == nullptr || !mKeyManager->isDeclared(kMigrationStatusKey)) {
        return Status::NoStatus;
    }
    std::string value;
    // The status key is declared as an integer; the read names that type.
    if (mKeyManager->getWithoutPermissionCheck(kMigrationStatusKey, value,
                                               PreferencesKeyInfo::Type::Integer) !=
        KeyManagerStatus::Ok) {
        return Status::NoStatus;
    }
    return static_cast<Status>(static_cast<int>(strtol(value.c_str(), nullptr, 10)));
}

bool PreferencesLegacyKeysMigrationManager::setLegacyKeysMigrationStatus(const Status& status) {
    if (mKeyManager == nullptr) return false;
    // The status key is declared as an integer; the write names that type.
    return mKeyManager->setWithoutCallback(
                   kMigrationStatusKey, std::to_string(static_cast<int>(status)),
                   PreferencesKeyInfo::Type::Integer) == KeyManagerStatus::Ok;
}

bool PreferencesLegacyKeysMigrationManager::injectKeys(const std::string& schemaListJson) {
    const std::unique_ptr<PreferencesSchemaList> list = buildSchemaList(schemaListJson);
    if (list == nullptr) {
        ALOGE("failed to generate legacy schema list");
        return false;
    }
    if (mKeyManager == nullptr || !mKeyManager->process(list, KeySourceDomain::Legacy)) {
        ALOGE("failed to inject legacy keys");
        return false;
    }
    return true;
}

std::unique_ptr<PreferencesSchemaList> PreferencesLegacyKeysMigrationManager::buildSchemaList(
        const std::string& schemaListJson) {
    Json::Value document;
    if (!parseJsonText(schemaListJson, document)) {
        return nullptr;
    }
    PreferencesSchemaListBuilder listBuilder;
    if (!listBuilder.process(document)) return nullptr;
    return listBuilder.build();
}

bool PreferencesLegacyKeysMigrationManager::migrateLegacyKeyValue() {
    const bool system = migrateSystemSettings();
    if (!system) ALOGE("migrate system settings failed");
    const bool users = migrateUserSettings(mLegacyDb->getUserIds());
    if (!users) ALOGE("migrate user settings failed");
    return system && users;
}

template <typename Read>
bool PreferencesLegacyKeysMigrationManager::migrateLocation(int location, unsigned int userId,
                                                            Read read) {
    const PreferencesLegacyKeyTables& tables = mConfig->legacyKeyTables();
    const unsigned int appId = multiuser_get_app_id(callingUid());
    bool result = true;
    for (const auto& [index, legacyDefault] : tables.migrationList()) {
        const std::optional<std::string> name = tables.findName(index);
        if (!name) {
            ALOGE("can not find key index %d", index);
            result = false;
            continue;
        }
        const std::optional<int> keyLocation = tables.findLocation(index);
        if (!keyLocation) {
            ALOGE("can not find %s type", name->c_str());
            result = false;
            continue;
        }
        if (*keyLocation != location) continue;
        const std::string value = read(*name);
        // An empty legacy value is an unset setting: the key keeps its default.
        if (value.empty()) continue;
        if (!setLegacyKeyValue(*name, value, userId, appId)) result = false;
    }
    return result;
}

bool PreferencesLegacyKeysMigrationManager::migrateSystemSettings() {
    if (mLegacyDb == nullptr || !mLegacyDb->isSystemDatabaseAvailable()) return true;
    return migrateLocation(
            PreferencesLegacyKeyTables::kSystemLocation, multiuser_get_user_id(callingUid()),
            [this](const std::string& name) { return mLegacyDb->getSystemSetting(name, ""); });
}

bool PreferencesLegacyKeysMigrationManager::migrateUserSettings(const std::vector<int>& userIds) {
    if (mLegacyDb == nullptr) return true;
    bool result = true;
    for (const int userId : userIds) {
        if (userId < 0 || !mLegacyDb->isUserDatabaseAvailable(userId)) continue;
        const bool migrated = migrateLocation(
                PreferencesLegacyKeyTables::kUserLocation, static_cast<unsigned int>(userId),
                [this, userId](const std::string& name) {
                    return mLegacyDb->getUserSetting(name, "", userId);
                });
        result = result && migrated;
    }
    return result;
}

bool PreferencesLegacyKeysMigrationManager::setLegacyKeyValue(const std::string& key,
                                                              const std::string& value,
                                                              unsigned int userId,
                                                              unsigned int appId) {
    const PreferencesKeyInfo::Type type = getLegacyKeyType(key);
    if (type == PreferencesKeyInfo::Type::NoType) return true;
    const uid_t uid = multiuser_get_uid(userId, appId);
    if (mKeyManager == nullptr ||
        mKeyManager->setWithoutCallback(key, value, type, uid) != KeyManagerStatus::Ok) {
        ALOGE("failed to set legacy value on %s, %d", key.c_str(), static_cast<int>(uid));
        return false;
    }
    return true;
}

bool PreferencesLegacyKeysMigrationManager::setLegacyKeyValue(const std::string& key,
                                                              const std::string& value,
                                                              unsigned int userId) {
    return setLegacyKeyValue(key, value, userId, multiuser_get_app_id(callingUid()));
}

bool PreferencesLegacyKeysMigrationManager::setLegacyKeyValue(const std::string& key,
                                                              const std::string& value) {
    return setLegacyKeyValue(key, value, multiuser_get_user_id(callingUid()));
}

PreferencesKeyInfo::Type PreferencesLegacyKeysMigrationManager::getLegacyKeyType(
        const std::string& key) const {
    const PreferencesLegacyKeyTables& tables = mConfig->legacyKeyTables();
    const int index = tables.findIndex(key).value_or(-1);
    const std::optional<PreferencesKeyInfo::Type> type = tables.findType(index);
    if (!type) {
        ALOGE("can not find key index %d in type", index);
        return PreferencesKeyInfo::Type::NoType;
    }
    return *type;
}

int PreferencesLegacyKeysMigrationManager::getLegacyKeyScope(const std::string& key) const {
    const PreferencesLegacyKeyTables& tables = mConfig->legacyKeyTables();
    const std::optional<int> index = tables.findIndex(key);
    if (!index) return 0;
    return tables.findLocation(*index).value_or(0);
}

uid_t PreferencesLegacyKeysMigrationManager::callingUid() const {
    return mKeyManager != nullptr ? mKeyManager->getCallingUid() : getuid();
}

}  // namespace Halo::OS
