#define LOG_TAG "PreferencesService"

#include "binder/BinderRuntime.h"

#include <binder/IPCThreadState.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <log/log.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "binder/BinderConnection.h"

namespace Halo::OS {

using android::sp;
using android::status_t;
using android::base::unique_fd;

namespace {

constexpr uint64_t kWakeKey = 1;
constexpr uint64_t kStopKey = 2;
constexpr uint64_t kFirstKey = 16;
constexpr size_t kDefaultMaxThreads = 15;
constexpr uint32_t kConnectionEvents = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
constexpr uint32_t kListenerEvents = EPOLLIN | EPOLLONESHOT;
constexpr int kFlushPollMs = 250;

std::mutex gInstanceLock;
std::atomic<BinderRuntime*> gInstance{nullptr};

void atforkPrepare() {
    gInstanceLock.lock();
}

void atforkParent() {
    gInstanceLock.unlock();
}

void atforkChild() {
    gInstanceLock.unlock();
    BinderRuntime::resetAfterFork();
}

void signalEventFd(int fd) {
    const uint64_t one = 1;
    ssize_t rc;
    do {
        rc = write(fd, &one, sizeof(one));
    } while (rc < 0 && errno == EINTR);
}

void drainEventFd(int fd) {
    uint64_t value;
    ssize_t rc;
    do {
        rc = read(fd, &value, sizeof(value));
    } while (rc < 0 && errno == EINTR);
}

// Creates `dir` and missing parents with mode 0755.
bool makeDirectories(const std::string& dir) {
    std::string path;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        path = dir.substr(0, pos);
        if (path.empty()) continue;
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    struct stat st {};
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

BinderRuntime& BinderRuntime::instance() {
    BinderRuntime* runtime = gInstance.load(std::memory_order_acquire);
    if (runtime != nullptr) return *runtime;
    std::lock_guard<std::mutex> lock(gInstanceLock);
    runtime = gInstance.load(std::memory_order_relaxed);
    if (runtime == nullptr) {
        static bool atforkRegistered = false;
        if (!atforkRegistered) {
            pthread_atfork(atforkPrepare, atforkParent, atforkChild);
            atforkRegistered = true;
        }
        // Lives until the process exits: pool threads may still be using it then.
        runtime = new BinderRuntime();
        gInstance.store(runtime, std::memory_order_release);
    }
    return *runtime;
}

void BinderRuntime::resetAfterFork() {
    gInstance.store(nullptr, std::memory_order_release);
    android::IPCThreadState::resetAfterFork();
}

BinderRuntime::BinderRuntime()
    : mEpollFd(epoll_create1(EPOLL_CLOEXEC)),
      mWakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mStopFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mFlushWakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mNextKey(kFirstKey),
      mOwnUid(geteuid()),
      mThreadsPerUid(threadsPerUid(kDefaultMaxThreads)),
      mMaxThreads(kDefaultMaxThreads) {
    LOG_ALWAYS_FATAL_IF(
            mEpollFd.get() < 0 || mWakeFd.get() < 0 || mStopFd.get() < 0 || mFlushWakeFd.get() < 0,
            "Binder: cannot create the event descriptors: %s", strerror(errno));
    epoll_event wake{};
    wake.events = EPOLLIN | EPOLLONESHOT;
    wake.data.u64 = kWakeKey;
    epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, mWakeFd.get(), &wake);
    epoll_event stop{};
    stop.events = EPOLLIN;
    stop.data.u64 = kStopKey;
    epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, mStopFd.get(), &stop);
}

void BinderRuntime::registerConnection(const sp<BinderConnection>& connection) {
    Mutex::Autolock lock(mLock);
    const uint64_t key = mNextKey++;
    connection->setKey(key);
    mConnections.emplace(key, connection);
    epoll_event event{};
    event.events = kConnectionEvents;
    event.data.u64 = key;
    if (epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, connection->fd(), &event) != 0) {
        ALOGE("Binder: cannot watch a connection: %s", strerror(errno));
    }
}

size_t BinderRuntime::connectionsOfUid(uid_t uid) const {
    Mutex::Autolock lock(mLock);
    size_t count = 0;
    for (const auto& [key, connection] : mConnections) {
        if (connection->peerUid() == uid && !connection->isDead()) ++count;
    }
    return count;
}

