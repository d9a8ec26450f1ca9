#pragma once

#include <optional>
#include <string>

#include "threads/Mutex.h"

struct sqlite3;
struct sqlite3_stmt;

namespace Halo::OS {

// The platform's legacy key-value store: one table of text settings in an SQLite file. The older
// settings service kept the device's settings in such files, and the preferences service reads
// them once to migrate them (LegacySettingsDbHelper). Tests use this class to create legacy
// databases.
//
// File format
//
//   An SQLite 3 database file. It holds one settings table whose name is given to the
//   constructor ("system_settings" in the legacy system database "system.db", "user_settings" in
//   each per-user database "user<N>.db"), created as
//
//       CREATE TABLE <table> (key TEXT PRIMARY KEY NOT NULL, value TEXT)
//
//   One row per setting; `value` is the setting's text exactly as the legacy writer stored it (for
//   example "15", "0.5", "true", "1", "Roboto"). A NULL value, or no row, means the setting is not
//   set. Other tables in the file are ignored. Files use SQLite's default rollback journal, so a
//   "<file>-journal" companion may exist next to a database; a "<file>-wal"/"<file>-shm" pair
//   exists when a writer switched the file to write-ahead logging. The companions belong to the
//   database and are removed with it.
//
// A store is valid when the file could be opened as an SQLite database that passes SQLite's
// quick integrity check and holds the table with both columns. A missing file, or one that is
// an SQLite database without any table (for example an empty file), is created with the table
// unless kReadOnly is given; a file with other tables but not this one is foreign and invalid. An
// invalid store never touches its file again: get() answers nothing and set() fails. Nothing
// here crashes or throws on a corrupt or foreign file.
//
// All operations are thread-safe; one connection is shared under mMutex.
class KeyValueStore {
public:
    enum Flags : int {
        // Opens an existing file for reading only: never creates the file or the table, and
        // set() always fails.
        kReadOnly = 1 << 0,
    };

    // Opens (or creates, see above) the database at `path` with the settings table `table`.
    // `table` must be an SQL identifier (letters, digits, '_', not starting with a digit);
    // anything else gives an invalid store. Failures are logged; check isValid().
    KeyValueStore(const std::string& path, const std::string& table, int flags = 0);
    // Closes the file.
    ~KeyValueStore();
    KeyValueStore(const KeyValueStore&) = delete;
    KeyValueStore& operator=(const KeyValueStore&) = delete;

    // True when the file is open and holds the settings table (see above).
    bool isValid() const;

    // The text stored for `key`; nullopt when the store is invalid, the key has no row or a NULL
    // value, or the read failed (logged).
    std::optional<std::string> get(const std::string& key) const;
    // Stores `value` for `key`, replacing an earlier value. Returns false (logged) when the store
    // is invalid or read-only, or the write failed.
    bool set(const std::string& key, const std::string& value);

    const std::string& path() const { return mPath; }
    const std::string& table() const { return mTable; }

private:
    bool openLocked() REQUIRES(mMutex);
    bool ensureTableLocked() REQUIRES(mMutex);
    bool prepareLocked(const std::string& sql, sqlite3_stmt** statement) REQUIRES(mMutex);
    void closeLocked() REQUIRES(mMutex);

    const std::string mPath;
    const std::string mTable;
    const int mFlags;

    mutable Mutex mMutex;
    sqlite3* mDb GUARDED_BY(mMutex) = nullptr;
    sqlite3_stmt* mSelect GUARDED_BY(mMutex) = nullptr;
    sqlite3_stmt* mUpdate GUARDED_BY(mMutex) = nullptr;
    sqlite3_stmt* mInsert GUARDED_BY(mMutex) = nullptr;
    bool mValid GUARDED_BY(mMutex) = false;
};

}  // namespace Halo::OS
