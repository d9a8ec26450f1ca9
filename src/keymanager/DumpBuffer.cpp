#define LOG_TAG "PreferencesService"

#include "keymanager/DumpBuffer.h"

#include <errno.h>
#include <limits.h>
#include <log/log.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace Halo::OS {

DumpBuffer::DumpBuffer() : mFd(memfd_create("prefs-dump", MFD_CLOEXEC)) {
    if (mFd < 0) ALOGE("Dump not written: no memory file for its text: %s", strerror(errno));
}

DumpBuffer::~DumpBuffer() {
    if (mFd >= 0) close(mFd);
}

bool DumpBuffer::copyTo(int fd, std::chrono::milliseconds timeout) const {
    if (mFd < 0) return false;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + timeout;
    char chunk[PIPE_BUF];
    off_t offset = 0;
    for (;;) {
        const ssize_t length = pread(mFd, chunk, sizeof(chunk), offset);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return length == 0;
        ssize_t sent = 0;
        while (sent < length) {
            const auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                ALOGE("Dump given up: its reader took %lld bytes in %lld ms and no more",
                      static_cast<long long>(offset + sent),
                      static_cast<long long>(timeout.count()));
                return false;
            }
            pollfd reader{fd, POLLOUT, 0};
            const int ready =
                    poll(&reader, 1, static_cast<int>(std::min<long long>(left.count(), 60000)));
            if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
            ssize_t written = -1;
            if (ready > 0 && (reader.revents & POLLOUT) != 0) {
                written = write(fd, chunk + sent, static_cast<size_t>(length - sent));
                if (written < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            }
            if (written < 0) {
                ALOGE("Dump given up: its descriptor failed after %lld bytes",
                      static_cast<long long>(offset + sent));
                return false;
            }
            sent += written;
        }
        offset += length;
    }
}

}  // namespace Halo::OS
