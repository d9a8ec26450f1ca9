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
    // stopped answering.
    bool measure(size_t count, LatencySamples* samples);

private:
    size_t mRequestBytes;
    size_t mReplyBytes;
    std::vector<char> mRequest;
    std::vector<char> mReply;
    int mFd = -1;
    pid_t mPid = -1;
};

}  // namespace Halo::OS
