#pragma once

#include <cstdint>

namespace Halo::OS {

// The results of the store's int32_t operations (IPreferencesDb and Sqlite3PreferencesDb).
// They are plain int32_t values (Code converts implicitly), so that IPreferencesDb keeps its
// int32_t results and the key manager compares them by name. Logs, tests and the key manager's
// decisions depend on the numbers: never renumber a code, and give a new one a number no code
// uses. The key manager's own codes (KeyManagerStatus) reuse some of these numbers with other
// meanings; a store result is never passed on as a key manager result.
struct StoreStatus {
    enum Code : int32_t {
        Ok = 0,
        // A statement could not be reset, bound or stepped, a raw query failed, or an argument
        // (scope, domain, the caller's user for a user key) is not accepted.
        Failed = -1,
        // A database file could not be opened (or was refused, see mayOpenDatabase).
        OpenFailed = -2,
        // The database of the scope is not open.
        NotOpen = -3,
        // A table, trigger, pragma or prepared statement could not be created.
        CreateFailed = -4,
        // A database could not be closed, or SQLite could not be shut down.
        CloseFailed = -5,
        DuplicatePackage = -6,
        UnknownPackage = -7,
        // No such key, or no such row of it.
        UnknownKey = -8,
        // An owner change refused, or an owner uid given without its package name (or the
        // reverse).
        OwnerRefused = -9,
        // A scope, type or default change requested by a package that does not own the key.
        NotOwner = -10,
        DuplicateListener = -11,
        // No listener row to remove.
        NoListener = -12,
        // A permission other than Read or ReadWrite.
        InvalidPermission = -13,
        // A user id is required, or a user key was read for a user that is not the caller's.
        UserRequired = -14,
        // No connection of that user to close, or a user's database file could not be removed.
        UserDbGone = -15,
        // A schema upgrade step failed.
        UpgradeFailed = -16,
    };
};

}  // namespace Halo::OS
