#include "prefs/PrefsJson.h"

#include <fmt/format.h>

#include <cmath>

namespace Halo::OS {

std::string PrefsJson::quote(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    out += fmt::format("\\u{:04x}", static_cast<unsigned int>(c));
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string PrefsJson::value(const PreferenceValue& value) {
    switch (value.type()) {
        case PreferenceValue::Type::Integer:
            return std::to_string(value.asInteger());
        case PreferenceValue::Type::Long:
            return quote(std::to_string(value.asLong()));
        case PreferenceValue::Type::Float:
            // JSON has no infinities or NaN; the service keeps only finite numbers anyway.
            return std::isfinite(value.asFloat()) ? fmt::format("{}", value.asFloat()) : "null";
        case PreferenceValue::Type::Double:
            return std::isfinite(value.asDouble()) ? fmt::format("{}", value.asDouble()) : "null";
        case PreferenceValue::Type::Boolean:
            return value.asBoolean() ? "true" : "false";
        case PreferenceValue::Type::String:
            return quote(value.asString());
    }
    return "null";
}

std::optional<PreferenceValue> PrefsJson::defaultValue(
        const PreferencesKeyDescription& description) {
    if (!description.defaultValue) return std::nullopt;
    PreferenceValue parsed;
    if (PreferenceValue::parse(description.type, *description.defaultValue, &parsed)) {
        return parsed;
    }
    return PreferenceValue::fromString(*description.defaultValue);
}

std::string PrefsJson::description(const PreferencesKeyDescription& description,
                                   const std::optional<PreferenceValue>& current) {
    const std::optional<PreferenceValue> byDefault = defaultValue(description);
    std::string out = fmt::format(
            "{{\"key\": {}, \"type\": \"{}\", \"scope\": \"{}\", \"default\": {}, \"owner\": {}, "
            "\"writable\": {}",
            quote(description.key), PreferenceValue::typeName(description.type),
            PreferencesKeyDescription::scopeName(description.scope),
            byDefault ? value(*byDefault) : "null",
            description.ownerPackage ? quote(*description.ownerPackage) : "null",
            description.writable ? "true" : "false");
    if (current) out += ", \"value\": " + value(*current);
    return out + "}";
}

std::string PrefsJson::backup(const std::vector<BackupEntry>& entries) {
    std::string out = "{\"format\": \"prefs-backup\", \"version\": 1, \"entries\": [";
    for (size_t i = 0; i < entries.size(); ++i) {
        const BackupEntry& entry = entries[i];
        out += fmt::format(
                "{}\n  {{\"key\": {}, \"type\": \"{}\", \"scope\": \"{}\", \"user\": {}, "
                "\"value\": {}}}",
                i == 0 ? "" : ",", quote(entry.description.key),
                PreferenceValue::typeName(entry.description.type),
                PreferencesKeyDescription::scopeName(entry.description.scope), entry.user,
                value(entry.value));
    }
    return out + (entries.empty() ? "]}\n" : "\n]}\n");
}

}  // namespace Halo::OS
