#include "prefs/BackupFileReader.h"

#include <json/value.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "model/JsonParsing.h"

namespace Halo::OS {

namespace {

// The value of `type` that `json` holds; false when it holds no such value.
bool readValue(PreferenceValue::Type type, const Json::Value& json, PreferenceValue* out) {
    switch (type) {
        case PreferenceValue::Type::Integer:
            if (!json.isInt()) return false;
            *out = PreferenceValue::fromInteger(json.asInt());
            return true;
        case PreferenceValue::Type::Long:
            return json.isString() && PreferenceValue::parse(type, json.asString(), out);
        case PreferenceValue::Type::Double:
            if (!json.isNumeric()) return false;
            *out = PreferenceValue::fromDouble(json.asDouble());
            return true;
        case PreferenceValue::Type::Float: {
            if (!json.isNumeric()) return false;
            const double value = json.asDouble();
            if (std::fabs(value) > std::numeric_limits<float>::max()) return false;
            *out = PreferenceValue::fromFloat(static_cast<float>(value));
            return true;
        }
        case PreferenceValue::Type::Boolean:
            if (!json.isBool()) return false;
            *out = PreferenceValue::fromBoolean(json.asBool());
            return true;
        case PreferenceValue::Type::String:
            if (!json.isString()) return false;
            *out = PreferenceValue::fromString(json.asString());
            return true;
    }
    return false;
}

bool readEntry(const Json::Value& json, BackupFileReader::Entry* entry, std::string* error) {
    if (!json.isObject()) {
        *error = "not an object";
        return false;
    }
    const Json::Value& key = json["key"];
    if (!key.isString() || key.asString().empty()) {
        *error = "\"key\" must be a non-empty string";
        return false;
    }
    entry->key = key.asString();
    PreferenceValue::Type type;
    const Json::Value& typeWord = json["type"];
    if (!typeWord.isString() || !PreferenceValue::typeFromName(typeWord.asString(), &type)) {
        *error = entry->key + ": \"type\" must be integer, long, float, double, boolean or string";
        return false;
    }
    if (json.isMember("scope") && !json["scope"].isString()) {
        *error = entry->key + ": \"scope\" must be a string";
        return false;
    }
    const Json::Value& user = json["user"];
    if (!user.isInt() || user.asInt() < 0) {
        *error = entry->key + ": \"user\" must be a user id (0 or more)";
        return false;
    }
    entry->user = user.asInt();
    if (!json.isMember("value") || !readValue(type, json["value"], &entry->value)) {
        *error = entry->key + ": \"value\" is not a " + PreferenceValue::typeName(type) +
                 (type == PreferenceValue::Type::Long ? " (a decimal string)" : "");
        return false;
    }
    return true;
}

}  // namespace

bool BackupFileReader::read(const std::string& path, std::vector<Entry>* entries,
                            std::string* error) {
    Json::Value document;
    if (!readJsonFile(path, kMaxFileBytes, kMaxDepth, document, error)) return false;
    if (!document.isObject() || document["format"] != "prefs-backup") {
        *error = "not a prefs backup (\"format\" is not \"prefs-backup\")";
        return false;
    }
    if (document["version"] != 1) {
        *error = "not a backup of version 1 (\"version\" is not 1)";
        return false;
    }
    const Json::Value& list = document["entries"];
    if (!list.isArray()) {
        *error = "\"entries\" must be an array";
        return false;
    }
    entries->clear();
    entries->resize(list.size());
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        std::string reason;
        if (!readEntry(list[i], &(*entries)[i], &reason)) {
            *error = "entry " + std::to_string(i) + ": " + reason;
            return false;
        }
    }
    return true;
}

}  // namespace Halo::OS
