#pragma once

#include <json/value.h>

#include <memory>
#include <set>
#include <string>

#include "intake/PreferencesLegacyKeyTables.h"

namespace Halo::OS {

// The device configuration of the preferences service, read once from a directory (the daemon's
// --config-dir; docs/device-config.md defines the files):
//
//   native/*.json      one schema document per native system service (daemons without a package
//                      schema of their own)
//   legacy-keys.json   the keys of the former settings service: legacy index, schema entry,
//                      location of the legacy value and legacy default
//
// Loading never fails as a whole. A missing directory is a device without native-service schemas
// or legacy keys (one warning line). Every problem with a file costs only that file, and a bad
// legacy key entry only that entry; each is logged with the file's path. Read-only after
// construction; all accessors are safe from any thread.
class PreferencesDeviceConfig {
public:
    static constexpr const char* kDefaultDirectory = "/etc/nimbus/preferences/";
    static constexpr const char* kNativeDirectory = "native";
    static constexpr const char* kLegacyKeysFile = "legacy-keys.json";
    // Package, version and date of the legacy key schema.
    static constexpr const char* kLegacyPackageName = "nimbus.preferences.service.legacy";
    static constexpr const char* kLegacySchemaVersion = "1.0";
    static constexpr const char* kLegacySchemaDate = "01/26/2021";
    // A native-service schema file larger than this is skipped.
    static constexpr size_t kMaxFileSize = 1 << 20;

    // The service's own schema document: its one-shot profiling and tracing switches.
    static const char* const kProfilerSchema;

    enum class LegacyKeyListStatus {
        Absent,     // no legacy-keys.json (or no configuration directory): no legacy keys
        Loaded,     // read; entries that were skipped are counted in legacyKeysSkipped()
        Malformed,  // unusable as a whole (logged): no legacy keys
    };

    // Loads the configuration in `directory`.
    explicit PreferencesDeviceConfig(const std::string& directory = kDefaultDirectory);

    const std::string& directory() const { return mDirectory; }

    // The built-in native-service schema documents, as text: kProfilerSchema and the content of
    // every readable native/*.json file, whatever that content is. A file that is not valid JSON
    // is passed on as it stands; the consumer parses each document and skips the ones it cannot
    // use.
    const std::set<std::string>& nativeServiceSchemas() const { return mNativeServiceSchemas; }

    // The legacy key schema list document (JSON text): "add": true, "restart": false, and one
    // schema of kLegacyPackageName, kLegacySchemaVersion and kLegacySchemaDate whose "contents"
    // are the loaded legacy keys in index order (none when there are none).
    const std::string& legacyKeySchemaList() const { return mLegacyKeySchemaList; }
    // The legacy key tables; consistent with legacyKeySchemaList() (same keys, same types).
    const PreferencesLegacyKeyTables& legacyKeyTables() const { return mLegacyKeyTables; }
    LegacyKeyListStatus legacyKeyListStatus() const { return mLegacyKeyListStatus; }
    // Number of legacy-keys.json entries that were skipped (each logged).
    size_t legacyKeysSkipped() const { return mLegacyKeysSkipped; }

    // The process-wide configuration that the start-up steps of the service use. The daemon
    // installs the one it loaded from its --config-dir with setInstance() before it creates the
    // service; when none was installed, the first call of instance() loads kDefaultDirectory.
    // Never null. Thread-safe.
    static std::shared_ptr<const PreferencesDeviceConfig> instance();
    static void setInstance(std::shared_ptr<const PreferencesDeviceConfig> config);

private:
    void loadNativeServiceSchemas(const std::string& nativeDirectory);
    void loadLegacyKeys(const std::string& path);
    void setLegacyKeySchemaList(const Json::Value& contents);

    std::string mDirectory;
    std::set<std::string> mNativeServiceSchemas;
    std::string mLegacyKeySchemaList;
    PreferencesLegacyKeyTables mLegacyKeyTables;
    LegacyKeyListStatus mLegacyKeyListStatus = LegacyKeyListStatus::Absent;
    size_t mLegacyKeysSkipped = 0;
};

}  // namespace Halo::OS
