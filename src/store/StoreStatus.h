#pragma once

#include <cstdint>

namespace Halo::OS {

// Status codes of the store's operations (IPreferencesDb and Sqlite3PreferencesDb). The key
// manager passes some of them on to clients, and logs and tests name them by value, so the values
// are fixed: never renumber an entry, only append new ones below the last. The codes are plain
// int32_t values (the enumeration converts implicitly), so that IPreferencesDb keeps int32_t
// results and callers compare them with these names.
#define PREFS_STORE_STATUS_LIST(X)                                                        \
    X(STORE_OK, 0, "success")                                                             \
    X(STORE_FAILED, -1,                                                                   \
      "a statement could not be reset, bound or stepped, a raw query "                    \
      "failed, or an argument is out of range")                                           \
    X(STORE_OPEN_FAILED, -2, "a database file could not be opened")                       \
    X(STORE_NOT_OPEN, -3, "the database of the scope is not open")                        \
    X(STORE_CREATE_FAILED, -4,                                                            \
      "a table, trigger, pragma or prepared statement could not be "                      \
      "created")                                                                          \
    X(STORE_CLOSE_FAILED, -5,                                                             \
      "a database could not be closed, or SQLite could not be shut "                      \
      "down")                                                                             \
    X(STORE_DUPLICATE_PACKAGE, -6, "duplicate package")                                   \
    X(STORE_UNKNOWN_PACKAGE, -7, "unknown package")                                       \
    X(STORE_UNKNOWN_KEY, -8, "unknown key or row")                                        \
    X(STORE_OWNER_REFUSED, -9, "owner refused")                                           \
    X(STORE_NOT_OWNER, -10, "change by a non-owner")                                      \
    X(STORE_DUPLICATE_LISTENER, -11, "duplicate listener row")                            \
    X(STORE_NO_LISTENER, -12, "no listener row to remove")                                \
    X(STORE_INVALID_PERMISSION, -13, "invalid permission")                                \
    X(STORE_USER_REQUIRED, -14, "a user id is required, or the user is not the caller's") \
    X(STORE_USER_DB_GONE, -15,                                                            \
      "no user connection to close, or a user's database file could "                     \
      "not be removed")                                                                   \
    X(STORE_UPGRADE_FAILED, -16, "a schema upgrade step failed")

enum StoreStatus : int32_t {
#define PREFS_STORE_STATUS_ENTRY(name, value, text) name = (value),
    PREFS_STORE_STATUS_LIST(PREFS_STORE_STATUS_ENTRY)
#undef PREFS_STORE_STATUS_ENTRY
};

// The name of a store status ("STORE_UNKNOWN_KEY") and its sentence; null for a value that is not
// a store status.
const char* storeStatusName(int32_t status);
const char* storeStatusText(int32_t status);

}  // namespace Halo::OS
