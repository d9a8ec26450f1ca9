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
// the database is unchanged since. The cache counts the commits of the connection it follows
// through the connection's commit hook, which SQLite calls for every transaction that wrote,
// whatever wrote -- the store's statements with the trigger and foreign-key cascades they set
// off, schema changes, and SQL that anybody else runs on the connection -- and drops its entries
// when the count moved. While a transaction is open nothing is read from or added to the cache,
// since what the transaction sees may still be rolled back. Other connections to the same file
// are not followed: the store's connection must be the only one that writes.
//
// The commit hook of the followed connection belongs to the cache. Not thread-safe: used under the
// lock that serialises the store, from which SQLite also calls the hook.
class PreferencesKeyMetadataCache {
public:
    using Type = PreferencesKeyInfo::Type;
    using Scope = PreferencesKeyInfo::PreferenceScope;
    using Permission = PreferencesKeyInfo::PreferencePermission;

    // Keys remembered at most; one more drops them all.
    static constexpr size_t kMaxKeys = 8192;

    PreferencesKeyMetadataCache() = default;
    // Detaches (see detach()).
    ~PreferencesKeyMetadataCache();
    PreferencesKeyMetadataCache(const PreferencesKeyMetadataCache&) = delete;
    PreferencesKeyMetadataCache& operator=(const PreferencesKeyMetadataCache&) = delete;

    // Follows `db` from now on, installing its commit hook, with no entries.
    void attach(sqlite3* db);
    // Stops following the connection (removing the hook) and drops every entry. Must be called
    // before the followed connection is closed.
    void detach();

    // Whether the cache may be consulted and filled for `db` now: false unless `db` is the
    // followed connection and no transaction is open on it. Drops every entry when the
    // connection committed a write since they were read.
    bool use(sqlite3* db);

    // The commit count the entries belong to, when they are those of `db` as it is now (no
    // transaction open, no commit since they were read); empty otherwise.
    std::optional<uint64_t> currentVersion(sqlite3* db) const;
    // After one write on `db` that changed no key metadata, begun when currentVersion() was
    // `before`: the entries stay valid when that write's own commit is the only one since;
    // otherwise they are dropped.
    void keepAcross(sqlite3* db, uint64_t before);

    // Drops every entry; the connection stays followed.
    void clear();

    // The commits `db` has made since the cache began to follow it; empty when `db` is not the
    // followed connection.
    std::optional<uint64_t> commitsOf(sqlite3* db) const;

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

    // The commit hook: counts the commit and lets it proceed.
    static int onCommit(void* cache);
    const Entry* find(const std::string& key) const;
    Entry& entry(const std::string& key);

    sqlite3* mDb = nullptr;
    // Commits of mDb since it was attached, and the count the entries belong to.
    uint64_t mCommits = 0;
    uint64_t mVersion = 0;
    std::unordered_map<std::string, Entry> mEntries;
};

}  // namespace Halo::OS
