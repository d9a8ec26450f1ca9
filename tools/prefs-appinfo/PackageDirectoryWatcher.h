#pragma once

#include <functional>
#include <string>
#include <thread>

namespace Halo::OS {

// Watches one folder with inotify on a thread of its own and reports each file that was written
// (closed after writing, or moved in) or removed (deleted, or moved out). When the kernel's
// event queue overflowed, events were lost: then a Rescan is reported instead.
class PackageDirectoryWatcher {
public:
    enum class Change { Written, Removed, Rescan };
    // Called on the watcher's thread, one call at a time; `fileName` is the name inside the
    // folder (empty for Rescan).
    using Callback = std::function<void(const std::string& fileName, Change change)>;

    PackageDirectoryWatcher(std::string directory, Callback callback);
    // Stops the thread.
    ~PackageDirectoryWatcher();
    PackageDirectoryWatcher(const PackageDirectoryWatcher&) = delete;
    PackageDirectoryWatcher& operator=(const PackageDirectoryWatcher&) = delete;

    // Starts watching. False, with the reason in `error`, when the folder cannot be watched.
    // Events that happen from the moment it returns true are reported.
    bool start(std::string* error);
    // Stops watching and joins the thread; no callback runs once it returns. Must not be called
    // from the callback.
    void stop();

private:
    void watchLoop();

    const std::string mDirectory;
    const Callback mCallback;
    int mInotifyFd = -1;
    int mStopFd = -1;
    std::thread mThread;
};

}  // namespace Halo::OS
