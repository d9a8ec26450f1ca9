#include <binder/IServiceManager.h>
#include <binder/test/BnTestCallback.h>
#include <binder/test/ITestService.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <random>
#include <thread>

#include "BinderTestEnvironment.h"
#include "binder/BinderConnection.h"
#include "binder/BinderRuntime.h"
#include "threads/Mutex.h"

namespace Halo::OS::testing {
namespace {

using android::sp;
using android::String16;
using binder::test::ITestService;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t pack(char a, char b, char c, uint8_t d) {
    return (static_cast<uint32_t>(a) << 24) | (static_cast<uint32_t>(b) << 16) |
           (static_cast<uint32_t>(c) << 8) | d;
}

constexpr uint32_t kTransaction = pack('T', 'R', 'N', 'S');
constexpr uint32_t kReply = pack('R', 'P', 'L', 'Y');
constexpr uint32_t kRelease = pack('R', 'L', 'S', 'E');
constexpr uint32_t kSenderObject = pack('s', 'b', '*', 0x85);
constexpr uint32_t kPing = pack('_', 'P', 'N', 'G');
constexpr uint32_t kInterface = pack('_', 'N', 'T', 'F');

void put32(Bytes* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void put64(Bytes* out, uint64_t value) {
    put32(out, static_cast<uint32_t>(value));
    put32(out, static_cast<uint32_t>(value >> 32));
}

uint32_t get32(const Bytes& in, size_t at) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = (value << 8) | in[at + i];
    return value;
}

struct TransactionFrame {
    uint64_t txid = 1;
    uint64_t target = 0;
    uint64_t context = 0;
    uint32_t code = kPing;
    uint32_t flags = 0;
    Bytes data;
    std::vector<uint32_t> offsets;
    uint32_t fdCount = 0;
    // When set, replaces the computed data size (to make the sizes disagree).
    int64_t dataSizeOverride = -1;

