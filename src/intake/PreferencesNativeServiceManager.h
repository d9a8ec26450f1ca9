#pragma once

#include <memory>
#include <set>
#include <string>

#include "intake/PreferencesDeviceConfig.h"
#include "keymanager/PreferencesKeyManager.h"
#include "model/PreferencesSchemaList.h"

namespace Halo::OS {

// Declares the keys of the device's native system services (daemons without a package schema of
// their own) and the service's own profiler keys. The schema documents are the device
// configuration's native-service set (PreferencesDeviceConfig::nativeServiceSchemas(), which
// holds the built-in profiler schema). Every package name gets kNativePackagePrefix before it
// reaches the key manager, so the store tells native packages by that prefix.
//
// A short-lived object of the service's start-up thread; not thread-safe. The key manager's own
// locking covers the calls into it.
class PreferencesNativeServiceManager {
public:
    static constexpr const char* kNativePackagePrefix = "nimbus.preferences.native.";

    // `config` null means the process-wide configuration (PreferencesDeviceConfig::instance()),
    // taken now. `keyManager` may be null; injectNativeServiceKeys() then fails.
    explicit PreferencesNativeServiceManager(
            std::shared_ptr<PreferencesKeyManager> keyManager,
            std::shared_ptr<const PreferencesDeviceConfig> config = nullptr);

    // Applies the native-service schemas as one complete list (installed and restarted) from the
    // NativeService domain, so that a native package no longer configured loses its keys.
    // Documents that cannot be used are skipped (see buildSchemaList). Returns false, with the
    // log line "failed to inject native service key(s)" and the event
    // "inject_native_service_keys_failed", when there is no key manager or it refuses the list.
    bool injectNativeServiceKeys();

    // Parses every document of `schemas` in set order and builds a list with the given flags.
    // A document that is not JSON or not a usable schema is logged with its text, reported as
    // "native_service_keys_malformed" and skipped. Null only when the list cannot be built.
    std::unique_ptr<PreferencesSchemaList> buildSchemaList(
            bool installed, bool restarted, const std::set<std::string>& schemas) const;

private:
    std::shared_ptr<PreferencesKeyManager> mKeyManager;
    std::shared_ptr<const PreferencesDeviceConfig> mConfig;
};

}  // namespace Halo::OS
