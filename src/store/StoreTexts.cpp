#define LOG_TAG "PreferencesService"
#include <log/log.h>

#include "store/StoreTexts.h"

namespace Halo::OS {
namespace {

using PreferenceScope = PreferencesKeyInfo::PreferenceScope;
using PreferencePermission = PreferencesKeyInfo::PreferencePermission;
using Type = PreferencesKeyInfo::Type;

}  // namespace

const char* scopeToString(PreferenceScope scope) {
    const char* result = nullptr;
    switch (scope) {
        case PreferenceScope::System:
            result = "System";
            break;
        case PreferenceScope::User:
            result = "User";
            break;
        case PreferenceScope::Cross:
            result = "Cross";
            break;
    }
    LOG_ALWAYS_FATAL_IF(!result, "lookup error");
    return result;
}

const char* domainToString(KeySourceDomain domain) {
    const char* result = nullptr;
    switch (domain) {
        case KeySourceDomain::Legacy:
            result = "Legacy";
            break;
        case KeySourceDomain::NativeService:
            result = "NativeService";
            break;
        case KeySourceDomain::Application:
            result = "Application";
            break;
    }
    LOG_ALWAYS_FATAL_IF(!result, "lookup error");
    return result;
}

const char* typeToString(Type type) {
    switch (type) {
        case Type::Integer:
            return "Integer";
        case Type::Double:
            return "Double";
        case Type::String:
            return "String";
        case Type::Long:
            return "Long";
        case Type::Boolean:
            return "Boolean";
        case Type::Float:
            return "Float";
        case Type::NoType:
            break;
    }
    ALOGE("Invalid type provided to typeToString: %u", static_cast<unsigned int>(type));
    return "[unknown type]";
}

const char* permissionToString(PreferencePermission permission) {
    switch (permission) {
        case PreferencePermission::None:
            return "None";
        case PreferencePermission::Read:
            return "Read";
        case PreferencePermission::ReadWrite:
            return "Read & Write";
    }
    ALOGE("Unable to convert permissions %u to string.", static_cast<unsigned int>(permission));
    return "Invalid Permissions";
}

}  // namespace Halo::OS
