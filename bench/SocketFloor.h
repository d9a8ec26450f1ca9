#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "LatencySamples.h"

namespace Halo::OS {

// The physical floor of a Binder call: a round trip of the same number of bytes over a raw Unix
// stream socket between two processes, with one blocking write and one blocking read on each
// side and no framing, parsing or dispatch.
//
// Both processes run on one CPU while round trips are timed: the figure is the cost of the round
// trip itself, not of waking a CPU that went idle, which in a virtual machine can cost several
// times as much and happens or not depending on where the scheduler last put each process.
//
// The constructor forks an echo process that answers each request of `requestBytes` with
// `replyBytes`; the destructor closes the socket and reaps it. The echo process only reads and
// writes, so it may be forked from a process that already runs threads.
class SocketFloor {
public:
    SocketFloor(size_t requestBytes, size_t replyBytes);
    ~SocketFloor();
    SocketFloor(const SocketFloor&) = delete;
    SocketFloor& operator=(const SocketFloor&) = delete;

    // False when the socket or the echo process could not be made.
    bool ok() const { return mPid > 0; }
    // Times `count` round trips and appends them to `samples`; false when the echo process
    // stopped answering. The calling thread runs on the echo process's CPU meanwhile and gets its
    // own CPU set back afterwards.
    bool measure(size_t count, LatencySamples* samples);

private:
    size_t mRequestBytes;
    size_t mReplyBytes;
    std::vector<char> mRequest;
    std::vector<char> mReply;
    int mFd = -1;
    pid_t mPid = -1;
    int mCpu = -1;  // the echo process's CPU
};

}  // namespace Halo::OS
