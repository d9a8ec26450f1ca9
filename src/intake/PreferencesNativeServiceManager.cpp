#define LOG_TAG "PreferencesService"

#include "intake/PreferencesNativeServiceManager.h"

#include <log/log.h>

#include <utility>
#include <vector>

#include "model/JsonParsing.h"
#include "model/PreferencesSchemaBuilder.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

constexpr const char* kMalformedEvent = "native_service_keys_malformed";

}  // namespace

PreferencesNativeServiceManager::PreferencesNativeServiceManager(
        std::shared_ptr<PreferencesKeyManager> keyManager,
        std::shared_ptr<const PreferencesDeviceConfig> config)
    : mKeyManager(std::move(keyManager)),
      mConfig(config != nullptr ? std::move(config) : PreferencesDeviceConfig::instance()) {}

bool PreferencesNativeServiceManager::injectNativeServiceKeys() {
    // Always an addition and always the complete set: the key manager's reconciliation of a
    // restarted list drops the native packages that are no longer configured.
    const std::unique_ptr<PreferencesSchemaList> list =
            buildSchemaList(true, true, mConfig->nativeServiceSchemas());
    if (mKeyManager != nullptr && mKeyManager->process(list, KeySourceDomain::NativeService)) {
        return true;
    }
    Telemetry::report("inject_native_service_keys_failed");
    ALOGE("failed to inject native service key(s)");
    return false;
}

std::unique_ptr<PreferencesSchemaList> PreferencesNativeServiceManager::buildSchemaList(
        bool installed, bool restarted, const std::set<std::string>& schemas) const {
    std::vector<std::unique_ptr<PreferencesSchema>> built;
    for (const std::string& text : schemas) {
        Json::Value document;
        // A schema file nested deeper than kMaxJsonFileDepth is malformed like any other.
        if (!parseJsonText(text, document, nullptr, kMaxJsonFileDepth)) {
            ALOGE("Failed to parse string into Json: %s", text.c_str());
            Telemetry::report(kMalformedEvent);
            continue;
        }
        PreferencesSchemaBuilder schemaBuilder;
        if (!schemaBuilder.process(document)) {
            ALOGE("Failed to parse Json into PreferencesSchemaBuilder: %s", text.c_str());
            Telemetry::report(kMalformedEvent);
            continue;
        }
        schemaBuilder.package(kNativePackagePrefix + schemaBuilder.getPackage());
        built.push_back(schemaBuilder.build());
    }

    PreferencesSchemaListBuilder listBuilder;
    if (!listBuilder.process(installed, restarted, std::move(built))) {
        ALOGE("Failed to add schema to PreferencesSchemaListBuilder for native service keys");
        Telemetry::report(kMalformedEvent);
        return nullptr;
    }
    return listBuilder.build();
}

}  // namespace Halo::OS
