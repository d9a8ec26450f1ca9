#include "LockFile.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace Halo::OS {

LockFile::Result LockFile::acquire(const std::string& path, int* errorNumber) {
    mFd.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (mFd.get() < 0 && errno == EACCES) mFd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (mFd.get() < 0) {
        *errorNumber = errno;
        return Result::Failed;
    }
    int result;
    do {
        result = flock(mFd.get(), LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result == 0) return Result::Locked;
    *errorNumber = errno;
    mFd.reset();
    return *errorNumber == EWOULDBLOCK ? Result::Busy : Result::Failed;
}

}  // namespace Halo::OS
