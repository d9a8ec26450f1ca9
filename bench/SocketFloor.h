#pragma once

#include <sched.h>
#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "LatencySamples.h"

namespace Halo::OS {

// The physical floor of a Binder call: a round trip of the same number of bytes over a raw Unix
// stream socket between two processes, with one blocking write and one blocking read on each
// side and no framing, parsing or dispatch.
//
// The constructor forks an echo process that answers each request of `requestBytes` with
// `replyBytes`; the destructor closes the socket and reaps it. The echo process only reads and
// writes, so it may be forked from a process that already runs threads. It runs on `echoCpu`
// when that is not negative, else on the CPUs the caller may run on, as the service's processes
// do.
class SocketFloor {
public:
    SocketFloor(size_t requestBytes, size_t replyBytes, int echoCpu = -1);
    ~SocketFloor();
    SocketFloor(const SocketFloor&) = delete;
    SocketFloor& operator=(const SocketFloor&) = delete;

    // False when the socket or the echo process could not be made.
    bool ok() const { return mPid > 0; }
    enum class Placement {
        // Both processes go where the scheduler puts them, as the service's processes do: on a
        // machine whose idle CPUs are slow to wake, that cost is part of the floor.
        AsScheduled,
        // Both run on the CPU the caller is on: the cost of the round trip itself.
        OneCpu,
    };

    // Times `count` round trips and appends them to `samples`; false when the echo process
    // stopped answering. With OneCpu, the calling thread and the echo process get their own CPU
    // sets back afterwards.
    bool measure(size_t count, Placement placement, LatencySamples* samples);

private:
    size_t mRequestBytes;
    size_t mReplyBytes;
    std::vector<char> mRequest;
    std::vector<char> mReply;
    int mFd = -1;
    pid_t mPid = -1;
    cpu_set_t mEchoCpus;  // where the echo process runs between OneCpu measurements
};

}  // namespace Halo::OS
