#pragma once

#include <android-base/unique_fd.h>
#include <binder/IBinder.h>

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "binder/BinderTask.h"
#include "threads/Mutex.h"

namespace Halo::OS {

class BinderConnection;

// The process's Binder engine behind ProcessState: one epoll set with every connection and
// every published service's listening socket, the thread pool that waits on it, the queue of
// work for pool threads, and the flusher thread that sends output peers could not take at once.
//
// Each connection and listener is registered one-shot: one pool thread gets its event, and the
// registration is re-armed when that thread (or a caller that read the connection itself) is
// done reading. The instance is created on first use and lives until the process exits; a child
// of fork() gets a fresh one.
class BinderRuntime {
public:
    static BinderRuntime& instance();

    // The most connections a published service accepts from one uid other than root; further
    // ones are closed as soon as they are accepted.
    static constexpr size_t kMaxConnectionsPerUid = 128;

    // Bounds on the incoming calls in progress (see BinderConnection) of all connections whose
    // peer runs as one uid. While its uid is over one of them, a connection is not read as long
    // as it has calls of its own in progress; it is read again once its own calls are done or
    // the uid is back at half the bounds. So one app's connections together cannot queue more
    // than this, whatever their number.
    static constexpr size_t kMaxQueuedCallsPerUid = 8192;
    static constexpr size_t kMaxQueuedBytesPerUid = 8 * 1024 * 1024;

    struct QueueTotals {
        size_t calls = 0;
        size_t bytes = 0;
    };
    // Adds `delta` to the incoming calls in progress of `uid` (subtracts it when `add` is false)
    // and returns the uid's totals after the change. `connection`: the totals of the connection
    // that changed, after the change (recorded for the peaks of queueStats()).
    QueueTotals chargeUid(uid_t uid, QueueTotals delta, bool add, QueueTotals connection);
    // The incoming calls in progress of the whole process now, and the most that one connection
    // and one uid have had in progress at once since the process started (for tests and
    // diagnostics).
    struct QueueStats {
        QueueTotals now;
        QueueTotals peakPerConnection;
        QueueTotals peakPerUid;
    };
    QueueStats queueStats() const;

    // Bytes held by the read buffers of all connections of the process now (for tests and
    // diagnostics). Each connection reports its buffer's size before and after a change.
    void chargeReadBuffer(size_t before, size_t after) {
        mReadBufferBytes.fetch_add(static_cast<int64_t>(after) - static_cast<int64_t>(before),
                                   std::memory_order_relaxed);
    }
    int64_t readBufferBytes() const { return mReadBufferBytes.load(std::memory_order_relaxed); }

    // Whether a process running as `receiver` accepts parcels carried out of line (in a memfd,
    // see docs/wire.md) from a peer running as `sender`: root, and processes of its own uid.
    // Senders ask it too, and send a parcel over the frame limit only to receivers that accept
    // it (otherwise the call fails with FAILED_TRANSACTION).
    static bool acceptsOutOfLine(uid_t sender, uid_t receiver) {
        return sender == 0 || sender == receiver;
    }

    // Adds a connection to the epoll set; it stays registered until unregisterConnection.
    void registerConnection(const android::sp<BinderConnection>& connection);
    void unregisterConnection(BinderConnection* connection);
    // Re-enables or disables the connection's one-shot readiness event.
    void rearm(BinderConnection* connection);
    void disarm(BinderConnection* connection);

    // Makes `service` reachable at `directory`/`name`: a listening socket, mode 0666, bound
    // under a temporary name and renamed into place, so the name appears ready to connect. The
    // directory is created (0755) if missing and made searchable if it is ours. Replaces an
    // earlier publication of the same path by this process. Returns OK, BAD_VALUE when the path
    // is too long for a socket address, or UNKNOWN_ERROR (logged) when a system call fails.
    android::status_t publish(const std::string& directory, const std::string& name,
                              const android::sp<android::IBinder>& service);

