#pragma once

#include <android-base/unique_fd.h>

#include <string>

namespace Halo::OS {

// An exclusive advisory lock (flock) on a file, held until the object is destroyed or the
// process ends, whichever comes first. The file is left in place: removing a lock file would let
// a second process lock a fresh file of the same name while a third still holds the old one.
class LockFile {
public:
    enum class Result {
        Locked,  // this object holds the lock
        Busy,    // another open file description holds it (another process)
        Failed,  // the file could not be opened or created; *errorNumber says why
    };

    LockFile() = default;
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

    // Opens `path` (creating it, mode 0644, when missing) and takes the lock without waiting. A
    // file that exists but is not writable for this process is opened read-only, which is enough
    // to lock it. Releases a lock this object held before.
    Result acquire(const std::string& path, int* errorNumber);

private:
    android::base::unique_fd mFd;
};

}  // namespace Halo::OS
