#define LOG_TAG "PreferencesService"

#include "service/PreferencesOverrides.h"

#include <log/log.h>

#include <cstdint>
#include <cstdlib>

#include "properties/SystemProperties.h"
#include "service/String16Utils.h"

namespace Halo::OS {

// Never destroyed: Binder threads may still read it while the process exits.
const std::unordered_map<std::string, PreferencesKeyInfo::Type>& PreferencesOverrides::kOverrides =
        *new std::unordered_map<std::string, PreferencesKeyInfo::Type>{
                {"autosleep_time", PreferencesKeyInfo::Type::Integer},
        };

int PreferencesOverrides::getInteger(const android::String16& key, int* out) {
    const std::string name = toString(key);
    auto it = kOverrides.find(name);
    if (it == kOverrides.end()) return ServiceStatus::NoOverride;
    if (it->second != PreferencesKeyInfo::Type::Integer) return ServiceStatus::OverrideWrongType;
    const std::string value = SystemProperties::get(kOverridesPrefix + name, "");
    if (value.empty()) return ServiceStatus::NoOverride;
    *out = static_cast<int32_t>(strtol(value.c_str(), nullptr, 10));
    ALOGD("PreferencesOverrides: returning override for key = %s, value = %d", name.c_str(), *out);
    return ServiceStatus::Ok;
}

int PreferencesOverrides::setInteger(const android::String16& key, int value) {
    const std::string name = toString(key);
    auto it = kOverrides.find(name);
    if (it == kOverrides.end()) return ServiceStatus::NoOverride;
    if (it->second != PreferencesKeyInfo::Type::Integer) return ServiceStatus::OverrideWrongType;
    const bool written = SystemProperties::set(kOverridesPrefix + name, std::to_string(value));
    ALOGD("PreferencesOverrides: setting override int for key = %s, value = %d", name.c_str(),
          value);
    return written ? ServiceStatus::Ok : ServiceStatus::NoOverride;
}

int PreferencesOverrides::getType(const android::String16& key, int* type) {
    const std::string name = toString(key);
    auto it = kOverrides.find(name);
    if (it == kOverrides.end()) return ServiceStatus::NoOverride;
    if (SystemProperties::get(kOverridesPrefix + name, "").empty()) {
        return ServiceStatus::NoOverride;
    }
    *type = static_cast<int>(it->second);
    ALOGD("PreferencesOverrides: returning override type for key = %s type = %d", name.c_str(),
          *type);
    return ServiceStatus::Ok;
}

int PreferencesOverrides::reset(const android::String16& key) {
    const std::string name = toString(key);
    if (kOverrides.count(name) == 0) return ServiceStatus::NoOverride;
    const bool written = SystemProperties::set(kOverridesPrefix + name, "");
    ALOGD("PreferencesOverrides: resetting override for key = %s", name.c_str());
    return written ? ServiceStatus::Ok : ServiceStatus::NoOverride;
}

}  // namespace Halo::OS
