#pragma once

#include <android-base/unique_fd.h>
#include <binder/BpBinder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "binder/BinderRuntime.h"
#include "binder/BinderTask.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// One connected Unix stream socket to a peer process and everything that travels over it: both
// sides' transactions, the objects each side has handed to the other, and the calls waiting for
// replies. docs/wire.md describes the frames.
//
// Reading: whoever holds the reading token reads. A thread waiting for a reply takes the token
// and reads the socket itself, so its reply needs no hand-off; frames it reads for others go to
// them (replies to their waiters, calls nested in their calls to them, everything else to the
// pool). A pool thread woken by epoll takes the token, reads what is there without blocking,
// hands the token back and runs the first call itself.
//
// Writing never blocks: a frame the socket cannot take at once is queued in user space and sent
// by the runtime's flusher; a peer that stops reading for too long, or lets too much pile up, is
// disconnected. Nor does a thread wait for another one that is writing: it leaves its frame to
// that thread, which sends it next.
//
// Object numbers: an object this side owns and has sent is exported under a number with a count
// of the times it was sent; the peer returns counts with release frames, and the object is
// dropped when the count reaches 0. A proxy for a peer object counts the times it was received
// and returns that count when it is destroyed. Object 0 of an accepted connection is the
// published service.
//
// Incoming calls are bounded (docs/reliability.md, "Bounds"): the calls read from a connection
// that have not finished yet -- waiting for a thread, waiting behind an earlier one-way call to
// the same object, or running -- are counted in calls and in bytes of their frames, per
// connection and per peer uid. A connection whose count reaches a mark is no longer read (it
// stays out of the pool's epoll set) until its calls have drained below the resume mark; the
// peer's further frames wait in the socket and in the peer's output queue, as calls wait for room
// in the kernel's one-way buffer on a device. Nothing is dropped and nothing is reordered.
class BinderConnection : public android::RefBase {
public:
    // A connection with this many incoming calls, or calls of this many bytes, in progress is
    // paused; one read may take it past the mark by what that read holds (64 KiB, or one frame).
    static constexpr size_t kMaxQueuedCalls = 1024;
    static constexpr size_t kMaxQueuedBytes = 1024 * 1024;
    // A paused connection is read again once it is at or below both of these.
    static constexpr size_t kResumeQueuedCalls = kMaxQueuedCalls / 2;
    static constexpr size_t kResumeQueuedBytes = kMaxQueuedBytes / 2;
    // A thread waiting for a reply reads its connection even while it is paused (the reply may
    // be behind the queued calls). A call that arrives while the connection already has this
    // many calls or bytes in progress closes the connection; for a peer trusted with
    // out-of-line parcels (one call may be 64 MiB) only the calls count.
    static constexpr size_t kHardQueuedCalls = 4 * kMaxQueuedCalls;
    static constexpr size_t kHardQueuedBytes = 4 * kMaxQueuedBytes;
    // The read buffer: this large normally; it grows to hold one large frame and, once it is
    // over four times this size with no large frame pending, shrinks back.
    static constexpr size_t kReadChunk = 64 * 1024;

    // Takes ownership of the connected socket `fd`. `root` is the published object the peer
    // reaches as object 0 (accepted connections); a connecting client passes null.
    BinderConnection(android::base::unique_fd fd, const android::sp<android::IBinder>& root);
    ~BinderConnection() override;

    // Connects to the service socket at `path` and returns a proxy for its object 0, or null
    // (errno set) when nothing listens there.
    static android::sp<android::IBinder> connectTo(const std::string& path);

    int fd() const { return mFd.get(); }
    pid_t peerPid() const { return mPeerPid; }
    uid_t peerUid() const { return mPeerUid; }
    bool isDead() const;
    // Also asks the socket whether the peer has gone (without reading); marks the connection
    // dead when it has.
    bool probeDead();

    // The runtime's registry key (set once when registered).
    void setKey(uint64_t key) { mKey = key; }
    uint64_t key() const { return mKey; }