    // Whether some thread serves the pool (one was started, or one joined): connections are then
    // watched by the pool's epoll set.
    bool poolStarted() const { return mPoolStarted.load(std::memory_order_acquire); }
    // ProcessState::startThreadPool: starts the pool's main thread, which the maximum does not
    // count (as libbinder's); later calls do nothing.
    void startPool();
    // For a process that publishes a service, hands out a local object or links a death
    // recipient without having started a pool: starts one thread when no thread serves the pool
    // yet, counted against the maximum (so a maximum of 0 starts none).
    void ensurePool();
    // The most threads started on demand, while every pool thread is busy (libbinder's
    // BINDER_SET_MAX_THREADS). The thread of startPool and threads that join are not counted:
    // 0 means the pool is just those. Always OK.
    android::status_t setMaxThreads(size_t maxThreads);
    size_t maxThreads() const;
    // Starts one more pool thread, not counted against the maximum.
    void spawnPooledThread(bool isMain);
    // Runs the pool loop on the calling thread until stop().
    void joinPool(bool isMain);
    // Makes every pool thread leave its loop. Async-signal-safe.
    void stop();
    std::string makeThreadName();

    // Work for the pool is taken in turns by calling uid (the peer uid of the task's
    // connection): round-robin across the uids with queued work, first come first served within
    // one uid. Calls of one app uid (application id kFirstAppId or above, in any user) run on at
    // most threadsPerUid() pool threads at once; the uid's further calls wait in its queue while
    // calls of other uids are served. System uids (root included) and this process's own uid
    // are not limited. So one app holds at most that many threads, whatever it sends, and a
    // call of another uid that finds no thread free waits behind at most one call of each uid
    // ahead of it.
    static size_t threadsPerUid(size_t maxThreads) { return std::max<size_t>(2, maxThreads / 4); }
    // The first application id of a user's app uids (uid = user * kUidsPerUser + application id).
    static constexpr uid_t kFirstAppId = 10000;
    static constexpr uid_t kUidsPerUser = 100000;

    // Hands work to a pool thread.
    void queueTask(BinderTask task);
    // Whether a thread running a call of `uid` should hand on its next one-way call (queue it
    // behind the others) rather than run it: calls of another uid are waiting for a thread.
    bool othersWaiting(uid_t uid) EXCLUDES(mTodoLock);

    // Numbers of two-way calls, unique in the process (so a peer can name one in a call nested
    // in it on another connection).
    uint64_t nextTxid() { return mNextTxid.fetch_add(1) + 1; }
    // The calls this process waits for, by number, and their connections.
    void registerWaiter(uint64_t txid, BinderConnection* connection) EXCLUDES(mWaiterLock);
    void unregisterWaiter(uint64_t txid) EXCLUDES(mWaiterLock);
    // Hands an incoming call nested in a call of this process (task->context) to its waiting
    // thread, when that call went to the same process (`pid`, `uid`) the nested call comes
    // from. False otherwise: the pool serves it.
    bool deliverNested(BinderTask* task, pid_t pid, uid_t uid) EXCLUDES(mWaiterLock);
    // The listening sockets of the published services, by key, for a thread waiting for a reply
    // while no pool thread is idle (a call nested in its call may come on a new connection);
    // acceptOn accepts what is waiting on one of them.
    std::vector<std::pair<uint64_t, int>> listeners() const EXCLUDES(mLock);
    void acceptOn(uint64_t key) EXCLUDES(mLock);
    // A proxy died: every connection that has handed it to its peer tells the peer.
    void relayDeath(const android::IBinder* proxy) EXCLUDES(mLock);
    // Pool threads waiting for work now.
    int idleThreads() const { return mIdle.load(); }
    // The live connections with the process `pid` (running as `uid`), but `except`.
    std::vector<android::sp<BinderConnection>> connectionsOf(pid_t pid, uid_t uid,
                                                             const BinderConnection* except) const
            EXCLUDES(mLock);
    // Makes the flusher send the connection's queued output.
    void requestFlush(BinderConnection* connection);

    // Forgets the parent's state in a child of fork(): the child starts with a new instance.
    static void resetAfterFork();

private:
    struct Listener {
        android::base::unique_fd fd;
        android::sp<android::IBinder> service;
        std::string path;
    };

    BinderRuntime();