    Bytes encode() const {
        Bytes body;
        put64(&body, txid);
        put64(&body, target);
        put64(&body, context);
        put32(&body, code);
        put32(&body, flags);
        put32(&body, dataSizeOverride >= 0 ? static_cast<uint32_t>(dataSizeOverride)
                                           : static_cast<uint32_t>(data.size()));
        put32(&body, static_cast<uint32_t>(offsets.size()));
        put32(&body, fdCount);
        put32(&body, 0);
        body.insert(body.end(), data.begin(), data.end());
        for (uint32_t offset : offsets) put32(&body, offset);
        Bytes frame;
        put32(&frame, kTransaction);
        put32(&frame, static_cast<uint32_t>(body.size()));
        frame.insert(frame.end(), body.begin(), body.end());
        return frame;
    }
};

Bytes objectRecord(uint32_t type, uint64_t value) {
    Bytes record;
    put32(&record, type);
    put32(&record, 0x17f);
    put64(&record, value);
    put64(&record, 0);
    return record;
}

class RawClient {
public:
    // Connects as `uid`: the kernel gives the service the credentials of the thread that
    // connects, so a thread of its own takes that effective uid (only itself) and connects.
    explicit RawClient(const std::string& path, uid_t uid = 0)
        : mFd(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        std::thread([&] {
            if (uid != 0) ASSERT_EQ(0, syscall(SYS_setresuid, -1, uid, -1));
            EXPECT_EQ(0, connect(mFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
        }).join();
    }
    ~RawClient() { close(mFd); }

    void send(const Bytes& bytes) {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::send(mFd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    // Reads `size` bytes, or fewer when the peer closes or nothing comes for 20 s.
    Bytes receive(size_t size) {
        Bytes out;
        while (out.size() < size) {
            pollfd pfd{mFd, POLLIN, 0};
            if (poll(&pfd, 1, 20000) <= 0) break;
            uint8_t buffer[4096];
            const ssize_t n = recv(mFd, buffer, std::min(sizeof(buffer), size - out.size()), 0);
            if (n <= 0) break;
            out.insert(out.end(), buffer, buffer + n);
        }
        return out;
    }

    // True when the service closes the connection (end of stream or reset) within 20 s.
    bool closedByPeer() {
        for (;;) {
            pollfd pfd{mFd, POLLIN, 0};
            if (poll(&pfd, 1, 20000) <= 0) return false;
            uint8_t buffer[4096];
            const ssize_t n = recv(mFd, buffer, sizeof(buffer), 0);
            if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
            if (n < 0) return false;
        }
    }

    void shutdownWrite() { shutdown(mFd, SHUT_WR); }

    // Sends `bytes` with `fd` (unless -1) attached to the first byte.
    void sendWithFd(const Bytes& bytes, int fd) {
        iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        if (fd >= 0) {
            msg.msg_control = control;
            msg.msg_controllen = sizeof(control);
            cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
            *cmsg = cmsghdr{CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            memcpy(CMSG_DATA(cmsg), &fd, sizeof(fd));
        }
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), sendmsg(mFd, &msg, MSG_NOSIGNAL));
    }

private:
    int mFd;
};

class BinderRobustnessTest : public BinderTest {
protected:
    std::string socketPath(const std::string& name) { return mDir.file(name); }
};

TEST_F(BinderRobustnessTest, WellFormedRawFramesAreAnswered) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    RawClient raw(socketPath("test"));

    TransactionFrame ping;
    ping.txid = 5;
    raw.send(ping.encode());
    Bytes reply = raw.receive(8 + 24);
    ASSERT_EQ(32u, reply.size());
    EXPECT_EQ(kReply, get32(reply, 0));
    EXPECT_EQ(24u, get32(reply, 4));
    EXPECT_EQ(5u, get32(reply, 8));
    EXPECT_EQ(0u, get32(reply, 16));  // status
    EXPECT_EQ(0u, get32(reply, 20));  // no data

    TransactionFrame descriptor;
    descriptor.txid = 6;
    descriptor.code = kInterface;
    raw.send(descriptor.encode());
    const std::string name = "binder.test.ITestService";
    const size_t dataSize = 4 + (name.size() + 1) * 2 + 2;  // padded to 4
    reply = raw.receive(8 + 24 + dataSize);
    ASSERT_EQ(8 + 24 + dataSize, reply.size());
    EXPECT_EQ(6u, get32(reply, 8));
    EXPECT_EQ(dataSize, get32(reply, 20));
    EXPECT_EQ(name.size(), get32(reply, 32));
    EXPECT_EQ('b', reply[36]);
}

TEST_F(BinderRobustnessTest, MalformedFramesCloseOnlyTheirConnection) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);

    std::vector<std::pair<std::string, Bytes>> cases;
    Bytes unknownType;
    put32(&unknownType, 0xdeadbeef);
    put32(&unknownType, 0);
    cases.emplace_back("unknown frame type", unknownType);
    Bytes oversized;
    put32(&oversized, kTransaction);
    put32(&oversized, (1u << 20) + 1);
    cases.emplace_back("oversized frame", oversized);
    TransactionFrame sizes;
    sizes.dataSizeOverride = 100;
    cases.emplace_back("sizes that do not add up", sizes.encode());
    TransactionFrame outside;
    outside.data = Bytes(24, 0);
    outside.offsets = {4};
    cases.emplace_back("record outside the data", outside.encode());
    TransactionFrame unknownRecord;
    unknownRecord.data = objectRecord(0x12345678, 1);
    unknownRecord.offsets = {0};
    cases.emplace_back("record of unknown type", unknownRecord.encode());
    TransactionFrame unexported;
    unexported.data = objectRecord(pack('s', 'h', '*', 0x85), 99);
    unexported.offsets = {0};
    cases.emplace_back("reference to an object never exported", unexported.encode());
    TransactionFrame noTarget;
    noTarget.target = 77;
    cases.emplace_back("transaction to an unknown object", noTarget.encode());
    TransactionFrame noTxid;
    noTxid.txid = 0;
    cases.emplace_back("two-way call without a number", noTxid.encode());
    TransactionFrame missingFd;
    missingFd.data = objectRecord(pack('f', 'd', '*', 0x85), 0);
    missingFd.offsets = {0};
    missingFd.fdCount = 1;
    cases.emplace_back("descriptor record without a descriptor", missingFd.encode());
    Bytes strayReply;
    put32(&strayReply, kReply);
    put32(&strayReply, 24);
    put64(&strayReply, 99);
    for (int i = 0; i < 4; ++i) put32(&strayReply, 0);
    cases.emplace_back("reply nobody waits for", strayReply);
    Bytes strayRelease;
    put32(&strayRelease, kRelease);
    put32(&strayRelease, 16);
    put64(&strayRelease, 555);
    put32(&strayRelease, 1);
    put32(&strayRelease, 0);
    cases.emplace_back("release of an object never exported", strayRelease);
    std::mt19937 random(1234);
    Bytes garbage(4096);
    for (uint8_t& byte : garbage) byte = static_cast<uint8_t>(random());
    cases.emplace_back("random bytes", garbage);

