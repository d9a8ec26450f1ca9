#include "store/PreferencesKeyMetadataCache.h"

namespace Halo::OS {

bool PreferencesKeyMetadataCache::dataVersion(sqlite3* db, unsigned int* version) {
    return sqlite3_file_control(db, "main", SQLITE_FCNTL_DATA_VERSION, version) == SQLITE_OK;
}

bool PreferencesKeyMetadataCache::use(sqlite3* db) {
    unsigned int version = 0;
    if (db == nullptr || sqlite3_get_autocommit(db) == 0 || !dataVersion(db, &version)) {
        return false;
    }
    if (db != mDb || version != mVersion) {
        mEntries.clear();
        mDb = db;
        mVersion = version;
    }
    return true;
}

std::optional<unsigned int> PreferencesKeyMetadataCache::currentVersion(sqlite3* db) const {
    unsigned int version = 0;
    if (db == nullptr || db != mDb || sqlite3_get_autocommit(db) == 0 ||
        !dataVersion(db, &version) || version != mVersion) {
        return std::nullopt;
    }
    return version;
}

void PreferencesKeyMetadataCache::keepAcross(sqlite3* db, unsigned int before) {
    unsigned int version = 0;
    if (db != mDb || before != mVersion || sqlite3_get_autocommit(db) == 0 ||
        !dataVersion(db, &version) || version != before + 1) {
        clear();
        return;
    }
    mVersion = version;
}

void PreferencesKeyMetadataCache::clear() {
    mEntries.clear();
    mDb = nullptr;
    mVersion = 0;
}

const PreferencesKeyMetadataCache::Entry* PreferencesKeyMetadataCache::find(
        const std::string& key) const {
    auto it = mEntries.find(key);
    return it != mEntries.end() ? &it->second : nullptr;
}

PreferencesKeyMetadataCache::Entry& PreferencesKeyMetadataCache::entry(const std::string& key) {
    if (mEntries.size() >= kMaxKeys && mEntries.count(key) == 0) mEntries.clear();
    return mEntries[key];
}

std::optional<PreferencesKeyMetadataCache::Scope> PreferencesKeyMetadataCache::scope(
        const std::string& key) const {
    const Entry* found = find(key);
    return found != nullptr ? found->scope : std::nullopt;
}

std::optional<PreferencesKeyMetadataCache::Type> PreferencesKeyMetadataCache::type(
        const std::string& key) const {
    const Entry* found = find(key);
    return found != nullptr ? found->type : std::nullopt;
}

std::optional<std::string> PreferencesKeyMetadataCache::defaultValue(const std::string& key) const {
    const Entry* found = find(key);
    return found != nullptr ? found->defaultValue : std::nullopt;
}

std::optional<PreferencesKeyMetadataCache::Permission> PreferencesKeyMetadataCache::permission(
        const std::string& key, unsigned int uid) const {
    const Entry* found = find(key);
    if (found == nullptr) return std::nullopt;
    for (const auto& [holder, permission] : found->permissions) {
        if (holder == uid) return permission;
    }
    return std::nullopt;
}

void PreferencesKeyMetadataCache::setScope(const std::string& key, Scope scope) {
    entry(key).scope = scope;
}

void PreferencesKeyMetadataCache::setType(const std::string& key, Type type) {
    entry(key).type = type;
}

void PreferencesKeyMetadataCache::setDefaultValue(const std::string& key,
                                                  const std::string& value) {
    entry(key).defaultValue = value;
}

void PreferencesKeyMetadataCache::setPermission(const std::string& key, unsigned int uid,
                                                Permission permission) {
    Entry& cached = entry(key);
    for (auto& [holder, known] : cached.permissions) {
        if (holder == uid) {
            known = permission;
            return;
        }
    }
    cached.permissions.emplace_back(uid, permission);
}

}  // namespace Halo::OS