    struct UidTodo {
        std::deque<BinderTask> tasks;
        // Pool threads running tasks of the uid now.
        size_t running = 0;
    };
    static uid_t taskUid(const BinderTask& task);
    // Takes the next task due (see queueTask) and counts it as running. False when no task may
    // run now.
    bool popTaskLocked(BinderTask* task) REQUIRES(mTodoLock);
    void pushTaskLocked(BinderTask task) REQUIRES(mTodoLock);
    // Wakes a thread for the queued work unless one is already being woken.
    void wakeLocked() REQUIRES(mTodoLock);
    // Whether a queued task of `uid` may start now (the uid is under its share of threads).
    bool mayRunLocked(uid_t uid) REQUIRES(mTodoLock);
    bool hasRunnableLocked() REQUIRES(mTodoLock);
    bool popTask(BinderTask* task) EXCLUDES(mTodoLock);
    bool takeWokenTask(BinderTask* task) EXCLUDES(mTodoLock);
    // Queues the tasks a pool thread read and takes the next one due for that thread.
    bool queueAndTake(std::vector<BinderTask>* tasks, BinderTask* task) EXCLUDES(mTodoLock);
    // Runs a task taken by popTaskLocked and then counts it as done.
    void runTask(BinderTask task);
    void handleEvent(uint64_t key, std::vector<BinderTask>* runnable);
    void acceptConnections(const std::shared_ptr<Listener>& listener, uint64_t key);
    void maybeSpawn();
    // Live connections whose peer runs as `uid`.
    size_t connectionsOfUid(uid_t uid) const EXCLUDES(mLock);
    void flusherLoop();

    android::base::unique_fd mEpollFd;
    android::base::unique_fd mWakeFd;
    android::base::unique_fd mStopFd;
    android::base::unique_fd mFlushWakeFd;

    mutable Mutex mLock;
    uint64_t mNextKey GUARDED_BY(mLock);
    std::unordered_map<uint64_t, android::sp<BinderConnection>> mConnections GUARDED_BY(mLock);
    std::unordered_map<uint64_t, std::shared_ptr<Listener>> mListeners GUARDED_BY(mLock);
    std::unordered_map<std::string, uint64_t> mListenerKeys GUARDED_BY(mLock);

    Mutex mTodoLock;
    std::unordered_map<uid_t, UidTodo> mTodo GUARDED_BY(mTodoLock);
    // The uids with queued tasks, in the order of their turns.
    std::deque<uid_t> mTodoTurns GUARDED_BY(mTodoLock);
    // Written under mTodoLock; read without it to skip the lock when nothing is queued.
    std::atomic<size_t> mQueuedTasks{0};
    const uid_t mOwnUid;
    bool mWakePending GUARDED_BY(mTodoLock) = false;
    // threadsPerUid(mMaxThreads), read without mPoolLock.
    std::atomic<size_t> mThreadsPerUid;

    mutable Mutex mPoolLock;
    size_t mMaxThreads GUARDED_BY(mPoolLock);
    // Threads started on demand (and by ensurePool), bounded by mMaxThreads.
    size_t mOnDemand GUARDED_BY(mPoolLock) = 0;
    bool mMainStarted GUARDED_BY(mPoolLock) = false;
    std::atomic<bool> mPoolStarted{false};
    std::atomic<int> mIdle{0};
    std::atomic<bool> mStopping{false};
    std::atomic<uint32_t> mThreadCounter{0};

    std::atomic<uint64_t> mNextTxid{0};
    // Taken before a connection's lock (deliverNested), never under one.
    Mutex mWaiterLock;
    std::unordered_map<uint64_t, BinderConnection*> mWaiters GUARDED_BY(mWaiterLock);

    // Taken with a connection's lock held; nothing else is locked under it.
    mutable Mutex mQueueLock;
    std::unordered_map<uid_t, QueueTotals> mUidQueues GUARDED_BY(mQueueLock);
    QueueStats mQueueStats GUARDED_BY(mQueueLock);
    std::atomic<int64_t> mReadBufferBytes{0};

    Mutex mFlushLock;
    bool mFlusherStarted GUARDED_BY(mFlushLock) = false;
    std::unordered_map<BinderConnection*, android::sp<BinderConnection>> mFlushSet
            GUARDED_BY(mFlushLock);
};

}  // namespace Halo::OS