    // Sends a transaction to the peer's object `target` and, for a two-way call, waits for the
    // reply (serving calls nested in it meanwhile). Returns OK, DEAD_OBJECT when the connection is
    // or becomes broken, FAILED_TRANSACTION when the request is over the frame limit or carries
    // a descriptor that is not open (the connection stays usable), BAD_VALUE
    // for a parcel with damaged object records, or the bare status the peer's onTransact returned.
    android::status_t transact(uint64_t target, uint32_t code, const android::Parcel& data,
                               android::Parcel* reply, uint32_t flags);

    // A proxy of this connection is being destroyed: returns its received count to the peer.
    void releaseProxy(uint64_t id, const android::BpBinder* proxy);

    // A pool thread got a readiness event: reads without blocking and appends the calls that are
    // ready to run to `runnable`.
    void onPollEvent(std::vector<BinderTask>* runnable);

    // `proxy` (of another connection) died: when this side has handed it to the peer, tells the
    // peer (a death frame), whose proxy for it dies too.
    void relayDeath(const android::IBinder* proxy) EXCLUDES(mLock);

    // Hands `task`, a call from a connection with peer `pid` and `uid` nested in this side's
    // call `txid`, to the thread waiting for that call. False when no such call waits here, or
    // its peer is another process.
    bool deliverNested(uint64_t txid, pid_t pid, uid_t uid, BinderTask* task) EXCLUDES(mLock);

    // Runs an incoming transaction on the calling thread with the peer's identity, sends the
    // reply of a two-way call, and for a one-way call continues with the next one-way call queued
    // for the same object (or queues it for the pool when calls of other uids wait).
    void execute(BinderTask task);

    // Called by the runtime's flusher: sends queued output without blocking. Returns true when
    // nothing is left queued. Breaks the connection when the peer has taken nothing for too long.
    bool flushPending();

    // Breaks the connection: waiters return DEAD_OBJECT, exported objects are dropped, and every
    // proxy's death is reported on the pool. Safe to call more than once and from any thread that
    // holds no lock of this connection.
    void markDead(const char* reason);

private:
    struct Waiter {
        uint64_t txid = 0;
        // The reply as it arrived. It is built here, never in the caller's parcel, because what
        // the caller's parcel held before (possibly the last reference to a proxy of this
        // connection) must be destroyed outside mLock; the waiting thread swaps it in.
        android::Parcel received;
        bool replied = false;
        android::status_t status = android::OK;
        bool done = false;
        // Calls nested in this one, to be served by the waiting thread. A list: every call
        // makes a Waiter and almost none gets a nested call, and an empty list allocates nothing.
        std::list<BinderTask> nested;
        // The waiting thread's eventfd: written when the reply or a nested call arrives, or the
        // reading token is released.
        int wakeFd = -1;
    };

    struct Export {
        android::sp<android::IBinder> binder;
        uint64_t count;
    };

    struct ProxyEntry {
        android::wp<android::BpBinder> proxy;
        uint64_t count;
    };

    struct FrameRef {
        uint32_t type;  // kFrameTransaction, kFrameReply, kFrameRelease or kFrameDeath
        const uint8_t* body;
        uint32_t size;
        std::vector<android::base::unique_fd> fds;
        // The body of an out-of-line frame: its fixed part and the memfd's content.
        std::vector<uint8_t> outOfLine;
    };

    struct PendingOutput {
        std::vector<uint8_t> bytes;
        size_t offset = 0;
        std::vector<android::base::unique_fd> fds;
    };

    enum class ReadResult { Data, WouldBlock, Closed };

    android::sp<android::IBinder> rootProxy();

