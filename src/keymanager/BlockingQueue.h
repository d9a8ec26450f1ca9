#pragma once

#include <android/log.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <iterator>
#include <utility>

#include "threads/Mutex.h"

namespace Halo::OS {

// An unbounded first-in, first-out queue that carries work from producer threads to consumer
// threads. Consumers block in dequeue() until an item arrives or the queue is terminated.
// Termination is final: items queued before it are still handed out, but enqueueing, clearing or
// terminating a terminated queue is a fatal assertion (the process aborts with a log message).
//
// All operations are thread-safe. The queue's own mutex is held only inside its operations.
template <typename T>
class BlockingQueue {
public:
    BlockingQueue() = default;
    BlockingQueue(const BlockingQueue&) = delete;
    BlockingQueue& operator=(const BlockingQueue&) = delete;

    // Appends `item` at the back and wakes one waiting consumer.
    // Fatal when the queue is terminated.
    void enqueue(T&& item) EXCLUDES(mMutex) {
        assertNotTerminated("Enqueueing an already terminated BlockingQueue");
        {
            Mutex::Autolock lock(mMutex);
            mItems.push_back(std::move(item));
        }
        mCondition.notify_one();
    }
    void enqueue(const T& item) EXCLUDES(mMutex) {
        assertNotTerminated("Enqueueing an already terminated BlockingQueue");
        {
            Mutex::Autolock lock(mMutex);
            mItems.push_back(item);
        }
        mCondition.notify_one();
    }

    // Appends every item of `items` in order under one hold of the mutex, so that a consumer
    // that drains the queue sees all of them or none, and wakes one waiting consumer. Fatal when
    // the queue is terminated.
    template <typename Items>
    void enqueueAll(const Items& items) EXCLUDES(mMutex) {
        assertNotTerminated("Enqueueing an already terminated BlockingQueue");
        {
            Mutex::Autolock lock(mMutex);
            mItems.insert(mItems.end(), std::begin(items), std::end(items));
        }
        mCondition.notify_one();
    }

    // Waits until an item is available or the queue is terminated. Moves the front item into
    // `out` and returns true; returns false, leaving `out` untouched, when the queue is
    // terminated and empty.
    bool dequeue(T& out) EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        while (mItems.empty() && !isTerminated_) mCondition.wait(lock.unique());
        if (mItems.empty()) return false;
        out = std::move(mItems.front());
        mItems.pop_front();
        return true;
    }

    // Drops every queued item. Fatal when the queue is terminated.
    void clear() EXCLUDES(mMutex) {
        assertNotTerminated("Clearing an already terminated BlockingQueue");
        Mutex::Autolock lock(mMutex);
        mItems.clear();
    }

    // Marks the queue terminated and wakes every waiting consumer. Fatal when it already is.
    void terminate() EXCLUDES(mMutex) {
        assertNotTerminated("Terminating an already terminated BlockingQueue");
        Mutex::Autolock lock(mMutex);
        isTerminated_ = true;
        mCondition.notify_all();
    }

    // Read without the mutex; may be stale by the time the caller looks at it.
    bool isTerminated() const { return isTerminated_; }

    // The number of queued items, read under the queue's mutex.
    size_t size() EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        return mItems.size();
    }

private:
    void assertNotTerminated(const char* message) const {
        if (isTerminated_)
            __android_log_assert("isTerminated_", "PreferencesService", "%s", message);
    }

    std::atomic<bool> isTerminated_{false};
    std::deque<T> mItems GUARDED_BY(mMutex);
    Mutex mMutex;
    std::condition_variable mCondition;
};

}  // namespace Halo::OS
