#pragma once

#include <cstdint>

namespace Halo::OS {

// The service layer's own status codes; every other service-specific error a client sees is a
// KeyManagerStatus, passed through unchanged. NullOutValue goes to clients as a service-specific
// error and the others are results of PreferencesOverrides, so their numbers are fixed: never
// renumber a code, and give a new one a number that neither this enum nor KeyManagerStatus uses.
struct ServiceStatus {
    enum Code : int32_t {
        Ok = 0,
        // PreferencesOverrides: the key has no override (not in the table, its property is
        // empty, or the property could not be written).
        NoOverride = -2,
        // A getter or getType was given a null out-pointer; the key manager was not called.
        NullOutValue = -10,
        // PreferencesOverrides: the key's override is not of the type asked for.
        OverrideWrongType = -11,
    };
};

}  // namespace Halo::OS
