#pragma once

#include "model/KeySourceDomain.h"
#include "model/PreferencesKeyInfo.h"

namespace Halo::OS {

// The texts of the store's codes in its log lines and dumps. Each returns a static string.

// "System", "User", "Cross"; any other scope is a fatal "lookup error".
const char* scopeToString(PreferencesKeyInfo::PreferenceScope scope);
// "Legacy", "NativeService", "Application"; any other domain is a fatal "lookup error".
const char* domainToString(KeySourceDomain domain);
// "Integer" ... "Float"; "[unknown type]" (logged) outside 0..5.
const char* typeToString(PreferencesKeyInfo::Type type);
// "None", "Read", "Read & Write"; "Invalid Permissions" (logged) outside 0..2, so that the
// permission code 3, which the permissions table admits, prints as invalid.
const char* permissionToString(PreferencesKeyInfo::PreferencePermission permission);

}  // namespace Halo::OS