    for (const auto& [what, bytes] : cases) {
        RawClient raw(socketPath("test"));
        raw.send(bytes);
        EXPECT_TRUE(raw.closedByPeer()) << what;
        int32_t out = 0;
        EXPECT_TRUE(service->echoInt(11, &out).isOk()) << what;
        EXPECT_EQ(11, out) << what;
    }

    // A frame cut short by a client that goes away, and a client that sends its sender object
    // and vanishes, leave the service serving.
    {
        RawClient raw(socketPath("test"));
        Bytes partial;
        put32(&partial, kTransaction);
        put32(&partial, 100);
        partial.resize(50, 0);
        raw.send(partial);
    }
    {
        RawClient raw(socketPath("test"));
        TransactionFrame withObject;
        withObject.flags = 1;
        withObject.txid = 0;
        withObject.code = 1;
        withObject.data = objectRecord(kSenderObject, 3);
        withObject.offsets = {0};
        raw.send(withObject.encode());
    }
    int32_t out = 0;
    EXPECT_TRUE(service->echoInt(12, &out).isOk());
    EXPECT_EQ(12, out);
    sp<android::IBinder> fresh = android::defaultServiceManager()->checkService(String16("test"));
    ASSERT_NE(nullptr, fresh);
    EXPECT_EQ(android::OK, fresh->pingBinder());
}

// A parcel carrying a descriptor that is no longer open fails its own call, two-way or one-way;
// the connection and its proxies stay usable.
TEST_F(BinderRobustnessTest, ClosedDescriptorFailsOnlyItsTransaction) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    const sp<android::IBinder> binder = android::IInterface::asBinder(service);
    // Far above the descriptors in use, so that no other thread opens it meanwhile.
    const int closed = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 1000);
    ASSERT_GE(closed, 1000);
    ASSERT_EQ(0, close(closed));
    const uint32_t echoFd = android::IBinder::FIRST_CALL_TRANSACTION + 6;
    for (uint32_t flags : {0u, static_cast<uint32_t>(android::IBinder::FLAG_ONEWAY)}) {
        android::Parcel data;
        data.writeInterfaceToken(ITestService::descriptor);
        ASSERT_EQ(android::OK, data.writeFileDescriptor(closed));
        android::Parcel reply;
        EXPECT_EQ(android::FAILED_TRANSACTION, binder->transact(echoFd, data, &reply, flags))
                << flags;
        EXPECT_TRUE(binder->isBinderAlive()) << flags;
        int32_t out = 0;
        EXPECT_TRUE(service->echoInt(5, &out).isOk()) << flags;
    }
}

