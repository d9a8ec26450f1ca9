#pragma once

#include <memory>
#include <string>
#include <vector>

#include "intake/LegacySettingsDbHelper.h"
#include "intake/PreferencesDeviceConfig.h"
#include "keymanager/PreferencesKeyManager.h"
#include "model/PreferencesKeyInfo.h"
#include "model/PreferencesSchemaList.h"

namespace Halo::OS {

// Migrates, once, the values of the former settings service into the preference store: declares
// the legacy keys (the device configuration's legacy key list), copies every non-empty legacy
// value through the key manager into the right user, deletes the legacy databases, and records
// its progress in the status key kMigrationStatusKey so that an interrupted migration resumes at
// the step it had not finished:
//
//   1 not started   the legacy keys are declared and every value is copied (again), then 2
//   2 completed     every value is in the store: the legacy files are deleted, then 3
//   3 removed       only the legacy key list is declared again (it may have changed)
//
// A value is only ever deleted from the legacy files after status 2 has been written, so an
// interruption at any point loses nothing; copying again after an interruption before status 2 is
// harmless (the same values are written).
//
// A short-lived object of the service's start-up thread, used before packages are connected; not
// thread-safe. The key manager's own locking covers the calls into it. The steps are virtual so
// that a subclass can observe or interrupt them.
class PreferencesLegacyKeysMigrationManager {
public:
    enum class PreferencesLegacyKeysMigrationStatus : int {
        NoStatus = 0,    // the status key is absent or unreadable
        NotStarted = 1,  // the status key's default
        Completed = 2,   // every legacy value was copied
        Removed = 3,     // the legacy files were deleted
        // Any other value (higher, or negative) is unknown: the migration then does nothing.
    };
    using Status = PreferencesLegacyKeysMigrationStatus;

    static constexpr const char* kMigrationStatusKey =
            "preferences_service_legacy_keys_migration_status_key";
    // Declares kMigrationStatusKey (integer, system scope, default "1") for the service's core
    // package.
    static const char* const kCoreStatusSchemaList;
    // Removes the core and legacy packages of the service. Not used by the migration.
    static const char* const kRemovalSchemaList;

    // Reads the legacy databases in LegacySettingsDbHelper's default directory and uses the
    // process-wide device configuration.
    explicit PreferencesLegacyKeysMigrationManager(
            std::shared_ptr<PreferencesKeyManager> keyManager);
    // Reads the legacy databases through `legacyDb` (the daemon's --legacy-dir) and uses the
    // legacy key list and tables of `config` (null: the process-wide configuration, taken now).
    // `keyManager` or `legacyDb` may be null: migrateLegacyKeys() then fails.
    PreferencesLegacyKeysMigrationManager(
            std::shared_ptr<PreferencesKeyManager> keyManager,
            std::shared_ptr<LegacySettingsDbHelper> legacyDb,
            std::shared_ptr<const PreferencesDeviceConfig> config = nullptr);
    virtual ~PreferencesLegacyKeysMigrationManager() = default;

    PreferencesLegacyKeysMigrationManager(const PreferencesLegacyKeysMigrationManager&) = delete;
    PreferencesLegacyKeysMigrationManager& operator=(const PreferencesLegacyKeysMigrationManager&) =
            delete;

    // Hands the legacy key names to the key manager (PreferencesKeyManager::setLegacyKeys: they
    // follow their own access rules), then runs or resumes the migration according to the
    // status. True when the migration is done, also when only minor failures (a value that could
    // not be copied, a file that could not be deleted, status 3 not written) occurred, and when
    // the status is unknown. False, leaving the status for the next start, when the status key,
    // the legacy keys or status 2 could not be stored, or the key manager or the legacy
    // databases are missing ("migration modules missing").
    bool migrateLegacyKeys();

    // NoStatus when there is no key manager or the key cannot be read; otherwise the stored
    // number, which may be above Removed.
    Status getLegacyKeysMigrationStatus() const;
    // Writes the status without change notifications; true on success.
    virtual bool setLegacyKeysMigrationStatus(const Status& status);

    // Builds the list in `schemaListJson` and applies it from the Legacy domain. False, with a
    // log line, when the text is not a usable list or the key manager refuses it.
    virtual bool injectKeys(const std::string& schemaListJson);
    // Null when the text is not JSON.
    std::unique_ptr<PreferencesSchemaList> buildSchemaList(const std::string& schemaListJson);

    // Copies the values of the system database and of every user database; true only when
    // every value that was read could be stored.
    virtual bool migrateLegacyKeyValue();
    // Copies the non-empty values of the location-1 keys from the legacy system database into
    // the user of the calling uid. True when the database is unavailable.
    bool migrateSystemSettings();
    // Copies the non-empty values of the location-2 keys from the database of each of `userIds`
    // that is available into that user.
    bool migrateUserSettings(const std::vector<int>& userIds);

    // Writes `value` into the legacy key `key` for the uid of `appId` in `userId`, without change
    // notifications. A key whose type is unknown is skipped (true). False, logged, when the key
    // manager refuses the write. The shorter forms take the missing ids from the calling uid.
    virtual bool setLegacyKeyValue(const std::string& key, const std::string& value,
                                   unsigned int userId, unsigned int appId);
    bool setLegacyKeyValue(const std::string& key, const std::string& value, unsigned int userId);
    bool setLegacyKeyValue(const std::string& key, const std::string& value);

    // The value type of a legacy key; NoType (logged) when the key is not a legacy key.
    PreferencesKeyInfo::Type getLegacyKeyType(const std::string& key) const;
    // Where the legacy value of `key` lives (PreferencesLegacyKeyTables::kSystemLocation or
    // kUserLocation); 0 when the key is not a legacy key.
    int getLegacyKeyScope(const std::string& key) const;

private:
    // Copies the location-`location` rows of the migration list, reading each value with
    // `read`, into `userId`. True when no row failed.
    template <typename Read>
    bool migrateLocation(int location, unsigned int userId, Read read);
    // The calling uid as the key manager sees it.
    uid_t callingUid() const;

    std::shared_ptr<PreferencesKeyManager> mKeyManager;
    std::shared_ptr<LegacySettingsDbHelper> mLegacyDb;
    std::shared_ptr<const PreferencesDeviceConfig> mConfig;
};

}  // namespace Halo::OS
