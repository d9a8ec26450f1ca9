#pragma once

#include <json/value.h>

#include <memory>
#include <string>

#include "model/PreferencesKeyInfo.h"

namespace Halo::OS {

// Builds one PreferencesKeyInfo, either field by field (built-in and migrated keys) or from one
// key entry object of a schema document (`process`). The builder owns the key info until
// `build()` hands it over; afterwards the builder is empty and must not be used again.
class PreferencesKeyInfoBuilder {
public:
    PreferencesKeyInfoBuilder();

    PreferencesKeyInfoBuilder& setKey(const std::string& key);
    PreferencesKeyInfoBuilder& setDefaultValue(const std::string& defaultValue);
    PreferencesKeyInfoBuilder& setPackageName(const std::string& packageName);
    void setType(PreferencesKeyInfo::Type type);
    void setScope(PreferencesKeyInfo::PreferenceScope scope);
    void setPackageUid(unsigned int uid);
    void setIsWritable(bool writable);
    void setIsReadable(bool readable);
    void setIsOwner(bool owner);

    // Fills the key info from one schema entry: "key", "default", "type", "hasWritePermission",
    // "scope" and "isOwner". The default may be replaced by the system property
    // "persist.halo.prefs_default.<key>" and is normalised to the type's value encoding.
    // On success the package uid and name are set and recorded in the package-name registry.
    // Returns false, after logging why, when the entry lacks "key", "default" or "type", or
    // when a member has a JSON kind that cannot be converted (an array where text is expected).
    bool process(const Json::Value& entry, unsigned int uid, const std::string& packageName);

    std::unique_ptr<PreferencesKeyInfo> build();
    operator std::unique_ptr<PreferencesKeyInfo>() { return build(); }

private:
    bool processEntry(const Json::Value& entry, unsigned int uid, const std::string& packageName);

    std::unique_ptr<PreferencesKeyInfo> mKeyInfo;
};

}  // namespace Halo::OS