    // Serialises `data` as a frame of `type` whose fixed body is `body` (with the data, object
    // and descriptor counts filled in here) and writes it.
    android::status_t sendParcel(uint32_t type, void* body, size_t bodySize, uint32_t* dataSize,
                                 uint32_t* objectCount, uint32_t* fdCount,
                                 const android::Parcel& data);
    android::status_t sendReply(uint64_t txid, android::status_t status,
                                const android::Parcel& reply);
    void sendRelease(uint64_t id, uint64_t count);
    void sendDeath(uint64_t id);
    // Sends a frame, or queues it when the socket cannot take it now; when another thread is
    // writing, hands the frame (copied, descriptors duplicated) to that thread instead of waiting.
    // Returns OK, DEAD_OBJECT once the connection is broken, or FAILED_TRANSACTION when a
    // descriptor is not open or cannot be duplicated (nothing of the frame is sent then).
    android::status_t writeFrame(const iovec* iov, int iovcnt, const int* fds, size_t fdCount);
    // The writing itself, under the write lock; the caller is the active writer.
    android::status_t sendFrame(const iovec* iov, int iovcnt, const int* fds, size_t fdCount);
    // The active writer sends what was handed over to it, then stops being the writer.
    void sendHandedOver();
    // Copies a frame from byte `skip` on, with duplicates of `fds`. False when a descriptor
    // cannot be duplicated.
    static bool copyFrame(const iovec* iov, int iovcnt, size_t skip, const int* fds, size_t fdCount,
                          PendingOutput* out);

    // Waits for the waiter's reply, reading the connection while nobody else does, and moves it
    // into `reply` (whose earlier content is destroyed with the waiter, outside every lock).
    // `reading`: the caller already holds the reading token (and has disarmed the connection if
    // needed).
    android::status_t waitForReply(Waiter* waiter, android::Parcel* reply, bool reading);
    // Exchanges the contents of two parcels.
    static void swapParcels(android::Parcel* a, android::Parcel* b);

    // Waits until the waiter's eventfd is written or, when `reading` (the caller holds the
    // reading token), the socket is readable; returns whether it is. Meanwhile reads the other
    // connections with the same peer process when no pool thread is idle (see kNestedPollMs), so
    // that calls nested in the waiting call reach it whichever connection they come on; calls for
    // the pool go to `runnable`.
    bool waitForWork(int wakeFd, bool reading, std::vector<BinderTask>* runnable);
    // Reads once without blocking, unless another thread reads or the connection is paused.
    void readForNested(std::vector<BinderTask>* runnable);
    static void wakeWaiter(const Waiter* waiter);
    // How often a waiting thread looks again whether the pool can read for it.
    static constexpr int kNestedPollMs = 100;

    // The token holder reads once and routes every complete frame. Returns false when the
    // connection broke (it is then marked dead).
    bool readAndRoute(bool block, std::vector<BinderTask>* runnable);
    void releaseReadingToken();
    ReadResult readSome(bool block);
    bool extractFrames(std::vector<FrameRef>* frames);
    // Rebuilds the body of an out-of-line frame whose fixed part is `fixed` (`size` bytes) from
    // the memfd first in mReceivedFds, into frame->outOfLine. False (logged) when the peer may
    // not send out of line or the memfd is missing, not sealed, or not of the announced size.
    bool readOutOfLine(uint32_t type, const uint8_t* fixed, uint32_t size, FrameRef* frame);
    // Returns null, or why the frames break the protocol. What must be destroyed outside the
    // lock goes to `discard` and `dropped`.
    // Calls nested in a call this side waits for on another connection go to `nestedElsewhere`;
    // proxies the peer reported dead (death frames) to `relayedDeaths`.
    const char* routeFrames(std::vector<FrameRef>* frames, std::vector<BinderTask>* runnable,
                            std::vector<BinderTask>* nestedElsewhere,
                            std::vector<android::sp<android::BpBinder>>* relayedDeaths,
                            std::vector<BinderTask>* discard,
                            std::vector<android::sp<android::IBinder>>* dropped) REQUIRES(mLock);
    // Rebuilds a parcel from wire data: proxies for the peer's objects, our own objects for
    // returned references, descriptors from the frame. False for a reference to an object we did
    // not export.
    bool unflattenLocked(const uint8_t* data, uint32_t dataSize, const uint8_t* offsets,
                         uint32_t objectCount, std::vector<android::base::unique_fd>* fds,
                         android::Parcel* out) REQUIRES(mLock);
    android::sp<android::BpBinder> proxyForLocked(uint64_t id) REQUIRES(mLock);
    uint64_t exportLocked(const android::sp<android::IBinder>& binder) REQUIRES(mLock);
    // A client connection that nobody uses any more (no proxies, no exports, no calls) closes.
    bool idleLocked() const REQUIRES(mLock);
    // Accounts a finished incoming call, resumes reading the connection when it was paused and
    // has drained, and for a one-way call moves the next one queued for the same object to
    // `next`.
    void finishIncoming(const BinderTask& task, BinderTask* next);
    // Counts a call that was read against this connection's and its uid's bounds. Returns false
    // when it arrives over the hard bound.
    bool chargeIncomingLocked(uint32_t frameBytes) REQUIRES(mLock);
    // Whether the connection must not be read now.
    bool overQueueBoundLocked() const REQUIRES(mLock);
    // Whether a paused connection may be read again.
    bool belowResumeMarkLocked() const REQUIRES(mLock);
    // The target of an incoming call in progress (held in mCallTargets).
    android::sp<android::IBinder> callTarget(uint64_t targetId);

