#pragma once

#include <gtest/gtest.h>
#include <json/reader.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Halo::OS::testing {

// Parses JSON text for a test; a syntax error fails the test.
inline Json::Value parseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
    return value;
}

// One entry of a schema's "contents"; an empty scope is left out (the system scope).
struct KeyJson {
    KeyJson(std::string key, std::string type = "integer", std::string defaultValue = "0",
            std::string scope = "", bool writable = true, bool owner = false)
        : key(std::move(key)),
          type(std::move(type)),
          defaultValue(std::move(defaultValue)),
          scope(std::move(scope)),
          writable(writable),
          owner(owner) {}
    std::string key;
    std::string type;
    std::string defaultValue;
    std::string scope;
    bool writable;
    bool owner;
};

inline std::string keyJson(const KeyJson& key) {
    return R"({"key": ")" + key.key + R"(", "type": ")" + key.type + R"(", "default": ")" +
           key.defaultValue + R"(", )" +
           (key.scope.empty() ? "" : R"("scope": ")" + key.scope + R"(", )") +
           R"("hasWritePermission": )" + (key.writable ? "true" : "false") + R"(, "isOwner": )" +
           (key.owner ? "true" : "false") + "}";
}

// A schema document of `package` declaring `keys`; without "uid" when `uid` is negative.
// `members` (e.g. R"("version": "1", )") go in before "contents".
inline std::string schemaJson(long uid, const std::string& package,
                              const std::vector<KeyJson>& keys, const std::string& members = "") {
    std::string contents;
    for (const KeyJson& key : keys) contents += (contents.empty() ? "" : ", ") + keyJson(key);
    return std::string("{") + (uid < 0 ? "" : R"("uid": )" + std::to_string(uid) + ", ") +
           R"("packageName": ")" + package + R"(", )" + members + R"("contents": [)" + contents +
           "]}";
}

// A schema list of `schemas` (schema documents).
inline std::string schemaListJson(bool add, const std::vector<std::string>& schemas,
                                  bool restart = false) {
    std::string list;
    for (const std::string& schema : schemas) list += (list.empty() ? "" : ", ") + schema;
    return std::string(R"({"add": )") + (add ? "true" : "false") + R"(, "restart": )" +
           (restart ? "true" : "false") + R"(, "schemas": [)" + list + "]}";
}

}  // namespace Halo::OS::testing
