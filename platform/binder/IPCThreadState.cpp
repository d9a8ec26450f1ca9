#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <unistd.h>

#include "binder/BinderConnection.h"
#include "binder/BinderRuntime.h"

namespace android {

IPCThreadState* IPCThreadState::self() {
    static thread_local IPCThreadState state;
    return &state;
}

IPCThreadState* IPCThreadState::selfOrNull() {
    return self();
}

void IPCThreadState::resetAfterFork() {
    IPCThreadState* state = self();
    state->mExplicitIdentity = false;
    state->mIncoming.clear();
    state->mLastTransactionBinderFlags = 0;
}

IPCThreadState::IPCThreadState()
    : mExplicitIdentity(false),
      mCallingPid(0),
      mCallingUid(0),
      mStrictModePolicy(0),
      mWorkSource(kUnsetWorkSource),
      mPropagateWorkSource(false),
      mLastTransactionBinderFlags(0) {}

sp<ProcessState> IPCThreadState::process() {
    return ProcessState::self();
}

pid_t IPCThreadState::getCallingPid() const {
    return mExplicitIdentity ? mCallingPid : getpid();
}

uid_t IPCThreadState::getCallingUid() const {
    return mExplicitIdentity ? mCallingUid : getuid();
}

int64_t IPCThreadState::clearCallingIdentity() {
    const int64_t token =
            (static_cast<int64_t>(getCallingUid()) << 32) | static_cast<uint32_t>(getCallingPid());
    mExplicitIdentity = false;
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    setCallingIdentity(static_cast<pid_t>(token & 0xffffffff),
                       static_cast<uid_t>(static_cast<uint64_t>(token) >> 32));
}

void IPCThreadState::setCallingIdentity(pid_t pid, uid_t uid) {
    mExplicitIdentity = true;
    mCallingPid = pid;
    mCallingUid = uid;
}

void IPCThreadState::setStrictModePolicy(int32_t policy) {
    mStrictModePolicy = policy;
}

int32_t IPCThreadState::getStrictModePolicy() const {
    return mStrictModePolicy;
}

int64_t IPCThreadState::setCallingWorkSourceUid(uid_t uid) {
    const int64_t token = setCallingWorkSourceUidWithoutPropagation(uid);
    mPropagateWorkSource = true;
    return token;
}

int64_t IPCThreadState::setCallingWorkSourceUidWithoutPropagation(uid_t uid) {
    const int64_t propagatedBit = static_cast<int64_t>(mPropagateWorkSource) << 32;
    const int64_t token = propagatedBit | static_cast<uint32_t>(mWorkSource);
    mWorkSource = static_cast<int32_t>(uid);
    return token;
}

uid_t IPCThreadState::getCallingWorkSourceUid() const {
    return static_cast<uid_t>(mWorkSource);
}

int64_t IPCThreadState::clearCallingWorkSource() {
    return setCallingWorkSourceUid(static_cast<uid_t>(kUnsetWorkSource));
}

void IPCThreadState::restoreCallingWorkSource(int64_t token) {
    mWorkSource = static_cast<int32_t>(token & 0xffffffff);
    mPropagateWorkSource = ((token >> 32) & 1) != 0;
}

void IPCThreadState::clearPropagateWorkSource() {
    mPropagateWorkSource = false;
}

bool IPCThreadState::shouldPropagateWorkSource() const {
    return mPropagateWorkSource;
}

void IPCThreadState::setLastTransactionBinderFlags(int32_t flags) {
    mLastTransactionBinderFlags = flags;
}

int32_t IPCThreadState::getLastTransactionBinderFlags() const {
    return mLastTransactionBinderFlags;
}

bool IPCThreadState::isServingCall() const {
    return !mIncoming.empty();
}

void IPCThreadState::joinThreadPool(bool isMain) {
    Halo::OS::BinderRuntime::instance().joinPool(isMain);
}

void IPCThreadState::stopProcess(bool /*immediate*/) {
    Halo::OS::BinderRuntime::instance().stop();
}

void IPCThreadState::flushCommands() {}

IPCThreadState::SavedState IPCThreadState::beginIncoming(Halo::OS::BinderConnection* connection,
                                                         uint64_t txid, pid_t pid, uid_t uid,
                                                         uint32_t flags) {
    SavedState saved{mExplicitIdentity,          mCallingPid, mCallingUid,
                     mStrictModePolicy,          mWorkSource, mPropagateWorkSource,
                     mLastTransactionBinderFlags};
    setCallingIdentity(pid, uid);
    mLastTransactionBinderFlags = static_cast<int32_t>(flags);
    mPropagateWorkSource = false;
    mIncoming.push_back(IncomingCall{connection, txid});
    return saved;
}

void IPCThreadState::endIncoming(const SavedState& saved) {
    mIncoming.pop_back();
    mExplicitIdentity = saved.explicitIdentity;
    mCallingPid = saved.callingPid;
    mCallingUid = saved.callingUid;
    mStrictModePolicy = saved.strictModePolicy;
    mWorkSource = saved.workSource;
    mPropagateWorkSource = saved.propagateWorkSource;
    mLastTransactionBinderFlags = saved.lastTransactionBinderFlags;
}

uint64_t IPCThreadState::nestingContext(const Halo::OS::BinderConnection* connection) const {
    for (auto it = mIncoming.rbegin(); it != mIncoming.rend(); ++it) {
        if (it->connection == connection) return it->txid;
        // Another connection with the same process: its txids are unique in that process.
        if (connection->peerPid() > 0 && it->connection->peerPid() == connection->peerPid() &&
            it->connection->peerUid() == connection->peerUid()) {
            return it->txid;
        }
    }
    return 0;
}

}  // namespace android
