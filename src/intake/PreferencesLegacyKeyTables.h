#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "model/PreferencesKeyInfo.h"

namespace Halo::OS {

// The legacy key tables of a device: for every key of the former settings service, its legacy
// index, its name, its value type, where its legacy value lives, and its legacy default. Every
// table is a vector of (legacy index, value) pairs sorted by index, so that lookups by index are
// binary searches; the migration walks migrationList() in that order.
//
// Filled once by PreferencesDeviceConfig, read-only afterwards; reads are safe from any thread.
class PreferencesLegacyKeyTables {
public:
    // Locations of a legacy value.
    static constexpr int kSystemLocation = 1;  // the legacy system database
    static constexpr int kUserLocation = 2;    // the per-user legacy databases

    template <typename T>
    using Table = std::vector<std::pair<int, T>>;

    // Adds one legacy key. Returns false, and changes nothing, when `index` is negative or
    // already used, `name` is empty or already used, or `location` is neither kSystemLocation nor
    // kUserLocation.
    bool add(int index, const std::string& name, PreferencesKeyInfo::Type type, int location,
             const std::string& legacyDefault);

    // index → key name.
    const Table<std::string>& names() const { return mNames; }
    // index → value type.
    const Table<PreferencesKeyInfo::Type>& types() const { return mTypes; }
    // index → location (kSystemLocation or kUserLocation).
    const Table<int>& locations() const { return mLocations; }
    // (index, legacy default text) rows, ascending by index.
    const Table<std::string>& migrationList() const { return mMigrationList; }

    // Lookups by index; nullopt when the index is not in the tables.
    std::optional<std::string> findName(int index) const;
    std::optional<PreferencesKeyInfo::Type> findType(int index) const;
    std::optional<int> findLocation(int index) const;
    std::optional<std::string> findLegacyDefault(int index) const;
    // The legacy index of the key called `name`; nullopt when there is none.
    std::optional<int> findIndex(const std::string& name) const;

    size_t size() const { return mNames.size(); }
    bool empty() const { return mNames.empty(); }

private:
    Table<std::string> mNames;
    Table<PreferencesKeyInfo::Type> mTypes;
    Table<int> mLocations;
    Table<std::string> mMigrationList;
    std::map<std::string, int> mIndexByName;
};

}  // namespace Halo::OS
