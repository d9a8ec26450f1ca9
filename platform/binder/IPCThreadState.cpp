#include <binder/IPCThreadState.h>

#include <unistd.h>

namespace android {

IPCThreadState* IPCThreadState::self() {
    static thread_local IPCThreadState state;
    return &state;
}

IPCThreadState::IPCThreadState() : mCallingPid(getpid()), mCallingUid(getuid()) {}

pid_t IPCThreadState::getCallingPid() const {
    return mCallingPid;
}

uid_t IPCThreadState::getCallingUid() const {
    return mCallingUid;
}

int64_t IPCThreadState::clearCallingIdentity() {
    int64_t token = (static_cast<int64_t>(mCallingUid) << 32) | static_cast<uint32_t>(mCallingPid);
    mCallingPid = getpid();
    mCallingUid = getuid();
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    mCallingUid = static_cast<uid_t>(static_cast<uint64_t>(token) >> 32);
    mCallingPid = static_cast<pid_t>(token & 0xffffffff);
}

void IPCThreadState::setCallingIdentity(pid_t pid, uid_t uid) {
    mCallingPid = pid;
    mCallingUid = uid;
}

}  // namespace android
