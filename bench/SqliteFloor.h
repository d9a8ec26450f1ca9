#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

#include "LatencySamples.h"

namespace Halo::OS {

// The physical floor of the store: raw prepared statements on a database file of the store's
// layout, size and settings (WAL journal, synchronous=NORMAL, 256-page cache of 4096-byte
// pages), with nothing around them. Opens its own connection; it must be closed (destroyed)
// before the store's last connection closes, since closing the store shuts SQLite down.
class SqliteFloor {
public:
    explicit SqliteFloor(const std::string& systemDbPath);
    ~SqliteFloor();
    SqliteFloor(const SqliteFloor&) = delete;
    SqliteFloor& operator=(const SqliteFloor&) = delete;

    // False when the file could not be opened or a statement not prepared (reason on stderr).
    bool ok() const { return mSelect != nullptr && mUpdate != nullptr; }

    // Times `count` point selects of a key's current value, taking `keys` in turn: bind, step,
    // copy the text out, reset. False when a key has no value row.
    bool measureSelect(const std::vector<std::string>& keys, size_t count, LatencySamples* samples);
    // Times `count` committed updates of `key`'s current value, each its own transaction.
    bool measureWrite(const std::string& key, size_t count, LatencySamples* samples);

private:
    sqlite3* mDb = nullptr;
    sqlite3_stmt* mSelect = nullptr;
    sqlite3_stmt* mUpdate = nullptr;
};

}  // namespace Halo::OS
