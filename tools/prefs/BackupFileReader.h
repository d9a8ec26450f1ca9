#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "client/PreferenceValue.h"

namespace Halo::OS {

// Reads the backup file that `prefs backup` writes:
//
//   {"format": "prefs-backup", "version": 1, "entries": [
//       {"key": "k", "type": "integer", "scope": "user", "user": 10, "value": 5}, ...]}
//
// "type" is a schema word (integer, long, float, double, boolean, string); "value" is the JSON
// number, string or boolean of that type, except that a long is a decimal JSON string (JSON
// numbers do not keep 64 bits everywhere). "scope" is informational and must be a string when
// present; "user" is a user id, 0 or more. Members not named here are ignored.
class BackupFileReader {
public:
    struct Entry {
        std::string key;
        int32_t user = 0;
        PreferenceValue value;
    };

    // The largest file read and its deepest nesting (the document, "entries", an entry, a value).
    static constexpr size_t kMaxFileBytes = 16 * 1024 * 1024;
    static constexpr unsigned int kMaxDepth = 8;

    // Reads `path` into `entries`, in file order. False, with a one-line reason in `error`
    // (naming the entry by its index when one is at fault), for a file that cannot be read, is
    // larger than kMaxFileBytes, nests deeper than kMaxDepth, is not JSON, or does not have the
    // form above; `entries` is then unspecified.
    static bool read(const std::string& path, std::vector<Entry>* entries, std::string* error);
};

}  // namespace Halo::OS
