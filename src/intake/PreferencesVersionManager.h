#pragma once

#include <memory>
#include <string>

#include "keymanager/PreferencesKeyManager.h"
#include "model/PreferencesSchemaList.h"

namespace Halo::OS {

// Keeps the preference store's version in the key "preferences_version", declares the service's
// core keys ("preferences_version" and "current_user", package "nimbus.preferences.service.core")
// and takes the store through its upgrades, version 0 to 1 to 2, through the key manager.
//
// Versions: 0, 1 and 2 (kLatestVersion); kUnknownVersion when there is no key manager, no value,
// or a read error. The version key is written without change notifications.
//
// A short-lived object of the service's start-up thread, used before clients are served; not
// thread-safe. The key manager's own locking covers the calls into it.
class PreferencesVersionManager {
public:
    static constexpr int kLatestVersion = 2;
    static constexpr int kUnknownVersion = -1;
    static constexpr const char* kVersionKey = "preferences_version";
    // The schema list that declares the core keys, added from the Legacy domain (the domain of
    // the service's own packages).
    static const char* const kPreferencesVersionSchemaList;

    // `keyManager` may be null: every operation then fails.
    explicit PreferencesVersionManager(std::shared_ptr<PreferencesKeyManager> keyManager);

    // upgradeToVersion(kLatestVersion).
    bool upgradeToLatestVersion();
    // Upgrades the store step by step until it is at `target`, declaring the version keys and
    // writing the version after each step. True at once when the store is at `target` or above.
    // False, with a log line (and an event where one is named), when a step fails or when no
    // upgrade leads further ("upgradeToVersion has wrong version set": nothing goes beyond
    // kLatestVersion). Steps already done stay done.
    bool upgradeToVersion(int target);

    // The stored version; when there is none, the store's own schema version. A store at
    // version 2 or above without the key gets the version keys declared and its version written
    // back ("writing version %d failed" and "writing_version_failed" when that fails).
    // kUnknownVersion when neither can be read.
    int getCurrentVersion();
    // The value of "preferences_version" as a decimal number (text that is not a number reads as
    // 0); kUnknownVersion when there is no key manager or the key cannot be read.
    int getPrefStoreVersion() const;
    // Writes `version` into "preferences_version" without change notifications; true on success.
    bool setVersion(int version);

    // Builds the list in `schemaListJson` and applies it from the Legacy domain. False, with a
    // log line, when the text is not a usable list or the key manager refuses it.
    bool injectKeys(const std::string& schemaListJson);
    // Null, with a log line, when the text is not JSON.
    std::unique_ptr<PreferencesSchemaList> buildSchemaList(const std::string& schemaListJson);

    // The key manager's upgrade steps; false when there is no key manager or the step failed.
    bool upgradeVersionFromV0ToV1();
    bool upgradeVersionFromV1ToV2();

private:
    // Logs and reports a failed upgrade step; always false.
    bool upgradeFailed(const char* event);
    // Declares the version keys; logs and reports a failure.
    bool injectVersionKeys();

    std::shared_ptr<PreferencesKeyManager> mKeyManager;
};

}  // namespace Halo::OS