TEST_F(BinderRobustnessTest, PeerThatStopsReadingDoesNotBlockTheService) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    PeerProcess& stalled = startPeer({"keep", "test"});
    ASSERT_EQ("ready", stalled.readLine());
    ASSERT_TRUE(service->watchKeptCallback().isOk());
    stalled.kill(SIGSTOP);

    // 3000 one-way calls of 4 KiB to a process that reads nothing: the service never blocks;
    // once too much is queued it gives the stalled client up.
    int32_t accepted = -1;
    ASSERT_TRUE(service->spam(3000, 4096, &accepted).isOk());
    EXPECT_GT(accepted, 0);
    EXPECT_LT(accepted, 3000);
    int32_t deaths = 0;
    ASSERT_TRUE(service->deaths(1, &deaths).isOk());
    EXPECT_EQ(1, deaths);

    int32_t out = 0;
    EXPECT_TRUE(service->echoInt(13, &out).isOk());
    EXPECT_EQ(13, out);
    stalled.kill(SIGKILL);
}

TEST_F(BinderRobustnessTest, OnewayFloodIsHeldBackWithoutLossWhileOthersAreServed) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    // An app's one-way calls pile up behind one that does not return until released.
    constexpr int32_t kFlood = 10000;
    ASSERT_EQ("sent", startPeer({"flood", "test", std::to_string(kFlood)}, 10123).readLine());
    const int32_t mark = BinderConnection::kMaxQueuedCalls;
    // queueStats(): calls in progress now, then the peak calls and bytes of one connection.
    std::vector<int32_t> stats;
    EXPECT_TRUE(eventually([&] { return service->queueStats(&stats).isOk() && stats[0] >= mark; }));
    int32_t out = 0;
    EXPECT_TRUE(service->echoInt(14, &out).isOk());  // another client is served meanwhile

    // Released, every call arrives once and in order.
    ASSERT_TRUE(service->release().isOk());
    std::vector<int32_t> recorded;
    ASSERT_TRUE(service->recorded(kFlood, &recorded).isOk());
    std::vector<int32_t> expected(kFlood);
    for (int32_t i = 0; i < kFlood; ++i) expected[i] = i;
    EXPECT_EQ(expected, recorded);
    // No connection ever had more than the marks and one read (of calls of 56 bytes or more).
    ASSERT_TRUE(service->queueStats(&stats).isOk());
    EXPECT_LE(stats[1], mark + int32_t(BinderConnection::kReadChunk / 56));
    EXPECT_LE(size_t(stats[2]), BinderConnection::kMaxQueuedBytes + BinderConnection::kReadChunk);
}

TEST_F(BinderRobustnessTest, OutOfLineParcelsComeOnlyFromTrustedPeersInSealedMemfds) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    // An app's runtime does not send a parcel over the frame limit to a root service: the call
    // fails in the app and its connection stays usable.
    PeerProcess& app = startPeer({"echo-bytes", "test", "5242880", "16"}, 10123);
    EXPECT_EQ("exception -129", app.readLine());
    EXPECT_EQ("ok", app.readLine());

    // Raw out-of-line pings: only a sealed memfd of the announced size from root is answered.
    // Seals -1: a pipe instead of a memfd; -2: no descriptor.
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    constexpr off_t kSize = 2 << 20;
    const struct {
        const char* what;
        uid_t uid;
        int seals;
        off_t size;
        int64_t announced;
    } cases[] = {
            {"sealed memfd from root", 0, kSeals, kSize, kSize},
            {"sealed memfd from an app", 10123, kSeals, kSize, kSize},
            {"memfd without the write seal", 0, kSeals & ~F_SEAL_WRITE, kSize, kSize},
            {"memfd shorter than announced", 0, kSeals, kSize, kSize + 4},
            {"memfd over 64 MiB", 0, kSeals, (64 << 20) + 4, (64 << 20) + 4},
            {"pipe instead of a memfd", 0, -1, 0, kSize},
            {"no descriptor", 0, -2, 0, kSize},
    };
    for (const auto& c : cases) {
        android::base::unique_fd fd(c.seals >= 0 ? memfd_create("test", MFD_ALLOW_SEALING) : -1);
        int ends[2] = {-1, -1};
        if (c.seals == -1) ASSERT_EQ(0, pipe(ends));
        if (c.seals >= 0) {
            ASSERT_EQ(0, ftruncate(fd.get(), c.size));
            ASSERT_EQ(0, fcntl(fd.get(), F_ADD_SEALS, c.seals));
        }
        TransactionFrame ping;
        ping.txid = 9;
        ping.dataSizeOverride = c.announced;
        Bytes frame = ping.encode();
        frame[0] = 'M';  // 'TRNS' becomes 'TRNM' (little-endian)
        RawClient raw(socketPath("test"), c.uid);
        raw.sendWithFd(frame, c.seals == -1 ? ends[0] : fd.get());
        if (c.seals == -1) close(ends[0]), close(ends[1]);
        if (c.what == cases[0].what) {
            const Bytes reply = raw.receive(8 + 24);
            EXPECT_TRUE(reply.size() == 32u && get32(reply, 8) == 9u) << c.what;
        } else {
            EXPECT_TRUE(raw.closedByPeer()) << c.what;
        }
        int32_t out = 0;
        EXPECT_TRUE(service->echoInt(16, &out).isOk()) << c.what;
    }
}

