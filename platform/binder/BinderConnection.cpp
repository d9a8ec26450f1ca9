#define LOG_TAG "PreferencesService"

#include "binder/BinderConnection.h"

#include <binder/IPCThreadState.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <log/log.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "binder/BinderRuntime.h"
#include "binder/WireFormat.h"

namespace Halo::OS {

using android::BpBinder;
using android::IBinder;
using android::IPCThreadState;
using android::Parcel;
using android::sp;
using android::status_t;
using android::base::unique_fd;

namespace {

// A read buffer larger than this is shrunk back to kReadChunk once no large frame is pending.
constexpr size_t kMaxIdleReadBuffer = 4 * BinderConnection::kReadChunk;
// Output queued for a peer that does not read; more than this breaks the connection.
constexpr size_t kMaxPendingBytes = 4 * 1024 * 1024;
// A peer that takes none of the queued output for this long is disconnected.
constexpr auto kStallTimeout = std::chrono::seconds(10);

template <typename T>
T load(const uint8_t* p) {
    T value;
    memcpy(&value, p, sizeof(value));
    return value;
}

bool isOneway(uint32_t flags) {
    return (flags & IBinder::FLAG_ONEWAY) != 0;
}

// Checks a frame's structure: sizes that add up, object records inside the data, in ascending
// order, of known types, and descriptor records numbered in order. Sets the frame's descriptor
// count.
bool validateFrame(uint32_t type, const uint8_t* body, uint32_t size, uint32_t* fdCount) {
    *fdCount = 0;
    if (type == wire::kFrameRelease) {
        if (size != sizeof(wire::ReleaseBody)) return false;
        return load<wire::ReleaseBody>(body).count > 0;
    }
    if (type == wire::kFrameDeath) {
        if (size != sizeof(wire::ReleaseBody)) return false;
        return load<wire::ReleaseBody>(body).count == 0;
    }
    size_t fixed;
    uint32_t dataSize;
    uint32_t objectCount;
    uint32_t fds;
    if (type == wire::kFrameTransaction) {
        if (size < sizeof(wire::TransactionBody)) return false;
        const auto t = load<wire::TransactionBody>(body);
        if (isOneway(t.flags) ? (t.txid != 0 || t.context != 0) : t.txid == 0) return false;
        fixed = sizeof(t);
        dataSize = t.dataSize;
        objectCount = t.objectCount;
        fds = t.fdCount;
    } else if (type == wire::kFrameReply) {
        if (size < sizeof(wire::ReplyBody)) return false;
        const auto r = load<wire::ReplyBody>(body);
        if (r.status > 0) return false;
        if (r.status != 0 && (r.dataSize != 0 || r.objectCount != 0 || r.fdCount != 0)) {
            return false;
        }
        fixed = sizeof(r);
        dataSize = r.dataSize;
        objectCount = r.objectCount;
        fds = r.fdCount;
    } else {
        return false;
    }
    if (static_cast<uint64_t>(fixed) + dataSize + static_cast<uint64_t>(objectCount) * 4 != size) {
        return false;
    }
    if (fds > wire::kMaxFdsPerFrame) return false;
    const uint8_t* data = body + fixed;
    const uint8_t* offsets = data + dataSize;
    uint64_t minOffset = 0;
    uint32_t fdSeen = 0;
    for (uint32_t i = 0; i < objectCount; ++i) {
        const uint32_t offset = load<uint32_t>(offsets + i * 4);
        if (offset % 4 != 0 || offset < minOffset ||
            static_cast<uint64_t>(offset) + sizeof(wire::ObjectRecord) > dataSize) {
            return false;
        }
        const auto record = load<wire::ObjectRecord>(data + offset);
        switch (record.type) {
            case wire::kWireSenderObject:
            case wire::kWireReceiverObject:
                break;
            case wire::kWireFd:
                if (record.value != fdSeen) return false;
                ++fdSeen;
                break;
            default:
                return false;
        }
        minOffset = static_cast<uint64_t>(offset) + sizeof(wire::ObjectRecord);
    }
    if (fdSeen != fds) return false;
    *fdCount = fds;
    return true;
}

// Sends without blocking, with `fdCount` descriptors attached as SCM_RIGHTS; retries on EINTR.
// Returns what sendmsg returns.
ssize_t sendWithRights(int socket, const iovec* iov, int iovcnt, const int* fds, size_t fdCount) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * wire::kMaxFdsPerFrame)];
    msghdr msg{};
    msg.msg_iov = const_cast<iovec*>(iov);
    msg.msg_iovlen = static_cast<size_t>(iovcnt);
    if (fdCount > 0) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
        memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * fdCount);
    }
    ssize_t n;
    do {
        n = sendmsg(socket, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
}

// A memfd holding `data` and then `offsets`, sealed against any change; -1 (logged) when it
// cannot be made.
unique_fd sealedPayload(const uint8_t* data, size_t dataSize, const void* offsets,
                        size_t offsetsSize) {
    unique_fd fd(memfd_create("binder-parcel", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const iovec parts[2] = {{const_cast<uint8_t*>(data), dataSize},
                            {const_cast<void*>(offsets), offsetsSize}};
    bool written = fd.get() >= 0;
    for (const iovec& part : parts) {
        size_t done = 0;
        while (written && done < part.iov_len) {
            const ssize_t n = write(fd.get(), static_cast<const uint8_t*>(part.iov_base) + done,
                                    part.iov_len - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) written = false;
            if (n > 0) done += static_cast<size_t>(n);
        }
    }
    if (!written || fcntl(fd.get(), F_ADD_SEALS,
                          F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0) {
        ALOGE("Binder: cannot make a memfd for a large parcel: %s", strerror(errno));
        return unique_fd();
    }
    return fd;
}

// The calling thread's eventfd on which it is woken while it waits for a reply (a child of
// fork() makes its own).
int threadWakeFd() {
    thread_local pid_t owner = -1;
    thread_local unique_fd fd;
    if (owner != getpid()) {
        fd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        LOG_ALWAYS_FATAL_IF(fd.get() < 0, "Binder: cannot create an eventfd: %s", strerror(errno));
        owner = getpid();
    }
    return fd.get();
}

// The descriptor numbers of `fds`, which hold at most one frame's worth, into `out`.
void rawFds(const std::vector<unique_fd>& fds, int (&out)[wire::kMaxFdsPerFrame]) {
    for (size_t i = 0; i < fds.size(); ++i) out[i] = fds[i].get();
}

}  // namespace

BinderConnection::BinderConnection(unique_fd fd, const sp<IBinder>& root)
    : mFd(std::move(fd)), mIsClient(root == nullptr), mPeerPid(-1), mPeerUid(-1) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(mFd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
        mPeerPid = cred.pid;
        mPeerUid = cred.uid;
        mPeerSendsOutOfLine = BinderRuntime::acceptsOutOfLine(mPeerUid, geteuid());
    } else {
        ALOGE("Binder: cannot read the peer's credentials: %s", strerror(errno));
    }
    mReadBuffer.resize(kReadChunk);
    BinderRuntime::instance().chargeReadBuffer(0, mReadBuffer.capacity());
    mLastProgress = std::chrono::steady_clock::now();
    if (root != nullptr) {
        mExports.emplace(0, Export{root, 1});
        mExportIds.emplace(root.get(), 0);
    }
}

BinderConnection::~BinderConnection() {
    BinderRuntime::instance().chargeReadBuffer(mReadBuffer.capacity(), 0);
}

sp<IBinder> BinderConnection::connectTo(const std::string& path) {
    sockaddr_un addr{};
    if (path.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    // Non-blocking, so that a service whose backlog is full (it stopped accepting) counts as
    // unavailable instead of blocking the caller.
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() < 0) return nullptr;
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    int rc;
    do {
        rc = connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) return nullptr;
    const int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0 || fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return nullptr;
    sp<BinderConnection> connection = new BinderConnection(std::move(fd), nullptr);
    BinderRuntime::instance().registerConnection(connection);
    return connection->rootProxy();
}

sp<IBinder> BinderConnection::rootProxy() {
    Mutex::Autolock lock(mLock);
    return proxyForLocked(0);
}

bool BinderConnection::isDead() const {
    Mutex::Autolock lock(mLock);
    return mDead;
}

bool BinderConnection::probeDead() {
    if (isDead()) return true;
    pollfd pfd{mFd.get(), POLLRDHUP, 0};
    if (poll(&pfd, 1, 0) == 1 && (pfd.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
        markDead(nullptr);
        return true;
    }
    return false;
}

status_t BinderConnection::transact(uint64_t target, uint32_t code, const Parcel& data,
                                    Parcel* reply, uint32_t flags) {
    const bool oneway = isOneway(flags);
    Parcel localReply;
    Waiter waiter;
    wire::TransactionBody body{};
    // A caller that finds nobody reading the connection becomes its reader before it sends, and
    // takes the connection out of the pool's epoll set first: otherwise a reply that comes back
    // at once would wake a pool thread, which would read it and hand it over to this thread --
    // two thread switches on every call.
    bool reading = false;
    bool disarm = false;
    {
        Mutex::Autolock lock(mLock);
        if (mDead) return android::DEAD_OBJECT;
        if (!oneway) {
            waiter.txid = BinderRuntime::instance().nextTxid();
            waiter.wakeFd = threadWakeFd();
            mWaiters.emplace(waiter.txid, &waiter);
            if (!mReading) {
                mReading = true;
                reading = true;
                if (mArmed && BinderRuntime::instance().poolStarted()) {
                    mArmed = false;
                    disarm = true;
                }
            }
        }
    }
    if (disarm) BinderRuntime::instance().disarm(this);
    if (!oneway) BinderRuntime::instance().registerWaiter(waiter.txid, this);
    body.txid = waiter.txid;
    body.target = target;
    body.context = oneway ? 0 : IPCThreadState::self()->nestingContext(this);
    body.code = code;
    body.flags = oneway ? IBinder::FLAG_ONEWAY : 0;
    status_t err = sendParcel(wire::kFrameTransaction, &body, sizeof(body), &body.dataSize,
                              &body.objectCount, &body.fdCount, data);
    if (oneway) return err;
    if (err != android::OK) {
        if (reading) releaseReadingToken();
        bool idle;
        {
            Mutex::Autolock lock(mLock);
            mWaiters.erase(waiter.txid);
            idle = idleLocked();
        }
        BinderRuntime::instance().unregisterWaiter(waiter.txid);
        if (idle) markDead(nullptr);
        return err;
    }
    return waitForReply(&waiter, reply != nullptr ? reply : &localReply, reading);
}

status_t BinderConnection::waitForReply(Waiter* waiter, Parcel* reply, bool reading) {
    BinderRuntime& runtime = BinderRuntime::instance();
    for (;;) {
        enum class Action { Done, Nested, Read, Wait } action;
        BinderTask nested;
        bool disarm = false;
        if (reading) {
            // The token was taken (and the connection disarmed) before the call was sent.
            action = Action::Read;
            reading = false;
        } else {
            Mutex::Autolock lock(mLock);
            if (waiter->done) {
                mWaiters.erase(waiter->txid);
                action = Action::Done;
            } else if (!waiter->nested.empty()) {
                nested = std::move(waiter->nested.front());
                waiter->nested.pop_front();
                action = Action::Nested;
            } else if (!mReading) {
                mReading = true;
                if (mArmed && runtime.poolStarted()) {
                    mArmed = false;
                    disarm = true;
                }
                action = Action::Read;
            } else {
                action = Action::Wait;
            }
        }
        if (action == Action::Done) break;
        if (action == Action::Nested) {
            // The call may have come on another connection to the same process.
            sp<BinderConnection> connection = nested.connection;
            connection->execute(std::move(nested));
            continue;
        }
        if (disarm) runtime.disarm(this);
        std::vector<BinderTask> runnable;
        const bool readable = waitForWork(waiter->wakeFd, action == Action::Read, &runnable);
        if (action == Action::Read) {
            if (readable) readAndRoute(/*block=*/false, &runnable);
            releaseReadingToken();
        }
        for (BinderTask& task : runnable) runtime.queueTask(std::move(task));
    }
    runtime.unregisterWaiter(waiter->txid);
    // Calls nested in a call that has already been answered can only come from a peer that
    // broke the rules; they still get served, by the pool.
    for (BinderTask& task : waiter->nested) runtime.queueTask(std::move(task));
    waiter->nested.clear();
    bool idle;
    {
        Mutex::Autolock lock(mLock);
        idle = idleLocked();
    }
    if (idle) markDead(nullptr);
    if (waiter->replied) swapParcels(reply, &waiter->received);
    return waiter->status;
}

bool BinderConnection::waitForWork(int wakeFd, bool reading, std::vector<BinderTask>* runnable) {
    BinderRuntime& runtime = BinderRuntime::instance();
    // A call nested in ours may come on another connection with the same process. An idle pool
    // thread reads it and hands it over; with none idle, this thread reads those connections
    // itself (and looks again after a while, as a pool thread may get busy meanwhile).
    // The peer may also connect anew: this thread then accepts.
    std::vector<sp<BinderConnection>> others;
    std::vector<std::pair<uint64_t, int>> listeners;
    int timeoutMs = kNestedPollMs;
    if (runtime.idleThreads() == 0) {
        others = runtime.connectionsOf(mPeerPid, mPeerUid, this);
        listeners = runtime.listeners();
        timeoutMs = others.empty() && listeners.empty() ? -1 : kNestedPollMs;
    }
    std::vector<pollfd> fds;
    fds.push_back(pollfd{wakeFd, POLLIN, 0});
    if (reading) fds.push_back(pollfd{mFd.get(), POLLIN | POLLRDHUP, 0});
    const size_t firstOther = fds.size();
    for (const sp<BinderConnection>& other : others) {
        fds.push_back(pollfd{other->fd(), POLLIN | POLLRDHUP, 0});
    }
    const size_t firstListener = fds.size();
    for (const auto& [key, fd] : listeners) fds.push_back(pollfd{fd, POLLIN, 0});
    int count;
    do {
        count = poll(fds.data(), fds.size(), timeoutMs);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    if ((fds[0].revents & POLLIN) != 0) {
        uint64_t value;
        while (read(wakeFd, &value, sizeof(value)) < 0 && errno == EINTR) {
        }
    }
    for (size_t i = firstOther; i < firstListener; ++i) {
        if (fds[i].revents != 0) others[i - firstOther]->readForNested(runnable);
    }
    for (size_t i = firstListener; i < fds.size(); ++i) {
        if (fds[i].revents != 0) runtime.acceptOn(listeners[i - firstListener].first);
    }
    return reading && fds[1].revents != 0;
}

void BinderConnection::readForNested(std::vector<BinderTask>* runnable) {
    {
        Mutex::Autolock lock(mLock);
        if (mDead || mReading || mPaused) return;
        mReading = true;
    }
    readAndRoute(/*block=*/false, runnable);
    releaseReadingToken();
}

bool BinderConnection::deliverNested(uint64_t txid, pid_t pid, uid_t uid, BinderTask* task) {
    Mutex::Autolock lock(mLock);
    if (pid != mPeerPid || uid != mPeerUid) return false;
    auto it = mWaiters.find(txid);
    if (it == mWaiters.end() || it->second->done) return false;
    it->second->nested.push_back(std::move(*task));
    wakeWaiter(it->second);
    return true;
}

void BinderConnection::wakeWaiter(const Waiter* waiter) {
    const uint64_t one = 1;
    while (write(waiter->wakeFd, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
}

void BinderConnection::swapParcels(Parcel* a, Parcel* b) {
    std::swap(a->mData, b->mData);
    std::swap(a->mDataSize, b->mDataSize);
    std::swap(a->mDataCapacity, b->mDataCapacity);
    std::swap(a->mDataPos, b->mDataPos);
    std::swap(a->mError, b->mError);
    a->mObjects.swap(b->mObjects);
    a->mBinders.swap(b->mBinders);
    a->mFds.swap(b->mFds);
}

void BinderConnection::releaseReadingToken() {
    bool rearm = false;
    {
        Mutex::Autolock lock(mLock);
        mReading = false;
        if (!mDead && !mArmed && !mPaused && BinderRuntime::instance().poolStarted()) {
            mArmed = true;
            rearm = true;
        }
        for (auto& [txid, waiter] : mWaiters) wakeWaiter(waiter);
    }
    if (rearm) BinderRuntime::instance().rearm(this);
}

void BinderConnection::onPollEvent(std::vector<BinderTask>* runnable) {
    {
        Mutex::Autolock lock(mLock);
        mArmed = false;
        if (mDead || mReading || mPaused) return;
        mReading = true;
    }
    readAndRoute(/*block=*/false, runnable);
    releaseReadingToken();
}

BinderConnection::ReadResult BinderConnection::readSome(bool block) {
    if (mReadStart == mReadEnd) {
        mReadStart = mReadEnd = 0;
    } else if (mReadStart > 0) {
        memmove(mReadBuffer.data(), mReadBuffer.data() + mReadStart, mReadEnd - mReadStart);
        mReadEnd -= mReadStart;
        mReadStart = 0;
    }
    // Room for the rest of a large frame, and never less than a quarter chunk free.
    size_t needed = mReadEnd + kReadChunk / 4;
    if (mReadEnd >= sizeof(wire::FrameHeader)) {
        const auto header = load<wire::FrameHeader>(mReadBuffer.data());
        if (header.size <= wire::kMaxFrameBody) {
            needed = std::max(needed, sizeof(wire::FrameHeader) + header.size);
        }
    }
    const size_t capacity = mReadBuffer.capacity();
    if (mReadBuffer.size() < needed) {
        mReadBuffer.resize(needed + kReadChunk);
    } else if (mReadBuffer.size() > kMaxIdleReadBuffer && needed <= kReadChunk) {
        mReadBuffer.resize(kReadChunk);
        mReadBuffer.shrink_to_fit();
    }
    if (mReadBuffer.capacity() != capacity) {
        BinderRuntime::instance().chargeReadBuffer(capacity, mReadBuffer.capacity());
    }

    iovec iov{mReadBuffer.data() + mReadEnd, mReadBuffer.size() - mReadEnd};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * wire::kMaxFdsPerFrame)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(mFd.get(), &msg, MSG_CMSG_CLOEXEC | (block ? 0 : MSG_DONTWAIT));
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        return (errno == EAGAIN || errno == EWOULDBLOCK) ? ReadResult::WouldBlock
                                                         : ReadResult::Closed;
    }
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        const auto* fds = reinterpret_cast<const unsigned char*>(CMSG_DATA(cmsg));
        for (size_t i = 0; i < count; ++i) {
            mReceivedFds.emplace_back(load<int>(fds + i * sizeof(int)));
        }
    }
    if ((msg.msg_flags & MSG_CTRUNC) != 0 || mReceivedFds.size() > wire::kMaxPendingFds) {
        ALOGW("Binder: pid %d sent too many file descriptors", mPeerPid);
        return ReadResult::Closed;
    }
    if (n == 0) return ReadResult::Closed;
    mReadEnd += static_cast<size_t>(n);
    return ReadResult::Data;
}

bool BinderConnection::extractFrames(std::vector<FrameRef>* frames) {
    while (mReadEnd - mReadStart >= sizeof(wire::FrameHeader)) {
        const auto header = load<wire::FrameHeader>(mReadBuffer.data() + mReadStart);
        if (header.size > wire::kMaxFrameBody) {
            ALOGW("Binder: pid %d sent a frame of %u bytes", mPeerPid, header.size);
            return false;
        }
        uint32_t type = header.type;
        if (type == wire::kFrameTransactionOutOfLine) {
            type = wire::kFrameTransaction;
        } else if (type == wire::kFrameReplyOutOfLine) {
            type = wire::kFrameReply;
        } else if (type != wire::kFrameTransaction && type != wire::kFrameReply &&
                   type != wire::kFrameRelease && type != wire::kFrameDeath) {
            ALOGW("Binder: pid %d sent a frame of unknown type 0x%x", mPeerPid, header.type);
            return false;
        }
        if (mReadEnd - mReadStart - sizeof(header) < header.size) break;
        FrameRef frame{type, mReadBuffer.data() + mReadStart + sizeof(header), header.size, {}, {}};
        if (type != header.type) {
            if (!readOutOfLine(type, frame.body, frame.size, &frame)) return false;
            frame.body = frame.outOfLine.data();
            frame.size = static_cast<uint32_t>(frame.outOfLine.size());
        }
        uint32_t fdCount;
        if (!validateFrame(type, frame.body, frame.size, &fdCount) ||
            fdCount > mReceivedFds.size()) {
            ALOGW("Binder: pid %d sent a malformed frame", mPeerPid);
            return false;
        }
        frame.fds.reserve(fdCount);
        for (uint32_t i = 0; i < fdCount; ++i) {
            frame.fds.push_back(std::move(mReceivedFds.front()));
            mReceivedFds.pop_front();
        }
        frames->push_back(std::move(frame));
        mReadStart += sizeof(header) + header.size;
    }
    return true;
}

bool BinderConnection::readOutOfLine(uint32_t type, const uint8_t* fixed, uint32_t size,
                                     FrameRef* frame) {
    if (!mPeerSendsOutOfLine) {
        ALOGW("Binder: pid %d (uid %u) may not send parcels out of line", mPeerPid,
              static_cast<unsigned>(mPeerUid));
        return false;
    }
    uint64_t payload;
    if (type == wire::kFrameTransaction && size == sizeof(wire::TransactionBody)) {
        const auto t = load<wire::TransactionBody>(fixed);
        payload = t.dataSize + static_cast<uint64_t>(t.objectCount) * 4;
    } else if (type == wire::kFrameReply && size == sizeof(wire::ReplyBody)) {
        const auto r = load<wire::ReplyBody>(fixed);
        payload = r.dataSize + static_cast<uint64_t>(r.objectCount) * 4;
    } else {
        ALOGW("Binder: pid %d sent a malformed out-of-line frame", mPeerPid);
        return false;
    }
    if (payload > wire::kMaxOutOfLineBytes) {
        ALOGW("Binder: pid %d sent an out-of-line frame of %" PRIu64 " bytes", mPeerPid, payload);
        return false;
    }
    if (mReceivedFds.empty()) {
        ALOGW("Binder: pid %d sent an out-of-line frame without its memfd", mPeerPid);
        return false;
    }
    unique_fd memfd = std::move(mReceivedFds.front());
    mReceivedFds.pop_front();
    // Sealed against writes and size changes, so that what is read is what the sender sent and
    // nobody can change it behind the reader.
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    const int seals = fcntl(memfd.get(), F_GET_SEALS);
    struct stat st {};
    if (seals < 0 || (seals & kSeals) != kSeals || fstat(memfd.get(), &st) != 0 ||
        !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) != payload) {
        ALOGW("Binder: pid %d sent an out-of-line payload that is not a sealed memfd of %" PRIu64
              " bytes",
              mPeerPid, payload);
        return false;
    }
    frame->outOfLine.resize(size + payload);
    memcpy(frame->outOfLine.data(), fixed, size);
    size_t done = 0;
    while (done < payload) {
        const ssize_t n = pread(memfd.get(), frame->outOfLine.data() + size + done, payload - done,
                                static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ALOGW("Binder: cannot read the out-of-line payload of pid %d", mPeerPid);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool BinderConnection::readAndRoute(bool block, std::vector<BinderTask>* runnable) {
    const ReadResult result = readSome(block);
    if (result == ReadResult::WouldBlock) return true;
    if (result == ReadResult::Closed) {
        markDead(nullptr);
        return false;
    }
    std::vector<FrameRef> frames;
    if (!extractFrames(&frames)) {
        markDead("malformed frame");
        return false;
    }
    if (frames.empty()) return true;
    std::vector<BinderTask> discard;
    std::vector<sp<IBinder>> dropped;
    std::vector<BinderTask> nestedElsewhere;
    std::vector<sp<BpBinder>> relayedDeaths;
    const char* error;
    bool idle = false;
    {
        Mutex::Autolock lock(mLock);
        error = routeFrames(&frames, runnable, &nestedElsewhere, &relayedDeaths, &discard,
                            &dropped);
        if (error == nullptr) {
            if (!mPaused && overQueueBoundLocked()) mPaused = true;
            idle = idleLocked();
        }
    }
    for (BinderTask& task : nestedElsewhere) {
        if (!BinderRuntime::instance().deliverNested(&task, mPeerPid, mPeerUid)) {
            runnable->push_back(std::move(task));
        }
    }
    for (sp<BpBinder>& proxy : relayedDeaths) {
        proxy->queueObituary();
        BinderRuntime::instance().relayDeath(proxy.get());
    }
    relayedDeaths.clear();
    if (error != nullptr) {
        markDead(error);
        return false;
    }
    if (idle) markDead(nullptr);
    return true;
}

const char* BinderConnection::routeFrames(std::vector<FrameRef>* frames,
                                          std::vector<BinderTask>* runnable,
                                          std::vector<BinderTask>* nestedElsewhere,
                                          std::vector<sp<BpBinder>>* relayedDeaths,
                                          std::vector<BinderTask>* discard,
                                          std::vector<sp<IBinder>>* dropped) {
    static constexpr const char* kProtocolError = "protocol error";
    for (FrameRef& frame : *frames) {
        if (frame.type == wire::kFrameDeath) {
            // A proxy released meanwhile is simply gone.
            auto it = mProxies.find(load<wire::ReleaseBody>(frame.body).id);
            if (it != mProxies.end()) {
                sp<BpBinder> proxy = it->second.proxy.promote();
                if (proxy != nullptr) relayedDeaths->push_back(std::move(proxy));
            }
            continue;
        }
        if (frame.type == wire::kFrameRelease) {
            const auto release = load<wire::ReleaseBody>(frame.body);
            auto it = mExports.find(release.id);
            if (it == mExports.end() || it->second.count < release.count) return kProtocolError;
            it->second.count -= release.count;
            if (it->second.count == 0) {
                mExportIds.erase(it->second.binder.get());
                dropped->push_back(std::move(it->second.binder));
                mExports.erase(it);
            }
            continue;
        }

        if (frame.type == wire::kFrameReply) {
            const auto reply = load<wire::ReplyBody>(frame.body);
            auto it = mWaiters.find(reply.txid);
            if (it == mWaiters.end() || it->second->done) return kProtocolError;
            Waiter* waiter = it->second;
            if (reply.status != android::OK) {
                waiter->status = reply.status;
            } else {
                const uint8_t* data = frame.body + sizeof(reply);
                if (!unflattenLocked(data, reply.dataSize, data + reply.dataSize, reply.objectCount,
                                     &frame.fds, &waiter->received)) {
                    return kProtocolError;
                }
                waiter->status = android::OK;
            }
            waiter->replied = true;
            waiter->done = true;
            wakeWaiter(waiter);
            continue;
        }

        const auto t = load<wire::TransactionBody>(frame.body);
        auto target = mExports.find(t.target);
        if (target == mExports.end()) return kProtocolError;
        BinderTask task;
        task.targetId = t.target;
        task.frameBytes = frame.size;
        task.txid = t.txid;
        task.code = t.code;
        task.flags = t.flags;
        task.data = std::make_unique<Parcel>();
        const uint8_t* data = frame.body + sizeof(t);
        if (!unflattenLocked(data, t.dataSize, data + t.dataSize, t.objectCount, &frame.fds,
                             task.data.get())) {
            discard->push_back(std::move(task));
            return kProtocolError;
        }
        if (!chargeIncomingLocked(task.frameBytes)) {
            ALOGW("Binder: pid %d (uid %u) queued %" PRIu64 " calls (%zu bytes) without pause",
                  mPeerPid, static_cast<unsigned>(mPeerUid), mActiveIncoming, mIncomingBytes);
            discard->push_back(std::move(task));
            return "too many calls queued";
        }
        CallTarget& held = mCallTargets[t.target];
        if (held.calls++ == 0) held.binder = target->second.binder;
        if (isOneway(t.flags)) {
            auto [queue, inserted] = mAsync.try_emplace(t.target);
            if (!inserted) {
                queue->second.push_back(std::move(task));
                continue;
            }
        } else if (t.context != 0) {
            auto waiter = mWaiters.find(t.context);
            if (waiter != mWaiters.end() && !waiter->second->done) {
                task.connection = this;
                waiter->second->nested.push_back(std::move(task));
                wakeWaiter(waiter->second);
                continue;
            }
            // Nested in a call of ours on another connection with the same process.
            task.connection = this;
            task.context = t.context;
            nestedElsewhere->push_back(std::move(task));
            continue;
        }
        task.connection = this;
        runnable->push_back(std::move(task));
    }
    return nullptr;
}

bool BinderConnection::chargeIncomingLocked(uint32_t frameBytes) {
    if (mActiveIncoming >= kHardQueuedCalls ||
        (mIncomingBytes >= kHardQueuedBytes && !mPeerSendsOutOfLine)) {
        return false;
    }
    ++mActiveIncoming;
    mIncomingBytes += frameBytes;
    mUidQueued = BinderRuntime::instance().chargeUid(mPeerUid, {1, frameBytes}, true,
                                                     {mActiveIncoming, mIncomingBytes});
    return true;
}

bool BinderConnection::overQueueBoundLocked() const {
    if (mActiveIncoming >= kMaxQueuedCalls || mIncomingBytes >= kMaxQueuedBytes) return true;
    return mActiveIncoming > 0 && (mUidQueued.calls >= BinderRuntime::kMaxQueuedCallsPerUid ||
                                   mUidQueued.bytes >= BinderRuntime::kMaxQueuedBytesPerUid);
}

bool BinderConnection::belowResumeMarkLocked() const {
    if (mActiveIncoming == 0) return true;
    return mActiveIncoming <= kResumeQueuedCalls && mIncomingBytes <= kResumeQueuedBytes &&
           mUidQueued.calls <= BinderRuntime::kMaxQueuedCallsPerUid / 2 &&
           mUidQueued.bytes <= BinderRuntime::kMaxQueuedBytesPerUid / 2;
}

sp<IBinder> BinderConnection::callTarget(uint64_t targetId) {
    Mutex::Autolock lock(mLock);
    auto it = mCallTargets.find(targetId);
    return it != mCallTargets.end() ? it->second.binder : nullptr;
}

bool BinderConnection::unflattenLocked(const uint8_t* data, uint32_t dataSize,
                                       const uint8_t* offsets, uint32_t objectCount,
                                       std::vector<unique_fd>* fds, Parcel* out) {
    out->freeData();
    if (out->setData(data, dataSize) != android::OK) return false;
    for (uint32_t i = 0; i < objectCount; ++i) {
        const uint32_t offset = load<uint32_t>(offsets + i * 4);
        const auto record = load<wire::ObjectRecord>(out->mData + offset);
        wire::ObjectRecord local{0, wire::kObjectFlags, 0, 0};
        if (record.type == wire::kWireSenderObject) {
            local.type = wire::kRecordBinder;
            local.value = out->appendBinderRef(proxyForLocked(record.value)) + 1;
        } else if (record.type == wire::kWireReceiverObject) {
            auto it = mExports.find(record.value);
            if (it == mExports.end()) return false;
            local.type = wire::kRecordBinder;
            local.value = out->appendBinderRef(it->second.binder) + 1;
        } else {
            local.type = wire::kRecordFd;
            local.value = out->appendFd((*fds)[record.value].release(), true);
        }
        memcpy(out->mData + offset, &local, sizeof(local));
        out->mObjects.push_back(offset);
    }
    out->setDataPosition(0);
    return true;
}

sp<BpBinder> BinderConnection::proxyForLocked(uint64_t id) {
    auto it = mProxies.find(id);
    if (it != mProxies.end()) {
        sp<BpBinder> proxy = it->second.proxy.promote();
        if (proxy != nullptr) {
            ++it->second.count;
            return proxy;
        }
        // The old proxy is being destroyed; the new one takes over its count.
        proxy = new BpBinder(this, id);
        it->second = ProxyEntry{proxy, it->second.count + 1};
        return proxy;
    }
    sp<BpBinder> proxy = new BpBinder(this, id);
    mProxies.emplace(id, ProxyEntry{proxy, 1});
    return proxy;
}

uint64_t BinderConnection::exportLocked(const sp<IBinder>& binder) {
    auto known = mExportIds.find(binder.get());
    if (known != mExportIds.end()) {
        ++mExports[known->second].count;
        return known->second;
    }
    const uint64_t id = mNextExportId++;
    mExports.emplace(id, Export{binder, 1});
    mExportIds.emplace(binder.get(), id);
    return id;
}

bool BinderConnection::idleLocked() const {
    return mIsClient && !mDead && mProxies.empty() && mExports.empty() && mWaiters.empty() &&
           mActiveIncoming == 0 && mAsync.empty();
}

void BinderConnection::releaseProxy(uint64_t id, const BpBinder* proxy) {
    uint64_t count = 0;
    bool idle;
    {
        Mutex::Autolock lock(mLock);
        if (mDead) return;
        auto it = mProxies.find(id);
        if (it == mProxies.end() || it->second.proxy.unsafe_get() != proxy) return;
        count = it->second.count;
        mProxies.erase(it);
        idle = idleLocked();
    }
    if (idle) {
        markDead(nullptr);
    } else {
        sendRelease(id, count);
    }
}

void BinderConnection::sendRelease(uint64_t id, uint64_t count) {
    while (count > 0) {
        const uint32_t chunk = count > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(count);
        count -= chunk;
        wire::FrameHeader header{wire::kFrameRelease, sizeof(wire::ReleaseBody)};
        wire::ReleaseBody body{id, chunk, 0};
        iovec iov[2] = {{&header, sizeof(header)}, {&body, sizeof(body)}};
        if (writeFrame(iov, 2, nullptr, 0) != android::OK) return;
    }
}

status_t BinderConnection::sendParcel(uint32_t type, void* body, size_t bodySize,
                                      uint32_t* dataSize, uint32_t* objectCount, uint32_t* fdCount,
                                      const Parcel& data) {
    const size_t objects = data.mObjects.size();
    const uint64_t payloadSize = static_cast<uint64_t>(data.mDataSize) + objects * 4;
    const uint64_t total = bodySize + payloadSize;
    // A parcel too large for a frame travels in a sealed memfd, to receivers that accept that.
    const bool outOfLine = total > wire::kMaxFrameBody;
    if (outOfLine && (payloadSize > wire::kMaxOutOfLineBytes ||
                      !BinderRuntime::acceptsOutOfLine(geteuid(), mPeerUid))) {
        return android::FAILED_TRANSACTION;
    }
    const size_t maxFds = wire::kMaxFdsPerFrame - (outOfLine ? 1 : 0);
    *dataSize = static_cast<uint32_t>(data.mDataSize);
    *objectCount = static_cast<uint32_t>(objects);

    std::vector<uint8_t> patched;
    std::vector<uint32_t> offsets;
    std::vector<int> fds;
    const uint8_t* payload = data.mData;
    bool exported = false;
    // Proxies of other connections handed on: those whose object has died are reported once the
    // frame is out (a later death is reported by relayDeath). Checked outside mLock (a proxy's
    // liveness takes its own connection's lock); `data` holds them meanwhile.
    std::vector<std::pair<uint64_t, BpBinder*>> relayed;
    if (objects > 0) {
        patched.assign(data.mData, data.mData + data.mDataSize);
        offsets.reserve(objects);
        Mutex::Autolock lock(mLock);
        if (mDead) return android::DEAD_OBJECT;
        for (size_t offset : data.mObjects) {
            wire::ObjectRecord record;
            memcpy(&record, patched.data() + offset, sizeof(record));
            wire::ObjectRecord out{0, wire::kObjectFlags, 0, 0};
            if (record.type == wire::kRecordBinder && record.value >= 1 &&
                record.value <= data.mBinders.size()) {
                const sp<IBinder>& binder = data.mBinders[record.value - 1];
                BpBinder* proxy = binder->remoteBinder();
                if (proxy != nullptr && proxy->connection().get() == this) {
                    out.type = wire::kWireReceiverObject;
                    out.value = proxy->objectId();
                } else {
                    out.type = wire::kWireSenderObject;
                    out.value = exportLocked(binder);
                    exported = true;
                    if (proxy != nullptr) relayed.emplace_back(out.value, proxy);
                }
            } else if (record.type == wire::kRecordFd && record.value < data.mFds.size()) {
                if (fds.size() >= maxFds) return android::FAILED_TRANSACTION;
                out.type = wire::kWireFd;
                out.value = fds.size();
                fds.push_back(data.mFds[record.value].fd);
            } else {
                return android::BAD_VALUE;
            }
            memcpy(patched.data() + offset, &out, sizeof(out));
            offsets.push_back(static_cast<uint32_t>(offset));
        }
        payload = patched.data();
    }
    *fdCount = static_cast<uint32_t>(fds.size());
    if (exported) BinderRuntime::instance().ensurePool();

    if (outOfLine) {
        unique_fd memfd = sealedPayload(payload, data.mDataSize, offsets.data(), objects * 4);
        if (memfd.get() < 0) return android::FAILED_TRANSACTION;
        fds.insert(fds.begin(), memfd.get());
        wire::FrameHeader header{type == wire::kFrameTransaction ? wire::kFrameTransactionOutOfLine
                                                                 : wire::kFrameReplyOutOfLine,
                                 static_cast<uint32_t>(bodySize)};
        iovec iov[2] = {{&header, sizeof(header)}, {body, bodySize}};
        const status_t status = writeFrame(iov, 2, fds.data(), fds.size());
        if (status == android::OK) {
            for (const auto& [id, proxy] : relayed) {
                if (!proxy->isBinderAlive()) sendDeath(id);
            }
        }
        return status;
    }
    wire::FrameHeader header{type, static_cast<uint32_t>(total)};
    iovec iov[4];
    int iovcnt = 0;
    iov[iovcnt++] = {&header, sizeof(header)};
    iov[iovcnt++] = {body, bodySize};
    if (data.mDataSize > 0) iov[iovcnt++] = {const_cast<uint8_t*>(payload), data.mDataSize};
    if (objects > 0) iov[iovcnt++] = {offsets.data(), objects * 4};
    const status_t status = writeFrame(iov, iovcnt, fds.data(), fds.size());
    if (status == android::OK) {
        for (const auto& [id, proxy] : relayed) {
            if (!proxy->isBinderAlive()) sendDeath(id);
        }
    }
    return status;
}

status_t BinderConnection::sendReply(uint64_t txid, status_t status, const Parcel& reply) {
    wire::ReplyBody body{txid, 0, 0, 0, 0};
    if (status >= android::OK) {
        status_t err = sendParcel(wire::kFrameReply, &body, sizeof(body), &body.dataSize,
                                  &body.objectCount, &body.fdCount, reply);
        if (err == android::OK || err == android::DEAD_OBJECT) return err;
        status = err;
    }
    body = wire::ReplyBody{txid, status, 0, 0, 0};
    wire::FrameHeader header{wire::kFrameReply, sizeof(body)};
    iovec iov[2] = {{&header, sizeof(header)}, {&body, sizeof(body)}};
    return writeFrame(iov, 2, nullptr, 0);
}

status_t BinderConnection::writeFrame(const iovec* iov, int iovcnt, const int* fds,
                                      size_t fdCount) {
    PendingOutput copy;
    bool copied = false;
    for (;;) {
        {
            Mutex::Autolock lock(mHandoffLock);
            if (mHandoffClosed) return android::DEAD_OBJECT;
            if (!mWriterActive) {
                mWriterActive = true;
                break;
            }
            if (copied) {
                mHandoff.push_back(std::move(copy));
                return android::OK;
            }
        }
        // Another thread is writing, typically one preempted inside sendmsg by the peer it has
        // just woken. Waiting for it would put this thread to sleep on the lock and cost two
        // thread switches; the frame is left to that thread instead, which sends it in order
        // before it stops writing. The frame is copied outside the lock: the writer may be gone
        // by then, and this thread writes after all.
        if (!copyFrame(iov, iovcnt, 0, fds, fdCount, &copy)) return android::FAILED_TRANSACTION;
        copied = true;
    }
    const status_t status = sendFrame(iov, iovcnt, fds, fdCount);
    sendHandedOver();
    return status;
}

void BinderConnection::sendHandedOver() {
    std::deque<PendingOutput> frames;
    for (;;) {
        {
            Mutex::Autolock lock(mHandoffLock);
            if (mHandoff.empty()) {
                mWriterActive = false;
                return;
            }
            frames.swap(mHandoff);
        }
        for (PendingOutput& frame : frames) {
            int fds[wire::kMaxFdsPerFrame];
            rawFds(frame.fds, fds);
            const iovec iov{frame.bytes.data(), frame.bytes.size()};
            // A broken connection is marked dead inside; the rest are then refused there too.
            sendFrame(&iov, 1, fds, frame.fds.size());
        }
        frames.clear();
    }
}

bool BinderConnection::copyFrame(const iovec* iov, int iovcnt, size_t skip, const int* fds,
                                 size_t fdCount, PendingOutput* out) {
    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) total += iov[i].iov_len;
    out->bytes.clear();
    out->bytes.reserve(total - skip);
    out->offset = 0;
    for (int i = 0; i < iovcnt; ++i) {
        const auto* base = static_cast<const uint8_t*>(iov[i].iov_base);
        const size_t len = iov[i].iov_len;
        if (skip >= len) {
            skip -= len;
            continue;
        }
        out->bytes.insert(out->bytes.end(), base + skip, base + len);
        skip = 0;
    }
    out->fds.clear();
    for (size_t i = 0; i < fdCount; ++i) {
        unique_fd fd(fcntl(fds[i], F_DUPFD_CLOEXEC, 0));
        if (fd.get() < 0) return false;
        out->fds.push_back(std::move(fd));
    }
    return true;
}

status_t BinderConnection::sendFrame(const iovec* iov, int iovcnt, const int* fds, size_t fdCount) {
    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) total += iov[i].iov_len;
    bool broken = false;
    bool startFlush = false;
    {
        Mutex::Autolock lock(mWriteLock);
        if (mWriteClosed) return android::DEAD_OBJECT;
        size_t sent = 0;
        if (mPending.empty()) {
            const ssize_t n = sendWithRights(mFd.get(), iov, iovcnt, fds, fdCount);
            if (n < 0 && errno == EBADF && fdCount > 0) {
                // Nothing of the frame went out: only this transaction fails.
                ALOGW("Binder: a parcel for pid %d carries a descriptor that is not open; "
                      "dropped",
                      mPeerPid);
                return android::FAILED_TRANSACTION;
            }
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
                broken = true;
            } else {
                sent = n < 0 ? 0 : static_cast<size_t>(n);
                if (sent == total) return android::OK;
            }
        }
        if (!broken && mPendingBytes + (total - sent) > kMaxPendingBytes) {
            ALOGW("Binder: pid %d does not read; disconnecting", mPeerPid);
            broken = true;
        }
        if (!broken) {
            // Descriptors travel with the first byte of a frame: once part of it is out, they are.
            PendingOutput out;
            if (!copyFrame(iov, iovcnt, sent, fds, sent == 0 ? fdCount : 0, &out)) {
                return android::FAILED_TRANSACTION;
            }
            if (mPending.empty()) {
                mLastProgress = std::chrono::steady_clock::now();
                startFlush = true;
            }
            mPendingBytes += out.bytes.size();
            mPending.push_back(std::move(out));
        }
    }
    if (broken) {
        markDead(nullptr);
        return android::DEAD_OBJECT;
    }
    if (startFlush) BinderRuntime::instance().requestFlush(this);
    return android::OK;
}

bool BinderConnection::flushPending() {
    bool broken = false;
    bool empty;
    {
        Mutex::Autolock lock(mWriteLock);
        if (mWriteClosed) return true;
        while (!mPending.empty()) {
            PendingOutput& out = mPending.front();
            const iovec iov{out.bytes.data() + out.offset, out.bytes.size() - out.offset};
            int fds[wire::kMaxFdsPerFrame];
            rawFds(out.fds, fds);
            const ssize_t n = sendWithRights(mFd.get(), &iov, 1, fds, out.fds.size());
            if (n < 0) {
                if (errno != EAGAIN && errno != EWOULDBLOCK) broken = true;
                break;
            }
            mLastProgress = std::chrono::steady_clock::now();
            out.fds.clear();
            out.offset += static_cast<size_t>(n);
            if (out.offset < out.bytes.size()) continue;
            mPendingBytes -= out.bytes.size();
            mPending.pop_front();
        }
        if (!broken && !mPending.empty() &&
            std::chrono::steady_clock::now() - mLastProgress > kStallTimeout) {
            ALOGW("Binder: pid %d stopped reading; disconnecting", mPeerPid);
            broken = true;
        }
        empty = mPending.empty();
    }
    if (broken) {
        markDead(nullptr);
        return true;
    }
    return empty;
}

void BinderConnection::execute(BinderTask task) {
    IPCThreadState* threadState = IPCThreadState::self();
    while (task.connection != nullptr) {
        const bool oneway = isOneway(task.flags);
        Parcel reply;
        // Held from mCallTargets: the target cannot go while one of its calls is in progress.
        sp<IBinder> target = callTarget(task.targetId);
        // One-way calls report no calling pid, as the kernel driver gives none for them.
        const IPCThreadState::SavedState saved = threadState->beginIncoming(
                this, task.txid, oneway ? 0 : mPeerPid, mPeerUid, task.flags);
        const status_t status =
                target != nullptr ? target->transact(task.code, *task.data, &reply, task.flags)
                                  : android::DEAD_OBJECT;
        threadState->endIncoming(saved);
        task.data.reset();
        if (!oneway) sendReply(task.txid, status, reply);
        BinderTask next;
        finishIncoming(task, &next);
        // A chain of one-way calls gives way to other apps' calls waiting for a thread: its
        // next call waits its uid's turn.
        if (next.connection != nullptr && BinderRuntime::instance().othersWaiting(mPeerUid)) {
            BinderRuntime::instance().queueTask(std::move(next));
            break;
        }
        task = std::move(next);
    }
}

void BinderConnection::finishIncoming(const BinderTask& task, BinderTask* next) {
    BinderRuntime& runtime = BinderRuntime::instance();
    sp<IBinder> dropped;
    bool idle;
    bool rearm = false;
    {
        Mutex::Autolock lock(mLock);
        if (mActiveIncoming > 0) --mActiveIncoming;
        mIncomingBytes -= std::min<size_t>(mIncomingBytes, task.frameBytes);
        mUidQueued = runtime.chargeUid(mPeerUid, {1, task.frameBytes}, false, {});
        auto held = mCallTargets.find(task.targetId);
        if (held != mCallTargets.end() && --held->second.calls == 0) {
            dropped = std::move(held->second.binder);
            mCallTargets.erase(held);
        }
        if (isOneway(task.flags)) {
            auto it = mAsync.find(task.targetId);
            if (it != mAsync.end()) {
                if (it->second.empty()) {
                    mAsync.erase(it);
                } else {
                    *next = std::move(it->second.front());
                    it->second.pop_front();
                    next->connection = this;
                }
            }
        }
        if (mPaused && belowResumeMarkLocked()) {
            mPaused = false;
            if (!mDead && !mReading && !mArmed && runtime.poolStarted()) {
                mArmed = true;
                rearm = true;
            }
        }
        idle = idleLocked();
    }
    if (rearm) runtime.rearm(this);
    if (idle) markDead(nullptr);
}

void BinderConnection::markDead(const char* reason) {
    sp<BinderConnection> self(this);
    std::vector<sp<BpBinder>> proxies;
    std::unordered_map<uint64_t, Export> exports;
    std::unordered_map<uint64_t, std::deque<BinderTask>> async;
    std::vector<sp<IBinder>> targets;
    {
        Mutex::Autolock lock(mLock);
        if (mDead) return;
        mDead = true;
        for (auto& [txid, waiter] : mWaiters) {
            if (!waiter->done) {
                waiter->done = true;
                waiter->status = android::DEAD_OBJECT;
            }
            wakeWaiter(waiter);
        }
        mWaiters.clear();
        for (auto& [id, entry] : mProxies) {
            sp<BpBinder> proxy = entry.proxy.promote();
            if (proxy != nullptr) proxies.push_back(std::move(proxy));
        }
        mProxies.clear();
        exports.swap(mExports);
        mExportIds.clear();
        async.swap(mAsync);
        // The one-way calls still queued are dropped with the connection.
        BinderRuntime::QueueTotals droppedCalls;
        for (auto& [targetId, queue] : async) {
            for (const BinderTask& task : queue) {
                ++droppedCalls.calls;
                droppedCalls.bytes += task.frameBytes;
                auto held = mCallTargets.find(targetId);
                if (held != mCallTargets.end() && --held->second.calls == 0) {
                    targets.push_back(std::move(held->second.binder));
                    mCallTargets.erase(held);
                }
            }
        }
        mActiveIncoming -= std::min<uint64_t>(mActiveIncoming, droppedCalls.calls);
        mIncomingBytes -= std::min(mIncomingBytes, droppedCalls.bytes);
        if (droppedCalls.calls > 0) {
            mUidQueued = BinderRuntime::instance().chargeUid(mPeerUid, droppedCalls, false, {});
        }
    }
    if (reason != nullptr) {
        ALOGW("Binder: closing the connection with pid %d: %s", mPeerPid, reason);
    }
    shutdown(mFd.get(), SHUT_RDWR);
    {
        Mutex::Autolock lock(mWriteLock);
        mWriteClosed = true;
        mPending.clear();
        mPendingBytes = 0;
    }
    {
        Mutex::Autolock lock(mHandoffLock);
        mHandoffClosed = true;
        mHandoff.clear();
    }
    BinderRuntime::instance().unregisterConnection(this);
    for (sp<BpBinder>& proxy : proxies) {
        proxy->queueObituary();
        BinderRuntime::instance().relayDeath(proxy.get());
    }
}

void BinderConnection::relayDeath(const IBinder* proxy) {
    uint64_t id;
    {
        Mutex::Autolock lock(mLock);
        if (mDead) return;
        auto it = mExportIds.find(proxy);
        if (it == mExportIds.end()) return;
        id = it->second;
    }
    sendDeath(id);
}

void BinderConnection::sendDeath(uint64_t id) {
    wire::FrameHeader header{wire::kFrameDeath, sizeof(wire::ReleaseBody)};
    wire::ReleaseBody body{id, 0, 0};
    iovec iov[2] = {{&header, sizeof(header)}, {&body, sizeof(body)}};
    writeFrame(iov, 2, nullptr, 0);
}

}  // namespace Halo::OS