BinderRuntime::QueueTotals BinderRuntime::chargeUid(uid_t uid, QueueTotals delta, bool add,
                                                    QueueTotals connection) {
    Mutex::Autolock lock(mQueueLock);
    QueueTotals& totals = mUidQueues[uid];
    QueueTotals& now = mQueueStats.now;
    if (add) {
        totals.calls += delta.calls;
        totals.bytes += delta.bytes;
        now.calls += delta.calls;
        now.bytes += delta.bytes;
        QueueTotals& perUid = mQueueStats.peakPerUid;
        perUid.calls = std::max(perUid.calls, totals.calls);
        perUid.bytes = std::max(perUid.bytes, totals.bytes);
        QueueTotals& perConnection = mQueueStats.peakPerConnection;
        perConnection.calls = std::max(perConnection.calls, connection.calls);
        perConnection.bytes = std::max(perConnection.bytes, connection.bytes);
    } else {
        totals.calls -= std::min(totals.calls, delta.calls);
        totals.bytes -= std::min(totals.bytes, delta.bytes);
        now.calls -= std::min(now.calls, delta.calls);
        now.bytes -= std::min(now.bytes, delta.bytes);
    }
    const QueueTotals result = totals;
    if (totals.calls == 0 && totals.bytes == 0) mUidQueues.erase(uid);
    return result;
}

BinderRuntime::QueueStats BinderRuntime::queueStats() const {
    Mutex::Autolock lock(mQueueLock);
    return mQueueStats;
}

std::vector<sp<BinderConnection>> BinderRuntime::connectionsOf(
        pid_t pid, uid_t uid, const BinderConnection* except) const {
    std::vector<sp<BinderConnection>> found;
    if (pid <= 0) return found;
    Mutex::Autolock lock(mLock);
    for (const auto& [key, connection] : mConnections) {
        if (connection.get() != except && connection->peerPid() == pid &&
            connection->peerUid() == uid) {
            found.push_back(connection);
        }
    }
    return found;
}

std::vector<std::pair<uint64_t, int>> BinderRuntime::listeners() const {
    std::vector<std::pair<uint64_t, int>> found;
    Mutex::Autolock lock(mLock);
    for (const auto& [key, listener] : mListeners) found.emplace_back(key, listener->fd.get());
    return found;
}

void BinderRuntime::acceptOn(uint64_t key) {
    std::shared_ptr<Listener> listener;
    {
        Mutex::Autolock lock(mLock);
        auto it = mListeners.find(key);
        if (it == mListeners.end()) return;
        listener = it->second;
    }
    acceptConnections(listener, key);
}

void BinderRuntime::relayDeath(const android::IBinder* proxy) {
    std::vector<sp<BinderConnection>> connections;
    {
        Mutex::Autolock lock(mLock);
        connections.reserve(mConnections.size());
        for (const auto& [key, connection] : mConnections) connections.push_back(connection);
    }
    for (const sp<BinderConnection>& connection : connections) connection->relayDeath(proxy);
}

void BinderRuntime::registerWaiter(uint64_t txid, BinderConnection* connection) {
    Mutex::Autolock lock(mWaiterLock);
    mWaiters.emplace(txid, connection);
}

void BinderRuntime::unregisterWaiter(uint64_t txid) {
    Mutex::Autolock lock(mWaiterLock);
    mWaiters.erase(txid);
}

bool BinderRuntime::deliverNested(BinderTask* task, pid_t pid, uid_t uid) {
    // Held while delivering: the waiting connection cannot go before its waiter unregisters.
    Mutex::Autolock lock(mWaiterLock);
    auto it = mWaiters.find(task->context);
    return it != mWaiters.end() && it->second->deliverNested(task->context, pid, uid, task);
}

void BinderRuntime::unregisterConnection(BinderConnection* connection) {
    sp<BinderConnection> removed;
    {
        Mutex::Autolock lock(mLock);
        auto it = mConnections.find(connection->key());
        if (it == mConnections.end() || it->second.get() != connection) return;
        epoll_ctl(mEpollFd.get(), EPOLL_CTL_DEL, connection->fd(), nullptr);
        removed = std::move(it->second);
        mConnections.erase(it);
    }
}

void BinderRuntime::rearm(BinderConnection* connection) {
    epoll_event event{};
    event.events = kConnectionEvents;
    event.data.u64 = connection->key();
    epoll_ctl(mEpollFd.get(), EPOLL_CTL_MOD, connection->fd(), &event);
}

void BinderRuntime::disarm(BinderConnection* connection) {
    epoll_event event{};
    event.events = 0;
    event.data.u64 = connection->key();
    epoll_ctl(mEpollFd.get(), EPOLL_CTL_MOD, connection->fd(), &event);
}

