#pragma once

#include <utils/String16.h>

#include <string>
#include <unordered_map>

#include "model/PreferencesKeyInfo.h"
#include "service/ServiceStatus.h"

namespace Halo::OS {

// Keys whose integer value a device may override with a system property: the property
// kOverridesPrefix + key, when non-empty, is the value that the plain getInteger of the service
// returns, without asking the store. Plain setInteger writes the property as well as the store,
// and reset empties it.
//
// No per-instance state: the table and the prefix are process-wide and every operation is
// static. Keys are converted with toString (cut at the first NUL). Results are ServiceStatus
// codes: Ok, NoOverride when the key has no override (not in kOverrides, or the property is empty
// or could not be written), OverrideWrongType when the key's override is not of the integer
// type. Thread-safe (properties are read and written through SystemProperties, which
// serialises).
class PreferencesOverrides {
public:
    // Key name → type of its override. Holds "autosleep_time" → Integer. Never destroyed.
    static const std::unordered_map<std::string, PreferencesKeyInfo::Type>& kOverrides;
    static constexpr const char* kOverridesPrefix = "persist.halo.prefs_overrides.";

    // Stores the property's value, parsed as a decimal integer truncated to 32 bits (text that
    // does not parse gives its parsed prefix or 0), in *out. `out` must not be null.
    static int getInteger(const android::String16& key, int* out);
    // Writes the decimal text of `value` to the key's property.
    static int setInteger(const android::String16& key, int value);
    // Stores the override's type code in *type while the key's property is non-empty. `type` must
    // not be null.
    static int getType(const android::String16& key, int* type);
    // Empties the key's property.
    static int reset(const android::String16& key);
};

}  // namespace Halo::OS
