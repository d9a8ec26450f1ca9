#include "SocketFloor.h"

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace Halo::OS {
namespace {

bool readFully(int fd, char* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = read(fd, buffer + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool writeFully(int fd, const char* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(fd, buffer + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

SocketFloor::SocketFloor(size_t requestBytes, size_t replyBytes, int echoCpu)
    : mRequestBytes(requestBytes),
      mReplyBytes(replyBytes),
      mRequest(requestBytes, 'q'),
      mReply(replyBytes, 'r') {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
    CPU_ZERO(&mEchoCpus);
    if (echoCpu >= 0) {
        CPU_SET(echoCpu, &mEchoCpus);
    } else if (sched_getaffinity(0, sizeof(mEchoCpus), &mEchoCpus) != 0) {
        close(fds[0]);
        close(fds[1]);
        return;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return;
    }
    if (pid == 0) {
        close(fds[0]);
        // Only async-signal-safe calls from here on: the parent may run threads.
        if (sched_setaffinity(0, sizeof(mEchoCpus), &mEchoCpus) != 0) _exit(1);
        char* request = mRequest.data();
        const char* reply = mReply.data();
        while (readFully(fds[1], request, mRequestBytes) &&
               writeFully(fds[1], reply, mReplyBytes)) {
        }
        _exit(0);
    }
    close(fds[1]);
    mFd = fds[0];
    mPid = pid;
}

SocketFloor::~SocketFloor() {
    if (mFd >= 0) close(mFd);
    if (mPid > 0) {
        int status;
        while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
        }
    }
}

bool SocketFloor::measure(size_t count, Placement placement, LatencySamples* samples) {
    if (!ok()) return false;
    cpu_set_t previous;
    const int cpu = placement == Placement::OneCpu ? sched_getcpu() : -1;
    const bool pinned = cpu >= 0 && sched_getaffinity(0, sizeof(previous), &previous) == 0;
    if (pinned) {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        sched_setaffinity(mPid, sizeof(one), &one);
        sched_setaffinity(0, sizeof(one), &one);
    }
    bool answered = true;
    for (size_t i = 0; answered && i < count; ++i) {
        const LatencySamples::Clock::time_point start = LatencySamples::Clock::now();
        answered = writeFully(mFd, mRequest.data(), mRequestBytes) &&
                   readFully(mFd, mReply.data(), mReplyBytes);
        if (answered) samples->add(LatencySamples::Clock::now() - start);
    }
    if (pinned) {
        sched_setaffinity(0, sizeof(previous), &previous);
        sched_setaffinity(mPid, sizeof(mEchoCpus), &mEchoCpus);
    }
    return answered;
}

}  // namespace Halo::OS