status_t BinderRuntime::publish(const std::string& directory, const std::string& name,
                                const sp<android::IBinder>& service) {
    const std::string path = directory + "/" + name;
    const std::string temporary = directory + "/.publish-" + std::to_string(getpid()) + "-" +
                                  std::to_string(mThreadCounter.fetch_add(1));
    sockaddr_un addr{};
    if (path.size() >= sizeof(addr.sun_path) || temporary.size() >= sizeof(addr.sun_path)) {
        ALOGE("Binder: service path too long: %s", path.c_str());
        return android::BAD_VALUE;
    }
    if (!makeDirectories(directory)) {
        ALOGE("Binder: cannot create %s: %s", directory.c_str(), strerror(errno));
        return android::UNKNOWN_ERROR;
    }
    struct stat st {};
    if (stat(directory.c_str(), &st) == 0 && st.st_uid == geteuid() &&
        (st.st_mode & 0011) != 0011) {
        chmod(directory.c_str(), (st.st_mode & 07777) | 0011);
    }

    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() < 0) {
        ALOGE("Binder: cannot create a socket: %s", strerror(errno));
        return android::UNKNOWN_ERROR;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, temporary.c_str(), temporary.size());
    unlink(temporary.c_str());
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        chmod(temporary.c_str(), 0666) != 0 || listen(fd.get(), SOMAXCONN) != 0 ||
        rename(temporary.c_str(), path.c_str()) != 0) {
        ALOGE("Binder: cannot publish %s: %s", path.c_str(), strerror(errno));
        unlink(temporary.c_str());
        return android::UNKNOWN_ERROR;
    }

    auto listener = std::make_shared<Listener>();
    listener->fd = std::move(fd);
    listener->service = service;
    listener->path = path;
    std::shared_ptr<Listener> replaced;
    {
        Mutex::Autolock lock(mLock);
        auto old = mListenerKeys.find(path);
        if (old != mListenerKeys.end()) {
            auto it = mListeners.find(old->second);
            if (it != mListeners.end()) {
                epoll_ctl(mEpollFd.get(), EPOLL_CTL_DEL, it->second->fd.get(), nullptr);
                replaced = std::move(it->second);
                mListeners.erase(it);
            }
        }
        const uint64_t key = mNextKey++;
        mListenerKeys[path] = key;
        epoll_event event{};
        event.events = kListenerEvents;
        event.data.u64 = key;
        epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, listener->fd.get(), &event);
        mListeners.emplace(key, std::move(listener));
    }
    return android::OK;
}

void BinderRuntime::acceptConnections(const std::shared_ptr<Listener>& listener, uint64_t key) {
    for (;;) {
        unique_fd fd(accept4(listener->fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (fd.get() < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EMFILE || errno == ENFILE) {
                ALOGE("Binder: cannot accept a connection on %s: %s", listener->path.c_str(),
                      strerror(errno));
                usleep(10000);
            }
            break;
        }
        ucred cred{};
        socklen_t length = sizeof(cred);
        if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0 && cred.uid != 0 &&
            connectionsOfUid(cred.uid) >= kMaxConnectionsPerUid) {
            // One uid cannot take every descriptor of the process: the connection closes at
            // once, before anything is read from it.
            ALOGW("Binder: uid %u has %zu connections on %s; refusing another",
                  static_cast<unsigned>(cred.uid), kMaxConnectionsPerUid, listener->path.c_str());
            continue;
        }
        registerConnection(new BinderConnection(std::move(fd), listener->service));
    }
    Mutex::Autolock lock(mLock);
    if (mListeners.count(key) == 0) return;
    epoll_event event{};
    event.events = kListenerEvents;
    event.data.u64 = key;
    epoll_ctl(mEpollFd.get(), EPOLL_CTL_MOD, listener->fd.get(), &event);
}

void BinderRuntime::startPool() {
    {
        Mutex::Autolock lock(mPoolLock);
        if (mMainStarted) return;
        mMainStarted = true;
        mPoolStarted.store(true, std::memory_order_release);
    }
    spawnPooledThread(true);
}

void BinderRuntime::ensurePool() {
    if (poolStarted()) return;
    {
        Mutex::Autolock lock(mPoolLock);
        if (mPoolStarted.load(std::memory_order_relaxed) || mOnDemand >= mMaxThreads) return;
        ++mOnDemand;
        mPoolStarted.store(true, std::memory_order_release);
    }
    spawnPooledThread(false);
}

