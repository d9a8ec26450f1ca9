#include "store/PreferencesValueCache.h"

namespace Halo::OS {

bool PreferencesValueCache::use(sqlite3* db, uint64_t commits) {
    if (db == nullptr || sqlite3_get_autocommit(db) == 0) return false;
    if (db != mDb || commits != mCommits) {
        clear();
        mDb = db;
        mCommits = commits;
    }
    return true;
}

const std::optional<std::string>* PreferencesValueCache::find(const std::string& key) const {
    auto it = mValues.find(key);
    return it != mValues.end() ? &it->second : nullptr;
}

void PreferencesValueCache::remember(const std::string& key,
                                     const std::optional<std::string>& value) {
    auto it = mValues.find(key);
    if (it != mValues.end()) {
        mBytes -= bytesOf(it->first, it->second);
        mValues.erase(it);
    }
    const size_t bytes = bytesOf(key, value);
    if (bytes > kMaxBytes) return;
    if (mBytes + bytes > kMaxBytes) clear();
    mValues.emplace(key, value);
    mBytes += bytes;
}

void PreferencesValueCache::clear() {
    mValues.clear();
    mBytes = 0;
    mDb = nullptr;
}

size_t PreferencesValueCache::bytesOf(const std::string& key,
                                      const std::optional<std::string>& value) {
    // The strings and a rough share of the hash table's node.
    return key.size() + (value.has_value() ? value->size() : 0) + 64;
}

}  // namespace Halo::OS
