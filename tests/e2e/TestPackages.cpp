#include "e2e/TestPackages.h"

#include <vector>

namespace Halo::OS::testing {

namespace {

const char kBoth[] =
        "\"com.nimbus.permission.READ_SETTINGS\", "
        "\"com.nimbus.permission.WRITE_SETTINGS\"";
const char kReadOnly[] = "\"com.nimbus.permission.READ_SETTINGS\"";

struct Key {
    const char* name;
    const char* type;
    const char* scope;
    const char* defaultValue;
    bool writable;
};

std::string package(int uid, const std::string& name, const char* permissions,
                    const std::vector<Key>& keys) {
    std::string text = "{\n  \"uid\": " + std::to_string(uid) + ",\n  \"packageName\": \"" + name +
                       "\",\n  \"version\": \"1.0\",\n  \"date\": \"06/01/2024\",\n" +
                       "  \"permissions\": [" + permissions + "],\n  \"contents\": [";
    for (size_t i = 0; i < keys.size(); ++i) {
        const Key& key = keys[i];
        text += std::string(i == 0 ? "\n" : ",\n") + "    {\"key\": \"" + key.name +
                "\", \"type\": \"" + key.type + "\", \"scope\": \"" + key.scope +
                "\", \"default\": \"" + key.defaultValue +
                "\", \"hasWritePermission\": " + (key.writable ? "true" : "false") +
                ", \"isOwner\": true}";
    }
    return text + "\n  ]\n}\n";
}

}  // namespace

std::string TestPackages::alpha() {
    return package(10123, "com.test.alpha", kBoth,
                   {{"alpha_count", "integer", "user", "3", true},
                    {"alpha_total", "long", "system", "9000000000", true},
                    {"alpha_ratio", "float", "crossUser", "0.5", true},
                    {"alpha_distance", "double", "user", "1.25", true},
                    {"alpha_enabled", "boolean", "system", "false", true},
                    {"alpha_label", "string", "crossUser", "none", true},
                    {"alpha_locked", "integer", "user", "1", false}});
}

std::string TestPackages::beta() {
    return package(10124, "com.test.beta", kReadOnly,
                   {{"beta_mode", "string", "user", "auto", true}});
}

std::string TestPackages::gamma(bool extra) {
    std::vector<Key> keys = {{"gamma_level", "integer", "system", "1", true}};
    if (extra) keys.push_back({"gamma_extra", "boolean", "user", "true", true});
    return package(10125, "com.test.gamma", kBoth, keys);
}

std::string TestPackages::delta() {
    return package(10126, "com.test.delta", kBoth,
                   {{"delta_on", "boolean", "system", "true", true}});
}

}  // namespace Halo::OS::testing