status_t BinderRuntime::setMaxThreads(size_t maxThreads) {
    Mutex::Autolock lock(mPoolLock);
    mMaxThreads = maxThreads;
    mThreadsPerUid.store(threadsPerUid(maxThreads), std::memory_order_relaxed);
    return android::OK;
}

size_t BinderRuntime::maxThreads() const {
    Mutex::Autolock lock(mPoolLock);
    return mMaxThreads;
}

std::string BinderRuntime::makeThreadName() {
    char name[32];
    snprintf(name, sizeof(name), "binder:%d_%X", getpid(), mThreadCounter.fetch_add(1) + 1);
    return name;
}

void BinderRuntime::spawnPooledThread(bool isMain) {
    const std::string name = makeThreadName();
    std::thread([this, name, isMain] {
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        joinPool(isMain);
    }).detach();
}

void BinderRuntime::maybeSpawn() {
    if (mIdle.load() > 0 || mStopping.load() || !poolStarted()) return;
    {
        Mutex::Autolock lock(mPoolLock);
        if (mOnDemand >= mMaxThreads) return;
        ++mOnDemand;
    }
    spawnPooledThread(false);
}

void BinderRuntime::joinPool(bool /*isMain*/) {
    // A thread that joins makes a pool even when nobody started one: connections are re-armed
    // for it from now on.
    mPoolStarted.store(true, std::memory_order_release);
    std::vector<BinderTask> runnable;
    while (!mStopping.load()) {
        BinderTask task;
        if (popTask(&task)) {
            runTask(std::move(task));
            continue;
        }
        epoll_event event{};
        mIdle.fetch_add(1);
        const int count = epoll_wait(mEpollFd.get(), &event, 1, -1);
        mIdle.fetch_sub(1);
        if (count <= 0) continue;
        const uint64_t key = event.data.u64;
        if (key == kStopKey) break;
        if (key == kWakeKey) {
            if (takeWokenTask(&task)) runTask(std::move(task));
            continue;
        }
        runnable.clear();
        handleEvent(key, &runnable);
        if (runnable.empty()) continue;
        if (queueAndTake(&runnable, &task)) runTask(std::move(task));
    }
}

void BinderRuntime::stop() {
    mStopping.store(true);
    signalEventFd(mStopFd.get());
}

void BinderRuntime::handleEvent(uint64_t key, std::vector<BinderTask>* runnable) {
    sp<BinderConnection> connection;
    std::shared_ptr<Listener> listener;
    {
        Mutex::Autolock lock(mLock);
        auto it = mConnections.find(key);
        if (it != mConnections.end()) {
            connection = it->second;
        } else {
            auto l = mListeners.find(key);
            if (l != mListeners.end()) listener = l->second;
        }
    }
    if (connection != nullptr) {
        connection->onPollEvent(runnable);
    } else if (listener != nullptr) {
        acceptConnections(listener, key);
    }
}

uid_t BinderRuntime::taskUid(const BinderTask& task) {
    // Death notices are this process's own work.
    return task.connection != nullptr ? task.connection->peerUid() : static_cast<uid_t>(-1);
}

void BinderRuntime::runTask(BinderTask task) {
    maybeSpawn();
    const uid_t uid = taskUid(task);
    if (task.kind == BinderTask::Kind::Obituary) {
        task.proxy->sendObituary();
    } else {
        sp<BinderConnection> connection = task.connection;
        connection->execute(std::move(task));
    }
    Mutex::Autolock lock(mTodoLock);
    auto it = mTodo.find(uid);
    if (it == mTodo.end()) return;
    if (it->second.running > 0) --it->second.running;
    if (it->second.tasks.empty()) {
        if (it->second.running == 0) mTodo.erase(it);
    } else {
        // The uid's queued calls may have waited for this thread's share.
        wakeLocked();
    }
}

bool BinderRuntime::mayRunLocked(uid_t uid) {
    if (uid == mOwnUid || uid == static_cast<uid_t>(-1) || uid % kUidsPerUser < kFirstAppId) {
        return true;
    }
    return mTodo[uid].running < mThreadsPerUid.load(std::memory_order_relaxed);
}

bool BinderRuntime::hasRunnableLocked() {
    for (uid_t uid : mTodoTurns) {
        if (mayRunLocked(uid)) return true;
    }
    return false;
}

void BinderRuntime::pushTaskLocked(BinderTask task) {
    const uid_t uid = taskUid(task);
    UidTodo& todo = mTodo[uid];
    if (todo.tasks.empty()) mTodoTurns.push_back(uid);
    todo.tasks.push_back(std::move(task));
    mQueuedTasks.fetch_add(1, std::memory_order_relaxed);
}

