#pragma once

#include <cstdint>

namespace Halo::OS {

// The results of PreferencesKeyManager's int operations. The service returns every one but Ok to
// its client unchanged, as a service-specific error, and the app-info service receives them the
// same way; the numbers are therefore part of the service's interface. Never renumber a code,
// and give a new one a number no code uses.
//
// Reads and writes report the same kinds of refusal with different codes: WriteRefused on
// writes and resets, ReadRefused on reads, type look-ups and listener registration. The store's
// own status codes reuse some of these numbers with other meanings (the store's -8 is an unknown
// key); a store result is never returned as a key manager result.
struct KeyManagerStatus {
    enum Code : int32_t {
        Ok = 0,
        // The caller's permission row for the key does not allow the operation.
        KeyPermissionDenied = -3,
        // The caller has no such listener to unregister.
        ListenerNotFound = -6,
        // The caller lacks the OS permission (READ_SETTINGS, WRITE_SETTINGS) the operation needs.
        OsPermissionDenied = -7,
        // A write or reset refused: the key is not declared for the caller, the type is wrong,
        // the user is not on the device or is another user's, or the store write failed.
        WriteRefused = -8,
        // A read, type look-up or listener registration refused, for the same reasons.
        ReadRefused = -9,
        // The listener was not registered: null, an object of this process handed in by another
        // process, or the store refused its rows.
        ListenerNotStored = -13,
        // A user list update or a user's data deletion failed in the store.
        UserOperationFailed = -15,
    };
};

}  // namespace Halo::OS
