#pragma once

#include <sys/types.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <vector>

namespace Halo::OS {
class BinderConnection;
}

namespace android {

class ProcessState;

// Per-thread Binder state. Outside an incoming transaction the calling identity is the process's
// own pid and uid; while a transaction from another process is being served it is that peer's
// kernel-verified identity (SO_PEERCRED of the connection). Calls between objects of the same
// process leave the identity as it is.
class IPCThreadState {
public:
    // The calling thread's state, created on first use and owned by the thread.
    static IPCThreadState* self();
    static IPCThreadState* selfOrNull();

    sp<ProcessState> process();

    pid_t getCallingPid() const;
    uid_t getCallingUid() const;

    // Makes the process's own identity the calling identity and returns a token that restores
    // the previous one.
    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);

    // Sets the calling identity directly (the runtime does this around every incoming
    // transaction; tests use it to act as a given caller).
    void setCallingIdentity(pid_t pid, uid_t uid);

    void setStrictModePolicy(int32_t policy);
    int32_t getStrictModePolicy() const;

    static const int32_t kUnsetWorkSource = -1;
    int64_t setCallingWorkSourceUid(uid_t uid);
    int64_t setCallingWorkSourceUidWithoutPropagation(uid_t uid);
    uid_t getCallingWorkSourceUid() const;
    int64_t clearCallingWorkSource();
    void restoreCallingWorkSource(int64_t token);
    void clearPropagateWorkSource();
    bool shouldPropagateWorkSource() const;

    // The flags of the transaction being served (FLAG_ONEWAY), 0 outside one.
    void setLastTransactionBinderFlags(int32_t flags);
    int32_t getLastTransactionBinderFlags() const;

    // True while this thread serves an incoming transaction from another process.
    bool isServingCall() const;

    // Makes the calling thread a thread of the process's pool: it serves incoming transactions,
    // one-way calls and death notifications until stopProcess() is called, then returns.
    void joinThreadPool(bool isMain = true);

    // Asks every pool thread to leave its loop (joinThreadPool returns). Only sets a flag and
    // writes to an eventfd, so a signal handler may call it.
    void stopProcess(bool immediate = true);

    // Nothing is buffered on this runtime; kept for source compatibility.
    void flushCommands();

    // A child of fork() starts with the process's own identity on the forking thread.
    static void resetAfterFork();

private:
    friend class Halo::OS::BinderConnection;

    struct IncomingCall {
        Halo::OS::BinderConnection* connection;
        uint64_t txid;
    };

    // What an incoming transaction changes, restored when it is done.
    struct SavedState {
        bool explicitIdentity;
        pid_t callingPid;
        uid_t callingUid;
        int32_t strictModePolicy;
        int32_t workSource;
        bool propagateWorkSource;
        int32_t lastTransactionBinderFlags;
    };

    IPCThreadState();

    // The runtime's bookkeeping of the transactions this thread serves: the peer's identity
    // becomes the calling identity until endIncoming.
    SavedState beginIncoming(Halo::OS::BinderConnection* connection, uint64_t txid, pid_t pid,
                             uid_t uid, uint32_t flags);
    void endIncoming(const SavedState& saved);
    // The id of the innermost transaction this thread serves for `connection`'s peer process
    // (on that connection or another one with the same process), 0 if none.
    uint64_t nestingContext(const Halo::OS::BinderConnection* connection) const;

    // Without an explicit identity the calling identity is the process's own (read live, so a
    // child of fork() or a process that changed its uid reports its current ids).
    bool mExplicitIdentity;
    pid_t mCallingPid;
    uid_t mCallingUid;
    int32_t mStrictModePolicy;
    int32_t mWorkSource;
    bool mPropagateWorkSource;
    int32_t mLastTransactionBinderFlags;
    std::vector<IncomingCall> mIncoming;
};

}  // namespace android
