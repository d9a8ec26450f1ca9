#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/PreferenceValue.h"

namespace Halo::OS {

// One key as PreferencesClient::listKeys and describeKey tell it: what a caller that may read
// the key can know about it. Plain data.
struct PreferencesKeyDescription {
    // Where the key's values live: one value for the device, one per user, or one per user
    // that any user may be named for.
    enum class Scope : int32_t { System = 0, User = 1, CrossUser = 2 };

    std::string key;
    PreferenceValue::Type type = PreferenceValue::Type::Integer;
    Scope scope = Scope::System;
    // The default in the text form of the type; absent when the key declares none.
    std::optional<std::string> defaultValue;
    // The package that owns the key; absent when no package does.
    std::optional<std::string> ownerPackage;
    // Whether a set of the key by this caller, in its own user, passes the permission checks.
    bool writable = false;

    // The schema word of a scope: "system", "user" or "crossUser".
    static const char* scopeName(Scope scope) {
        switch (scope) {
            case Scope::System:
                return "system";
            case Scope::User:
                return "user";
            case Scope::CrossUser:
                return "crossUser";
        }
        return "system";
    }
};

}  // namespace Halo::OS
