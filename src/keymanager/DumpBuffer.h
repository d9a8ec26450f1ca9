#pragma once

#include <chrono>

namespace Halo::OS {

// The text of a dump, kept in an anonymous memory file until it is copied to the descriptor of
// whoever asked for it, so that no lock is held while that reader takes its time. Not thread-safe:
// one thread writes the text, then copies it.
class DumpBuffer {
public:
    // Makes the memory file; when none can be made (no descriptor left) fd() is -1, writes to it
    // fail and copyTo() copies nothing (both logged).
    DumpBuffer();
    ~DumpBuffer();
    DumpBuffer(const DumpBuffer&) = delete;
    DumpBuffer& operator=(const DumpBuffer&) = delete;

    // The descriptor to write the text to (dprintf and the like); owned by the buffer.
    int fd() const { return mFd; }

    // Copies everything written so far to `fd`, waiting at most `timeout` in all for `fd` to
    // accept it. Returns false, with a log line, when the reader did not take the whole text in
    // that time or `fd` failed; what it took stays taken. Writes at most PIPE_BUF bytes at a time
    // once `fd` polls writable, so a blocking pipe or socket does not block the copy.
    bool copyTo(int fd, std::chrono::milliseconds timeout) const;

private:
    int mFd;
};

}  // namespace Halo::OS
