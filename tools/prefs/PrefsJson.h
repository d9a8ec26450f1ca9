#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/PreferenceValue.h"
#include "client/PreferencesKeyDescription.h"

namespace Halo::OS {

// The JSON texts that `prefs` prints with --json and for backup. Numbers are written in their
// shortest form that reads back as the same value; longs as decimal strings, so that readers
// that keep numbers as doubles lose nothing.
class PrefsJson {
public:
    // One entry of a backup.
    struct BackupEntry {
        PreferencesKeyDescription description;
        unsigned int user = 0;
        PreferenceValue value;
    };

    // `text` as a JSON string, quotes included.
    static std::string quote(const std::string& text);
    // `value` as a JSON number, string or boolean (a long as a decimal string).
    static std::string value(const PreferenceValue& value);
    // A key's description as one JSON object: key, type, scope, default (typed, or null when
    // the key declares none), owner (or null), writable, and value when one is given.
    static std::string description(const PreferencesKeyDescription& description,
                                   const std::optional<PreferenceValue>& value = std::nullopt);
    // The backup document: {"format": "prefs-backup", "version": 1, "entries": [...]}, each
    // entry {"key", "type", "scope", "user", "value"}, one entry per line.
    static std::string backup(const std::vector<BackupEntry>& entries);
    // The default of `description` as a value of its type; nothing when it declares none. A
    // default text that is not of the type stays a string.
    static std::optional<PreferenceValue> defaultValue(
            const PreferencesKeyDescription& description);
};

}  // namespace Halo::OS
