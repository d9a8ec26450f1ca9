#include "store/PreferencesKeyMetadataCache.h"

namespace Halo::OS {

PreferencesKeyMetadataCache::~PreferencesKeyMetadataCache() {
    detach();
}

int PreferencesKeyMetadataCache::onCommit(void* cache) {
    ++static_cast<PreferencesKeyMetadataCache*>(cache)->mCommits;
    return 0;
}

void PreferencesKeyMetadataCache::attach(sqlite3* db) {
    detach();
    if (db == nullptr) return;
    mDb = db;
    sqlite3_commit_hook(db, &PreferencesKeyMetadataCache::onCommit, this);
}

void PreferencesKeyMetadataCache::detach() {
    if (mDb != nullptr) sqlite3_commit_hook(mDb, nullptr, nullptr);
    mDb = nullptr;
    mCommits = 0;
    mVersion = 0;
    mEntries.clear();
}

bool PreferencesKeyMetadataCache::use(sqlite3* db) {
    if (db == nullptr || db != mDb || sqlite3_get_autocommit(db) == 0) return false;
    if (mCommits != mVersion) {
        mEntries.clear();
        mVersion = mCommits;
    }
    return true;
}

std::optional<uint64_t> PreferencesKeyMetadataCache::currentVersion(sqlite3* db) const {
    if (db == nullptr || db != mDb || sqlite3_get_autocommit(db) == 0 || mCommits != mVersion) {
        return std::nullopt;
    }
    return mVersion;
}

void PreferencesKeyMetadataCache::keepAcross(sqlite3* db, uint64_t before) {
    if (db != mDb || before != mVersion || sqlite3_get_autocommit(db) == 0 ||
        mCommits > before + 1) {
        clear();
        return;
    }
    mVersion = mCommits;
}

std::optional<uint64_t> PreferencesKeyMetadataCache::commitsOf(sqlite3* db) const {
    if (db == nullptr || db != mDb) return std::nullopt;
    return mCommits;
}

void PreferencesKeyMetadataCache::clear() {
    mEntries.clear();
    mVersion = mCommits;
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
