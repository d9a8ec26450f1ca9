#pragma once

#include <sys/types.h>

#include <cstdint>

namespace android {

// Per-thread Binder state. Outside an incoming transaction the calling identity is the process's
// own pid and uid; while a transaction is being served it is the peer's kernel-verified identity.
class IPCThreadState {
public:
    // The calling thread's state, created on first use and owned by the thread.
    static IPCThreadState* self();

    pid_t getCallingPid() const;
    uid_t getCallingUid() const;

    // Makes the process's own identity the calling identity and returns a token that restores
    // the previous one.
    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);

    // Used by the runtime when it starts and finishes serving a transaction.
    void setCallingIdentity(pid_t pid, uid_t uid);

private:
    IPCThreadState();

    pid_t mCallingPid;
    uid_t mCallingUid;
};

}  // namespace android
