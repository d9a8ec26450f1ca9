#define LOG_TAG "PreferencesService"

#include "intake/PreferencesVersionManager.h"

#include <log/log.h>

#include <cstdlib>
#include <utility>

#include "model/JsonParsing.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

constexpr const char* kWritingVersionFailedEvent = "writing_version_failed";

}  // namespace

const char* const PreferencesVersionManager::kPreferencesVersionSchemaList = R"json({
    "add": true,
    "restart": false,
    "schemas": [
        {
            "version": "1.0",
            "packageName": "nimbus.preferences.service.core",
            "date": "11/18/2021",
            "contents": [
                {
                    "key": "preferences_version",
                    "type": "integer",
                    "default": "1",
                    "hasWritePermission": true,
                    "scope": "system",
                    "isOwner": true
                },
                {
                    "key": "current_user",
                    "type": "integer",
                    "default": "0",
                    "hasWritePermission": true,
                    "scope": "system",
                    "isOwner": true
                }
            ]
        }
    ]
})json";

PreferencesVersionManager::PreferencesVersionManager(
        std::shared_ptr<PreferencesKeyManager> keyManager)
    : mKeyManager(std::move(keyManager)) {}

bool PreferencesVersionManager::upgradeToLatestVersion() {
    return upgradeToVersion(kLatestVersion);
}

bool PreferencesVersionManager::upgradeToVersion(int target) {
    int current = getCurrentVersion();
    const int stored = getPrefStoreVersion();
    if (current >= target) return true;

    // Only a store that has never had the key needs the version keys declared.
    bool needKeys = stored == kUnknownVersion;
    while (true) {
        if (current == 0 || current == kUnknownVersion) {
            if (!upgradeVersionFromV0ToV1()) return upgradeFailed("upgrading_version_v0_v1_failed");
            if (needKeys && !injectVersionKeys()) return false;
            if (!setVersion(1)) {
                ALOGE("writing version %d failed", 1);
                Telemetry::report(kWritingVersionFailedEvent);
                return false;
            }
            needKeys = false;
        } else if (current != 1) {
            ALOGE("upgradeToVersion has wrong version set");
            return false;
        }

        if (!upgradeVersionFromV1ToV2()) return upgradeFailed("upgrading_version_v1_v2_failed");
        // A failed declaration does not undo the upgrade: the version is then left unwritten, and
        // the next start finds a version-2 store without the key and writes it back.
        if (!needKeys || injectVersionKeys()) {
            if (!setVersion(2)) {
                ALOGE("writing version %d failed", 2);
                Telemetry::report(kWritingVersionFailedEvent);
                return false;
            }
            needKeys = false;
        }

        current = 2;
        if (target <= 2) return true;
    }
}

int PreferencesVersionManager::getCurrentVersion() {
    const int stored = getPrefStoreVersion();
    if (stored != kUnknownVersion) return stored;
    if (mKeyManager == nullptr) return kUnknownVersion;

    const int version = mKeyManager->getDatabaseUserVersion();
    if (version < 2) return version;
    // A store at version 2 that lost its version key (or never had one).
    if (!injectKeys(kPreferencesVersionSchemaList) || !setVersion(version)) {
        ALOGE("writing version %d failed", version);
        Telemetry::report(kWritingVersionFailedEvent);
    }
    return version;
}

int PreferencesVersionManager::getPrefStoreVersion() const {
    // A fresh store has not declared the key yet: no version, without a refused read in the log.
    if (mKeyManager == nullptr || !mKeyManager->isDeclared(kVersionKey)) {
        return kUnknownVersion;
    }
    std::string value;
    // The version key is declared as an integer; the read names that type.
    if (mKeyManager->getWithoutPermissionCheck(
                kVersionKey, value, PreferencesKeyInfo::Type::Integer) != KeyManagerStatus::Ok) {
        return kUnknownVersion;
    }
    return static_cast<int>(strtol(value.c_str(), nullptr, 10));
}

bool PreferencesVersionManager::setVersion(int version) {
    if (mKeyManager == nullptr) return false;
    // The version key is declared as an integer; the write names that type.
    return mKeyManager->setWithoutCallback(kVersionKey, std::to_string(version),
                                           PreferencesKeyInfo::Type::Integer) ==
           KeyManagerStatus::Ok;
}

bool PreferencesVersionManager::injectKeys(const std::string& schemaListJson) {
    const std::unique_ptr<PreferencesSchemaList> list = buildSchemaList(schemaListJson);
    if (list == nullptr) {
        ALOGE("Failed to generate version key schema list.");
        return false;
    }
    // The core keys belong to the service's own package, whose domain is Legacy.
    if (mKeyManager == nullptr || !mKeyManager->process(list, KeySourceDomain::Legacy)) {
        ALOGE("Failed to inject version keys.");
        return false;
    }
    return true;
}

std::unique_ptr<PreferencesSchemaList> PreferencesVersionManager::buildSchemaList(
        const std::string& schemaListJson) {
    Json::Value document;
    if (!parseJsonText(schemaListJson, document)) {
        ALOGE("failed to parse schema list");
        return nullptr;
    }
    PreferencesSchemaListBuilder listBuilder;
    if (!listBuilder.process(document)) {
        ALOGE("failed to process schema list");
        return nullptr;
    }
    return listBuilder.build();
}

bool PreferencesVersionManager::upgradeVersionFromV0ToV1() {
    return mKeyManager != nullptr && mKeyManager->upgradeVersionFromV0ToV1();
}

bool PreferencesVersionManager::upgradeVersionFromV1ToV2() {
    return mKeyManager != nullptr && mKeyManager->upgradeVersionFromV1ToV2();
}

bool PreferencesVersionManager::upgradeFailed(const char* event) {
    // One text for both steps; the event tells them apart.
    ALOGE("upgradeVersionFromV0ToV1 failed");
    Telemetry::report(event);
    return false;
}

bool PreferencesVersionManager::injectVersionKeys() {
    if (injectKeys(kPreferencesVersionSchemaList)) return true;
    ALOGE("Inject key: kPreferencesVersionSchemaList failed");
    Telemetry::report("inject_version_key_failed");
    return false;
}

}  // namespace Halo::OS
