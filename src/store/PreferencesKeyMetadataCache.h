#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "model/PreferencesKeyInfo.h"

namespace Halo::OS {

// What the system database says about keys -- scope, type, default value and the permission each
// uid holds -- remembered between calls, so that reading a value runs one statement instead of
// one per fact.
//
// An entry is only filled from a statement that has just read the database, and only used while
// the database is unchanged since: the cache follows the connection's data version
// (SQLITE_FCNTL_DATA_VERSION), which every commit on the connection advances whatever wrote --
// the store's statements, the trigger and foreign-key cascades they set off, schema changes, and
// SQL that anybody else runs on the connection. While a transaction is open nothing is read from
// or added to the cache, since what the transaction sees may still be rolled back. The owner
// clears the cache when it closes or opens the connection, so a new connection at the same
// address never meets old entries.
//
// Not thread-safe: used under the lock that serialises the store.
class PreferencesKeyMetadataCache {
public:
    using Type = PreferencesKeyInfo::Type;
    using Scope = PreferencesKeyInfo::PreferenceScope;
    using Permission = PreferencesKeyInfo::PreferencePermission;

    // Keys remembered at most; one more drops them all.
    static constexpr size_t kMaxKeys = 8192;

    // Whether the cache may be consulted and filled for `db` now: false for a null connection or
    // while a transaction is open. Drops every entry when the database changed since they were
    // read, or when `db` is another connection.
    bool use(sqlite3* db);

    // The data version the entries belong to, when they are those of `db` as it is now (no
    // transaction open, no commit since they were read); empty otherwise.
    std::optional<unsigned int> currentVersion(sqlite3* db) const;
    // After one write on `db` that changed no key metadata, begun when currentVersion() was
    // `before`: the entries stay valid when that write's own commit is the only change since;
    // otherwise they are dropped.
    void keepAcross(sqlite3* db, unsigned int before);

    void clear();
    size_t size() const { return mEntries.size(); }

    // Cached facts; empty when not known. Call only after use() returned true.
    std::optional<Scope> scope(const std::string& key) const;
    std::optional<Type> type(const std::string& key) const;
    std::optional<std::string> defaultValue(const std::string& key) const;
    std::optional<Permission> permission(const std::string& key, unsigned int uid) const;

    // Remember facts just read. Call only after use() returned true, with nothing written since.
    void setScope(const std::string& key, Scope scope);
    void setType(const std::string& key, Type type);
    void setDefaultValue(const std::string& key, const std::string& value);
    void setPermission(const std::string& key, unsigned int uid, Permission permission);

private:
    struct Entry {
        std::optional<Scope> scope;
        std::optional<Type> type;
        std::optional<std::string> defaultValue;
        // (uid, highest permission) pairs; a key has few readers.
        std::vector<std::pair<unsigned int, Permission>> permissions;
    };

    static bool dataVersion(sqlite3* db, unsigned int* version);
    const Entry* find(const std::string& key) const;
    Entry& entry(const std::string& key);

    sqlite3* mDb = nullptr;
    unsigned int mVersion = 0;
    std::unordered_map<std::string, Entry> mEntries;
};

}  // namespace Halo::OS