    android::base::unique_fd mFd;
    const bool mIsClient;
    pid_t mPeerPid;
    uid_t mPeerUid;
    // Whether the peer may send parcels out of line (BinderRuntime::acceptsOutOfLine).
    bool mPeerSendsOutOfLine = false;
    uint64_t mKey = 0;

    // The read buffer belongs to the holder of the reading token.
    std::vector<uint8_t> mReadBuffer;
    size_t mReadStart = 0;
    size_t mReadEnd = 0;
    std::deque<android::base::unique_fd> mReceivedFds;

    mutable Mutex mLock;
    bool mDead GUARDED_BY(mLock) = false;
    bool mReading GUARDED_BY(mLock) = false;
    bool mArmed GUARDED_BY(mLock) = true;
    uint64_t mNextExportId GUARDED_BY(mLock) = 1;
    bool mPaused GUARDED_BY(mLock) = false;
    // Incoming calls in progress (see the class comment) and the bytes of their frames.
    uint64_t mActiveIncoming GUARDED_BY(mLock) = 0;
    size_t mIncomingBytes GUARDED_BY(mLock) = 0;
    // The peer uid's totals as of this connection's last change of its own.
    BinderRuntime::QueueTotals mUidQueued GUARDED_BY(mLock);
    std::unordered_map<uint64_t, Waiter*> mWaiters GUARDED_BY(mLock);
    std::unordered_map<uint64_t, Export> mExports GUARDED_BY(mLock);
    std::unordered_map<const android::IBinder*, uint64_t> mExportIds GUARDED_BY(mLock);
    std::unordered_map<uint64_t, ProxyEntry> mProxies GUARDED_BY(mLock);
    // The targets of the incoming calls in progress, one reference each whatever the number of
    // calls, and how many calls name each.
    struct CallTarget {
        android::sp<android::IBinder> binder;
        uint64_t calls = 0;
    };
    std::unordered_map<uint64_t, CallTarget> mCallTargets GUARDED_BY(mLock);
    // One-way calls per object: present while one runs; later ones wait here in order. Queued
    // tasks hold no reference to this connection (filled in when they run).
    std::unordered_map<uint64_t, std::deque<BinderTask>> mAsync GUARDED_BY(mLock);

    // Frames left by threads that found another thread writing; that thread (mWriterActive)
    // sends them before it stops. Only ever held briefly, never together with another lock.
    Mutex mHandoffLock;
    bool mWriterActive GUARDED_BY(mHandoffLock) = false;
    bool mHandoffClosed GUARDED_BY(mHandoffLock) = false;
    std::deque<PendingOutput> mHandoff GUARDED_BY(mHandoffLock);

    Mutex mWriteLock;
    bool mWriteClosed GUARDED_BY(mWriteLock) = false;
    std::deque<PendingOutput> mPending GUARDED_BY(mWriteLock);
    size_t mPendingBytes GUARDED_BY(mWriteLock) = 0;
    std::chrono::steady_clock::time_point mLastProgress GUARDED_BY(mWriteLock);
};

}  // namespace Halo::OS