// A service of the test process. kGate calls wait until open() (counting how many wait at once);
// every call is counted.
class GateService : public android::BBinder {
public:
    static constexpr uint32_t kGate = 1;
    static constexpr uint32_t kCount = 2;

    android::status_t onTransact(uint32_t code, const android::Parcel&, android::Parcel*,
                                 uint32_t) override {
        Mutex::Autolock lock(mLock);
        ++mCalls;
        if (code == kGate) {
            ++mWaiting;
            mChanged.wait(lock.unique(), [&]() NO_THREAD_SAFETY_ANALYSIS { return mOpen; });
            --mWaiting;
        }
        return android::OK;
    }

    void open() {
        Mutex::Autolock lock(mLock);
        mOpen = true;
        mChanged.notify_all();
    }
    size_t calls() {
        Mutex::Autolock lock(mLock);
        return mCalls;
    }
    size_t waiting() {
        Mutex::Autolock lock(mLock);
        return mWaiting;
    }

private:
    Mutex mLock;
    std::condition_variable mChanged;
    bool mOpen GUARDED_BY(mLock) = false;
    size_t mCalls GUARDED_BY(mLock) = 0;
    size_t mWaiting GUARDED_BY(mLock) = 0;
};

// The value of `sample` once it has stopped changing (the same for half a second).
template <typename Sample>
auto settled(const Sample& sample) {
    auto last = sample();
    for (int same = 0; same < 10;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const auto now = sample();
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

// Sends `count` copies of `frame` on a thread of its own (blocking while the service does not
// read).
std::thread sendRepeatedly(RawClient* client, Bytes frame, int count) {
    return std::thread([client, frame = std::move(frame), count] {
        for (int i = 0; i < count; ++i) client->send(frame);
    });
}

TEST_F(BinderRobustnessTest, OneUidRunsOnItsShareOfThreadsWhileOtherUidsAreServed) {
    sp<GateService> gate = new GateService();
    ASSERT_EQ(android::OK, android::defaultServiceManager()->addService(String16("gate"), gate));
    const size_t share = BinderRuntime::threadsPerUid(BinderRuntime::instance().maxThreads());
    TransactionFrame wait;
    wait.code = GateService::kGate;
    // One app's calls that do not return, twice its share, each on a connection of its own.
    std::vector<std::unique_ptr<RawClient>> app;
    for (size_t i = 0; i < 2 * share; ++i) {
        app.push_back(std::make_unique<RawClient>(socketPath("gate"), 10123));
        app.back()->send(wait.encode());
    }
    EXPECT_EQ(share, settled([&] { return gate->waiting(); }));
    // Another app's call still gets a thread; the first app's queued calls wait.
    RawClient other(socketPath("gate"), 10124);
    TransactionFrame count;
    count.code = GateService::kCount;
    other.send(count.encode());
    EXPECT_EQ(32u, other.receive(8 + 24).size());
    EXPECT_EQ(share, gate->waiting());

    gate->open();
    for (auto& client : app) EXPECT_EQ(32u, client->receive(8 + 24).size());
    EXPECT_EQ(2 * share + 1, gate->calls());
}

TEST_F(BinderRobustnessTest, OneUidsConnectionsTogetherStayWithinTheUidsQueueBound) {
    sp<GateService> gate = new GateService();
    ASSERT_EQ(android::OK, android::defaultServiceManager()->addService(String16("gate"), gate));
    // Twelve connections of one app, each a one-way call that waits and then more one-way calls
    // than one connection may queue: together more than the uid may queue.
    constexpr int kConnections = 12;
    constexpr int kCalls = 1500;
    TransactionFrame wait;
    wait.txid = 0;
    wait.code = GateService::kGate;
    wait.flags = android::IBinder::FLAG_ONEWAY;
    TransactionFrame count = wait;
    count.code = GateService::kCount;
    count.data.resize(500);
    const Bytes frame = count.encode();
    static_assert(kConnections * BinderConnection::kMaxQueuedCalls >
                  BinderRuntime::kMaxQueuedCallsPerUid);
    std::vector<std::unique_ptr<RawClient>> app;
    std::vector<std::thread> senders;
    for (int i = 0; i < kConnections; ++i) {
        app.push_back(std::make_unique<RawClient>(socketPath("gate"), 10123));
        app.back()->send(wait.encode());
        senders.push_back(sendRepeatedly(app.back().get(), frame, kCalls));
    }
    BinderRuntime& runtime = BinderRuntime::instance();
    const size_t queued = settled([&] { return runtime.queueStats().now.calls; });
    // Past the uid's bound each connection may have finished the read it was in.
    const size_t oneRead = BinderConnection::kReadChunk / frame.size() + 1;
    EXPECT_GE(queued, BinderRuntime::kMaxQueuedCallsPerUid);
    EXPECT_LE(runtime.queueStats().peakPerUid.calls,
              BinderRuntime::kMaxQueuedCallsPerUid + kConnections * oneRead);

    // Nothing is lost: every call runs once the first ones return.
    gate->open();
    for (std::thread& sender : senders) sender.join();
    EXPECT_TRUE(eventually([&] { return gate->calls() == size_t(kConnections) * (kCalls + 1); }));
}

TEST_F(BinderRobustnessTest, ReadBufferShrinksBackAfterALargeFrame) {
    sp<GateService> gate = new GateService();
    ASSERT_EQ(android::OK, android::defaultServiceManager()->addService(String16("gate"), gate));
    RawClient raw(socketPath("gate"));
    TransactionFrame small;
    small.code = GateService::kCount;
    raw.send(small.encode());
    ASSERT_EQ(32u, raw.receive(8 + 24).size());
    BinderRuntime& runtime = BinderRuntime::instance();
    const int64_t before = runtime.readBufferBytes();
    for (size_t size : {size_t(300) << 10, (size_t(1) << 20) - 4096}) {
        TransactionFrame large = small;
        large.data.resize(size);
        raw.send(large.encode());
        ASSERT_EQ(32u, raw.receive(8 + 24).size());
        EXPECT_GE(runtime.readBufferBytes() - before, int64_t(size)) << size;
        // The next read, with no large frame pending, gives the memory back.
        raw.send(small.encode());
        ASSERT_EQ(32u, raw.receive(8 + 24).size());
        EXPECT_LT(runtime.readBufferBytes() - before, int64_t(BinderConnection::kReadChunk))
                << size;
    }
}

}  // namespace
}  // namespace Halo::OS::testing
