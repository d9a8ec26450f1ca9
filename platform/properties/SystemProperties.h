#pragma once

#include <string>

namespace Halo::OS {

// The host's property service. Properties themselves live in libbase (android::base::GetProperty
// and SetProperty keep them in a plain std::map of the process on a Linux host, with no lock);
// this serialises every access to that map and adds what a device's property service does for
// "persist." properties: they are written to a file and loaded again when the next process
// enables persistence on the same file, so they survive a restart.
//
// Once a second thread may touch properties, every read and write goes through this class, never
// android::base::GetProperty/SetProperty directly. All functions are thread-safe.
class SystemProperties {
public:
    static constexpr const char* kPersistPrefix = "persist.";

    // Sets `key` to `value` through android::base::SetProperty. When persistence is enabled and
    // the key starts with "persist.", the file is rewritten (write to a temporary file, fsync,
    // rename) before the call returns; an empty value removes the key from the file. Returns
    // false when the property or the file could not be written (the in-process value is set in
    // either case).
    static bool set(const std::string& key, const std::string& value);

    // The value of `key`, or `defaultValue` when it is unset or empty
    // (android::base::GetProperty).
    static std::string get(const std::string& key, const std::string& defaultValue);

    // Loads every property stored in `path` (if it exists) into the process and makes later
    // set() calls of "persist." keys write to it. The file holds one "key=value" line per
    // property. Returns false, after logging why, when an existing file cannot be read; a
    // malformed line is skipped with a warning.
    static bool enablePersistence(const std::string& path);

    // Seeds properties from a "key=value" file (lines starting with '#' and blank lines are
    // skipped) without persisting them. Returns false when the file cannot be read.
    static bool loadFile(const std::string& path);
};

}  // namespace Halo::OS