bool BinderRuntime::popTaskLocked(BinderTask* task) {
    for (auto turn = mTodoTurns.begin(); turn != mTodoTurns.end(); ++turn) {
        const uid_t uid = *turn;
        if (!mayRunLocked(uid)) continue;
        UidTodo& todo = mTodo[uid];
        *task = std::move(todo.tasks.front());
        todo.tasks.pop_front();
        ++todo.running;
        mQueuedTasks.fetch_sub(1, std::memory_order_relaxed);
        mTodoTurns.erase(turn);
        if (!todo.tasks.empty()) mTodoTurns.push_back(uid);
        return true;
    }
    return false;
}

void BinderRuntime::wakeLocked() {
    if (!mWakePending) {
        mWakePending = true;
        signalEventFd(mWakeFd.get());
    }
}

void BinderRuntime::queueTask(BinderTask task) {
    Mutex::Autolock lock(mTodoLock);
    pushTaskLocked(std::move(task));
    if (hasRunnableLocked()) wakeLocked();
}

bool BinderRuntime::queueAndTake(std::vector<BinderTask>* tasks, BinderTask* task) {
    Mutex::Autolock lock(mTodoLock);
    for (BinderTask& queued : *tasks) pushTaskLocked(std::move(queued));
    tasks->clear();
    const bool found = popTaskLocked(task);
    if (hasRunnableLocked()) wakeLocked();
    return found;
}

bool BinderRuntime::othersWaiting(uid_t uid) {
    if (mQueuedTasks.load(std::memory_order_relaxed) == 0) return false;
    Mutex::Autolock lock(mTodoLock);
    for (uid_t other : mTodoTurns) {
        if (other != uid && mayRunLocked(other)) return true;
    }
    return false;
}

bool BinderRuntime::popTask(BinderTask* task) {
    if (mQueuedTasks.load(std::memory_order_relaxed) == 0) return false;
    Mutex::Autolock lock(mTodoLock);
    return popTaskLocked(task);
}

bool BinderRuntime::takeWokenTask(BinderTask* task) {
    bool found = false;
    {
        Mutex::Autolock lock(mTodoLock);
        drainEventFd(mWakeFd.get());
        mWakePending = false;
        found = popTaskLocked(task);
        if (hasRunnableLocked()) wakeLocked();
    }
    epoll_event wake{};
    wake.events = EPOLLIN | EPOLLONESHOT;
    wake.data.u64 = kWakeKey;
    epoll_ctl(mEpollFd.get(), EPOLL_CTL_MOD, mWakeFd.get(), &wake);
    return found;
}

void BinderRuntime::requestFlush(BinderConnection* connection) {
    bool start = false;
    {
        Mutex::Autolock lock(mFlushLock);
        mFlushSet.emplace(connection, connection);
        if (!mFlusherStarted) {
            mFlusherStarted = true;
            start = true;
        }
    }
    if (start) {
        std::thread([this] {
            pthread_setname_np(pthread_self(), "binder:flush");
            flusherLoop();
        }).detach();
    }
    signalEventFd(mFlushWakeFd.get());
}

void BinderRuntime::flusherLoop() {
    std::vector<sp<BinderConnection>> connections;
    std::vector<pollfd> fds;
    for (;;) {
        {
            Mutex::Autolock lock(mFlushLock);
            for (auto& [raw, connection] : mFlushSet) connections.push_back(connection);
            mFlushSet.clear();
        }
        fds.clear();
        fds.push_back(pollfd{mFlushWakeFd.get(), POLLIN, 0});
        for (const auto& connection : connections) {
            fds.push_back(pollfd{connection->fd(), POLLOUT, 0});
        }
        poll(fds.data(), fds.size(), connections.empty() ? -1 : kFlushPollMs);
        if ((fds[0].revents & POLLIN) != 0) drainEventFd(mFlushWakeFd.get());
        std::vector<sp<BinderConnection>> remaining;
        for (auto& connection : connections) {
            if (!connection->flushPending()) remaining.push_back(std::move(connection));
        }
        connections.clear();
        {
            Mutex::Autolock lock(mFlushLock);
            for (auto& connection : remaining) {
                BinderConnection* raw = connection.get();
                mFlushSet.emplace(raw, std::move(connection));
            }
        }
        remaining.clear();
    }
}

}  // namespace Halo::OS
