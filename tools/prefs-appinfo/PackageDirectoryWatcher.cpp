#define LOG_TAG "PreferencesService"

#include "prefs-appinfo/PackageDirectoryWatcher.h"

#include <log/log.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Halo::OS {

PackageDirectoryWatcher::PackageDirectoryWatcher(std::string directory, Callback callback)
    : mDirectory(std::move(directory)), mCallback(std::move(callback)) {}

PackageDirectoryWatcher::~PackageDirectoryWatcher() {
    stop();
}

bool PackageDirectoryWatcher::start(std::string* error) {
    mInotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    mStopFd = eventfd(0, EFD_CLOEXEC);
    const uint32_t mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM |
                          IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (mInotifyFd < 0 || mStopFd < 0 ||
        inotify_add_watch(mInotifyFd, mDirectory.c_str(), mask) < 0) {
        *error = strerror(errno);
        stop();
        return false;
    }
    mThread = std::thread([this] { watchLoop(); });
    return true;
}

void PackageDirectoryWatcher::stop() {
    if (mThread.joinable()) {
        const uint64_t one = 1;
        (void)!write(mStopFd, &one, sizeof(one));
        mThread.join();
    }
    if (mInotifyFd >= 0) close(mInotifyFd);
    if (mStopFd >= 0) close(mStopFd);
    mInotifyFd = -1;
    mStopFd = -1;
}

void PackageDirectoryWatcher::watchLoop() {
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        pollfd fds[2] = {{mInotifyFd, POLLIN, 0}, {mStopFd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            ALOGE("prefs-appinfo: cannot wait for changes of %s: %s", mDirectory.c_str(),
                  strerror(errno));
            return;
        }
        if (fds[1].revents != 0) return;
        const ssize_t length = read(mInotifyFd, buffer, sizeof(buffer));
        if (length <= 0) continue;
        for (ssize_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                ALOGW("prefs-appinfo: changes of %s were lost; reading it again",
                      mDirectory.c_str());
                mCallback("", Change::Rescan);
                continue;
            }
            if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
                ALOGE("prefs-appinfo: %s was removed; its changes are no longer followed",
                      mDirectory.c_str());
                continue;
            }
            if (event->len == 0 || (event->mask & IN_ISDIR) != 0) continue;
            const std::string name(event->name);
            if ((event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) {
                mCallback(name, Change::Written);
            } else if ((event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
                mCallback(name, Change::Removed);
            }
        }
    }
}

}  // namespace Halo::OS
