#pragma once

#include <sys/types.h>
#include <utils/String16.h>

namespace Halo::OS {

// Who is calling and which operating-system permissions the caller holds: the one place where
// the key manager and the service learn their caller's identity. The default answers with
// Binder's calling identity of the current thread (IPCThreadState) and android::PermissionCache;
// a subclass can answer for any caller without Binder (tests, benchmarks, fuzzers).
//
// Thread-safe: Binder threads ask it concurrently, each about the call it serves.
class PreferencesAccess {
public:
    struct CallingContext {
        pid_t pid;
        uid_t uid;
    };

    PreferencesAccess() = default;
    virtual ~PreferencesAccess() = default;

    PreferencesAccess(const PreferencesAccess&) = delete;
    PreferencesAccess& operator=(const PreferencesAccess&) = delete;

    // The caller of the transaction this thread serves; this process's own identity outside one.
    virtual CallingContext getCallingContext() const;
    // True when `caller` holds `permission` (for example
    // PreferencesKeyManager::kReadPermission). Root and this process hold every permission; any
    // other caller is asked of the permission service, and refused when that cannot answer.
    virtual bool checkPermission(const CallingContext& caller,
                                 const android::String16& permission) const;
    // True when `caller` is this process itself.
    static bool isOwnProcess(const CallingContext& caller);
};

}  // namespace Halo::OS
