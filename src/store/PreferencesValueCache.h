#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

namespace Halo::OS {

// Current values read from one database of the store, remembered between calls so that reading
// a value the database has already given runs no statement.
//
// The owner counts the commits of the connection (through its commit hook, which SQLite calls for
// every transaction that wrote, whatever wrote) and passes the count to use(): the entries belong
// to one connection at one count, and any other connection or count drops them all. While a
// transaction is open nothing is read from or added to the cache, since what the transaction sees
// may still be rolled back. Other connections to the same file are not followed: the store's
// connection must be the only one that writes.
//
// Not thread-safe: used under the lock that serialises the store.
class PreferencesValueCache {
public:
    // Bytes of keys and values remembered at most; an entry that would pass it drops them all.
    static constexpr size_t kMaxBytes = 256 * 1024;

    // Whether the cache may be consulted and filled now for `db`, which has made `commits`
    // commits: false when `db` is null or has a transaction open. Drops every entry read from
    // another connection or at another count.
    bool use(sqlite3* db, uint64_t commits);

    // The remembered result of reading `key`'s current value: null when nothing is remembered;
    // otherwise the value, or empty when the key had no current value. Call only after use()
    // returned true.
    const std::optional<std::string>* find(const std::string& key) const;
    // Remembers what a statement has just read. Call only after use() returned true, with nothing
    // written since.
    void remember(const std::string& key, const std::optional<std::string>& value);

    // Drops every entry.
    void clear();

private:
    static size_t bytesOf(const std::string& key, const std::optional<std::string>& value);

    sqlite3* mDb = nullptr;
    uint64_t mCommits = 0;
    size_t mBytes = 0;
    std::unordered_map<std::string, std::optional<std::string>> mValues;
};

}  // namespace Halo::OS
