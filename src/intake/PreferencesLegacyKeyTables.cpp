#include "intake/PreferencesLegacyKeyTables.h"

#include <algorithm>

namespace Halo::OS {
namespace {

template <typename T>
typename PreferencesLegacyKeyTables::Table<T>::const_iterator lowerBound(
        const PreferencesLegacyKeyTables::Table<T>& table, int index) {
    return std::lower_bound(table.begin(), table.end(), index,
                            [](const std::pair<int, T>& row, int key) { return row.first < key; });
}

template <typename T>
std::optional<T> find(const PreferencesLegacyKeyTables::Table<T>& table, int index) {
    auto it = lowerBound(table, index);
    if (it == table.end() || it->first != index) return std::nullopt;
    return it->second;
}

template <typename T>
void insertSorted(PreferencesLegacyKeyTables::Table<T>& table, int index, T value) {
    table.emplace(lowerBound(table, index), index, std::move(value));
}

}  // namespace

bool PreferencesLegacyKeyTables::add(int index, const std::string& name,
                                     PreferencesKeyInfo::Type type, int location,
                                     const std::string& legacyDefault) {
    if (index < 0 || name.empty() || (location != kSystemLocation && location != kUserLocation)) {
        return false;
    }
    if (findName(index).has_value() || mIndexByName.count(name) != 0) return false;
    insertSorted(mNames, index, name);
    insertSorted(mTypes, index, type);
    insertSorted(mLocations, index, location);
    insertSorted(mMigrationList, index, legacyDefault);
    mIndexByName.emplace(name, index);
    return true;
}

std::optional<std::string> PreferencesLegacyKeyTables::findName(int index) const {
    return find(mNames, index);
}

std::optional<PreferencesKeyInfo::Type> PreferencesLegacyKeyTables::findType(int index) const {
    return find(mTypes, index);
}

std::optional<int> PreferencesLegacyKeyTables::findLocation(int index) const {
    return find(mLocations, index);
}

std::optional<std::string> PreferencesLegacyKeyTables::findLegacyDefault(int index) const {
    return find(mMigrationList, index);
}

std::optional<int> PreferencesLegacyKeyTables::findIndex(const std::string& name) const {
    auto it = mIndexByName.find(name);
    if (it == mIndexByName.end()) return std::nullopt;
    return it->second;
}

}  // namespace Halo::OS
