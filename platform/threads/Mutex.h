#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <mutex>

namespace Halo::OS {

// A std::mutex that clang's thread-safety analysis understands. Members guarded by it are
// declared GUARDED_BY(mMutex), functions that expect it held are declared REQUIRES(mMutex), and
// scopes take it with Mutex::Autolock.
class CAPABILITY("mutex") Mutex : public std::mutex {
public:
    void lock() ACQUIRE() { std::mutex::lock(); }
    void unlock() RELEASE() { std::mutex::unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return std::mutex::try_lock(); }

    // Holds the mutex for the lifetime of the object. `unique()` exposes the underlying
    // std::unique_lock so that a std::condition_variable can wait on it; a wait releases and
    // re-acquires the mutex, which the analysis treats as held throughout.
    class SCOPED_CAPABILITY Autolock {
    public:
        explicit Autolock(Mutex& mutex) ACQUIRE(mutex) : mLock(mutex) {}
        ~Autolock() RELEASE() {}
        Autolock(const Autolock&) = delete;
        Autolock& operator=(const Autolock&) = delete;

        std::unique_lock<std::mutex>& unique() { return mLock; }

    private:
        std::unique_lock<std::mutex> mLock;
    };
};

}  // namespace Halo::OS
