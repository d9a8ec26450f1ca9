#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/PermissionCache.h>
#include <binder/test/BnTestCallback.h>
#include <binder/test/ITestService.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <future>
#include <limits>
#include <thread>

#include "BinderTestEnvironment.h"
#include "TestService.h"
#include "support/FdCapture.h"
#include "support/LogCapture.h"

namespace Halo::OS::testing {
namespace {

using android::IBinder;
using android::IInterface;
using android::OK;
using android::sp;
using android::String16;
using android::binder::Status;
using binder::test::ITestCallback;
using binder::test::ITestService;

// How many lines of `text` contain `fragment`.
int countLines(const std::string& text, const std::string& fragment) {
    int count = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        count += text.substr(start, end - start).find(fragment) != std::string::npos;
        start = end + 1;
    }
    return count;
}

// A callback that records the thread it runs on and, when given a service, calls it again from
// inside the callback (a call nested two levels deep).
class Callback : public binder::test::BnTestCallback {
public:
    explicit Callback(sp<ITestService> service = nullptr) : mService(std::move(service)) {}

    Status onCall(int32_t value, int32_t* out) override {
        {
            Mutex::Autolock lock(mLock);
            mThread = std::this_thread::get_id();
        }
        if (mService == nullptr) {
            *out = value * 2;
            return Status::ok();
        }
        return mService->echoInt(value * 2, out);
    }
    Status onData(const std::vector<uint8_t>& /*data*/) override { return Status::ok(); }

    std::thread::id thread() {
        Mutex::Autolock lock(mLock);
        return mThread;
    }

private:
    const sp<ITestService> mService;
    Mutex mLock;
    std::thread::id mThread GUARDED_BY(mLock);
};

class BinderIpcTest : public BinderTest {};

// Runs `work` on a thread of its own: false when it has not finished within 20 s (the thread is
// then left behind).
bool finishes(std::function<void()> work) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([work = std::move(work), done] {
        work();
        done->set_value();
    }).detach();
    return finished.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

// `calls` calls of meet(calls, waitMs) from as many threads at once: the most that ran at once.
int32_t meetAtOnce(const sp<ITestService>& service, int32_t calls, int32_t waitMs) {
    std::vector<int32_t> most(static_cast<size_t>(calls), 0);
    std::vector<std::thread> threads;
    for (int32_t i = 0; i < calls; ++i) {
        threads.emplace_back([&, i] { EXPECT_TRUE(service->meet(calls, waitMs, &most[i]).isOk()); });
    }
    for (auto& thread : threads) thread.join();
    return *std::max_element(most.begin(), most.end());
}

int32_t echoed(const sp<ITestService>& service, int32_t value) {
    int32_t out = 0;
    EXPECT_TRUE(service->echoInt(value, &out).isOk());
    return out;
}

// Parcel layouts of every type are checked in ParcelTest; here values, null objects and
// descriptors cross into another process and back, up to the frame limit.
TEST_F(BinderIpcTest, ValuesNullObjectsAndDescriptorsCrossProcesses) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    EXPECT_EQ(std::numeric_limits<int32_t>::min(),
              echoed(service, std::numeric_limits<int32_t>::min()));
    const char16_t units[] = {u'k', 0, 0xd83d, 0xde00, u'\u00e9'};
    String16 text;
    ASSERT_TRUE(service->echoString(String16(units, 5), &text).isOk());
    EXPECT_EQ(String16(units, 5), text);

    sp<IBinder> nullBinder = new android::BBinder();
    ASSERT_TRUE(service->echoNullableBinder(nullptr, &nullBinder).isOk());
    EXPECT_EQ(nullptr, nullBinder);
    EXPECT_FALSE(service->echoBinder(nullptr, &nullBinder).isOk());

    // Descriptors: what is written through the returned descriptor arrives at the original.
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    android::base::unique_fd readEnd(fds[0]);
    android::base::unique_fd writeEnd(fds[1]);
    android::base::unique_fd echoedFd;
    ASSERT_TRUE(service->echoFd(writeEnd, &echoedFd).isOk());
    ASSERT_GE(echoedFd.get(), 0);
    EXPECT_NE(writeEnd.get(), echoedFd.get());
    ASSERT_EQ(3, write(echoedFd.get(), "abc", 3));
    android::os::ParcelFileDescriptor pfdOut;
    ASSERT_TRUE(service->echoPfd(android::os::ParcelFileDescriptor(android::base::unique_fd(
                                         fcntl(writeEnd.get(), F_DUPFD_CLOEXEC, 0))),
                                 &pfdOut)
                        .isOk());
    ASSERT_EQ(2, write(pfdOut.get(), "de", 2));
    char buffer[8] = {};
    ASSERT_EQ(5, read(readEnd.get(), buffer, sizeof(buffer)));
    EXPECT_STREQ("abcde", buffer);

    // Frames are limited to 1 MiB; a larger parcel between root peers travels in a sealed memfd
    // (5 MB both ways here), one over 64 MiB fails on the caller's side without breaking the
    // connection.
    std::vector<uint8_t> large((1 << 20) - 4096, 0x33);
    std::vector<uint8_t> bytesOut;
    ASSERT_TRUE(service->echoBytes(large, &bytesOut).isOk());
    EXPECT_EQ(large, bytesOut);
    large.resize(5 << 20);
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<uint8_t>(i * 7);
    ASSERT_TRUE(service->echoBytes(large, &bytesOut).isOk());
    EXPECT_EQ(large, bytesOut);
    const String16 longText(std::string(5 << 19, 'x').c_str());
    ASSERT_TRUE(service->echoString(longText, &text).isOk());
    EXPECT_EQ(longText, text);
    large.resize((64 << 20) + 1);
    Status tooLarge = service->echoBytes(large, &bytesOut);
    EXPECT_EQ(android::FAILED_TRANSACTION, tooLarge.transactionError());
    EXPECT_EQ(7, echoed(service, 7));
}

TEST_F(BinderIpcTest, ErrorsAndExceptionsReachTheCaller) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    int32_t out = 777;
    Status status = service->failServiceSpecific(-9, "no such key", &out);
    EXPECT_EQ(Status::EX_SERVICE_SPECIFIC, status.exceptionCode());
    EXPECT_EQ(-9, status.serviceSpecificErrorCode());
    EXPECT_STREQ("no such key", status.exceptionMessage().string());
    EXPECT_EQ(777, out);
    status = service->failException(Status::EX_ILLEGAL_ARGUMENT);
    EXPECT_EQ(Status::EX_ILLEGAL_ARGUMENT, status.exceptionCode());
    status = service->failException(Status::EX_UNSUPPORTED_OPERATION);
    EXPECT_EQ(Status::EX_UNSUPPORTED_OPERATION, status.exceptionCode());

    // A negative status from onTransact comes back bare, as the caller's transport error; even
    // DEAD_OBJECT from a living service leaves its proxy usable.
    status = service->failStatus(android::PERMISSION_DENIED);
    EXPECT_EQ(Status::EX_TRANSACTION_FAILED, status.exceptionCode());
    EXPECT_EQ(android::PERMISSION_DENIED, status.transactionError());
    status = service->failStatus(android::DEAD_OBJECT);
    EXPECT_EQ(android::DEAD_OBJECT, status.transactionError());
    EXPECT_TRUE(IInterface::asBinder(service)->isBinderAlive());
    EXPECT_EQ(8, echoed(service, 8));

    // A request with another interface's token, or cut short, is refused with the stub's error
    // and no reply data.
    android::Parcel foreign;
    foreign.writeInterfaceToken(String16("binder.test.ITestCallback"));
    foreign.writeInt32(1);
    android::Parcel truncated;
    truncated.writeInterfaceToken(ITestService::descriptor);
    android::Parcel reply;
    const uint32_t echoInt = IBinder::FIRST_CALL_TRANSACTION;
    EXPECT_EQ(android::BAD_TYPE, IInterface::asBinder(service)->transact(echoInt, foreign, &reply));
    EXPECT_EQ(0u, reply.dataSize());
    EXPECT_EQ(android::NOT_ENOUGH_DATA,
              IInterface::asBinder(service)->transact(echoInt, truncated, &reply));
    EXPECT_EQ(0u, reply.dataSize());
}

TEST_F(BinderIpcTest, CallbacksNestedInACallRunOnTheWaitingThread) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    sp<Callback> callback = new Callback(service);
    int32_t result = 0;
    ASSERT_TRUE(service->callBack(callback, 5, &result).isOk());
    // onCall(5) asks the service to echo 10 while the service waits for onCall, which waits for
    // the echo: 10, + 1 from callBack.
    EXPECT_EQ(11, result);
    EXPECT_EQ(std::this_thread::get_id(), callback->thread());

    // Several threads at once, each with its own nested chain.
    std::vector<std::thread> threads;
    std::vector<int32_t> results(8, 0);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            sp<Callback> own = new Callback(service);
            for (int round = 0; round < 20; ++round) {
                int32_t value = 0;
                if (!service->callBack(own, i + round, &value).isOk()) return;
                results[i] += value;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int i = 0; i < 8; ++i) {
        int32_t expected = 0;
        for (int round = 0; round < 20; ++round) expected += 2 * (i + round) + 1;
        EXPECT_EQ(expected, results[i]) << "thread " << i;
    }
}

// A -> B -> A where B calls back over its own connection to A, and A has one thread: the thread
// of A waiting for B's reply serves the nested call (as the kernel driver hands it over).
TEST_F(BinderIpcTest, CallsNestedOverAnotherConnectionRunOnTheWaitingThread) {
    startPeer({"serve-pool", "single", "0"});
    sp<ITestService> single;
    ASSERT_EQ(OK, android::getService(String16("single"), &single));
    ASSERT_NE(nullptr, single);
    startPeer({"serve-callback", "forwarder", "single"});
    ASSERT_NE(nullptr, android::defaultServiceManager()->getService(String16("forwarder")));
    auto results = std::make_shared<std::vector<int32_t>>();
    ASSERT_TRUE(finishes([single, results] {
        for (int32_t value : {5, 6}) {
            int32_t out = 0;
            results->push_back(single->callNamed("forwarder", value, &out).isOk() ? out : -1);
        }
    }));
    EXPECT_EQ((std::vector<int32_t>{10, 12}), *results);
}

TEST_F(BinderIpcTest, ConcurrentCallsOnOneConnectionKeepTheirBytesAndDescriptors) {
    // Eight threads share the one connection to the service, and the service answers them from
    // several pool threads: requests and replies are written by one thread while others have
    // frames of their own to write. Some payloads are larger than the socket takes at once.
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    constexpr int kThreads = 8;
    constexpr int kRounds = 120;
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC) != 0) {
                failures[t] = "pipe2";
                return;
            }
            android::base::unique_fd readEnd(fds[0]);
            android::base::unique_fd writeEnd(fds[1]);
            for (int round = 0; round < kRounds && failures[t].empty(); ++round) {
                const size_t size = round % 4 == 0 ? 300 * 1024 : 1024 + 97 * round;
                std::vector<uint8_t> bytes(size);
                for (size_t i = 0; i < size; ++i)
                    bytes[i] = static_cast<uint8_t>(t * 31 + i + round);
                std::vector<uint8_t> out;
                if (!service->echoBytes(bytes, &out).isOk() || out != bytes) {
                    failures[t] = "bytes of round " + std::to_string(round);
                    break;
                }
                android::base::unique_fd echoedFd;
                const char mark = static_cast<char>('a' + t);
                char got = 0;
                if (!service->echoFd(writeEnd, &echoedFd).isOk() || echoedFd.get() < 0 ||
                    write(echoedFd.get(), &mark, 1) != 1 || read(readEnd.get(), &got, 1) != 1 ||
                    got != mark) {
                    failures[t] = "descriptor of round " + std::to_string(round);
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ("", failures[t]) << "thread " << t;
    EXPECT_EQ(9, echoed(service, 9));
}

TEST_F(BinderIpcTest, OnewayCallsArriveInOrder) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    for (int32_t i = 0; i < 1000; ++i) ASSERT_TRUE(service->record(i).isOk());
    std::vector<int32_t> recorded;
    ASSERT_TRUE(service->recorded(1000, &recorded).isOk());
    ASSERT_EQ(1000u, recorded.size());
    for (int32_t i = 0; i < 1000; ++i) ASSERT_EQ(i, recorded[i]) << "at " << i;
}

// A reply parcel used again may hold the last reference to a proxy of the connection it is used
// on; that proxy is released when the next reply (with data or a bare status) replaces it.
TEST_F(BinderIpcTest, ReusedReplyMayHoldTheLastReferenceToAProxy) {
    sp<ITestService> extended = startService<ITestService>("serve-extended", "extended");
    ASSERT_NE(nullptr, extended);
    const sp<IBinder> root = IInterface::asBinder(extended);
    constexpr uint32_t kUnknown = 0x00ffffff;
    const std::vector<std::pair<uint32_t, android::status_t>> calls = {
            {IBinder::EXTENSION_TRANSACTION, OK},
            {IBinder::EXTENSION_TRANSACTION, OK},
            {kUnknown, android::UNKNOWN_TRANSACTION},
            {IBinder::EXTENSION_TRANSACTION, OK},
    };
    auto statuses = std::make_shared<std::vector<android::status_t>>();
    ASSERT_TRUE(finishes([root, calls, statuses] {
        android::Parcel request;
        android::Parcel reply;
        for (const auto& [code, expected] : calls) {
            statuses->push_back(root->transact(code, request, &reply));
        }
    }));
    for (size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i].second, (*statuses)[i]) << i;
    EXPECT_EQ(4, echoed(extended, 4));
}

// One-way calls report no calling pid (0, as on a device); their uid is the caller's, and
// two-way calls keep the caller's pid.
TEST_F(BinderIpcTest, OnewayCallsReportNoCallingPid) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    ASSERT_TRUE(service->recordCaller().isOk());
    std::vector<int32_t> recorded;
    ASSERT_TRUE(service->recorded(2, &recorded).isOk());
    EXPECT_EQ((std::vector<int32_t>{0, static_cast<int32_t>(getuid())}), recorded);
    int32_t pid = 0;
    ASSERT_TRUE(service->callingPid(&pid).isOk());
    EXPECT_EQ(getpid(), pid);
}

// The pool is the thread that joined it plus at most the maximum started on demand; a maximum of
// 0 is accepted and leaves the joined main thread alone serving.
TEST_F(BinderIpcTest, PoolIsTheJoinedThreadPlusTheMaximum) {
    for (int32_t max : {0, 2}) {
        const std::string name = "pool" + std::to_string(max);
        startPeer({"serve-pool", name, std::to_string(max)});
        sp<ITestService> service;
        ASSERT_EQ(OK, android::getService(String16(name.c_str()), &service)) << max;
        ASSERT_NE(nullptr, service) << max;
        // max + 1 calls run at once; one more never runs beside them.
        EXPECT_EQ(max + 1, meetAtOnce(service, max + 1, 20000)) << max;
        EXPECT_EQ(max + 1, meetAtOnce(service, max + 2, 500)) << max;
    }
}

TEST_F(BinderIpcTest, KilledPeerIsReportedOnceAndItsProxiesAreDead) {
    PeerProcess& peer = startPeer({"serve", "test"});
    sp<ITestService> service;
    ASSERT_EQ(OK, android::getService(String16("test"), &service));
    sp<IBinder> binder = IInterface::asBinder(service);
    sp<DeathCounter> first = new DeathCounter();
    sp<DeathCounter> second = new DeathCounter();
    sp<DeathCounter> unlinked = new DeathCounter();
    ASSERT_EQ(OK, binder->linkToDeath(first));
    ASSERT_EQ(OK, binder->linkToDeath(second, reinterpret_cast<void*>(7)));
    ASSERT_EQ(OK, binder->linkToDeath(unlinked));
    EXPECT_EQ(android::NAME_NOT_FOUND, binder->unlinkToDeath(unlinked, nullptr, 1));
    EXPECT_EQ(OK, binder->unlinkToDeath(unlinked));
    EXPECT_TRUE(binder->isBinderAlive());
    EXPECT_EQ(OK, binder->pingBinder());

    peer.kill(SIGKILL);
    peer.wait();
    EXPECT_EQ(1, first->wait(1));
    EXPECT_EQ(1, second->wait(1));
    EXPECT_EQ(binder, first->who().promote());
    EXPECT_FALSE(binder->isBinderAlive());
    int32_t out;
    EXPECT_EQ(android::DEAD_OBJECT, service->echoInt(1, &out).transactionError());
    EXPECT_EQ(android::DEAD_OBJECT, binder->pingBinder());
    EXPECT_EQ(android::DEAD_OBJECT, binder->linkToDeath(new DeathCounter()));
    EXPECT_EQ(android::DEAD_OBJECT, binder->unlinkToDeath(first));
    EXPECT_EQ(1, first->count());
    EXPECT_EQ(1, second->count());
    EXPECT_EQ(0, unlinked->count());
}

// A proxy handed on is relayed by the process that hands it on; when its object's process dies,
// the death reaches the holders of the relayed proxy too, which can still hand it back.
TEST_F(BinderIpcTest, DeathOfARelayedObjectReachesItsHolders) {
    PeerProcess& owner = startPeer({"serve", "owner"});
    sp<ITestService> relay = startService<ITestService>("serve", "relay");
    ASSERT_NE(nullptr, relay);
    sp<IBinder> relayed;
    ASSERT_TRUE(relay->lookUp("owner", &relayed).isOk());
    ASSERT_NE(nullptr, relayed);
    ASSERT_NE(nullptr, relayed->remoteBinder());
    EXPECT_NE(IInterface::asBinder(relay), relayed);
    EXPECT_EQ(3, echoed(android::interface_cast<ITestService>(relayed), 3));
    sp<DeathCounter> death = new DeathCounter();
    ASSERT_EQ(OK, relayed->linkToDeath(death));

    owner.kill(SIGKILL);
    owner.wait();
    EXPECT_EQ(1, death->wait(1));
    EXPECT_FALSE(relayed->isBinderAlive());
    EXPECT_EQ(android::DEAD_OBJECT, relayed->pingBinder());
    sp<IBinder> again;
    ASSERT_TRUE(relay->echoBinder(relayed, &again).isOk());
    EXPECT_EQ(relayed, again);
    EXPECT_EQ(4, echoed(relay, 4));
}

TEST_F(BinderIpcTest, ServiceIsToldWhenAClientDies) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    PeerProcess& client = startPeer({"keep", "test"});
    ASSERT_EQ("ready", client.readLine());
    ASSERT_TRUE(service->watchKeptCallback().isOk());
    client.kill(SIGKILL);
    client.wait();
    int32_t deaths = 0;
    ASSERT_TRUE(service->deaths(1, &deaths).isOk());
    EXPECT_EQ(1, deaths);
}

TEST_F(BinderIpcTest, ObjectIdentitySurvivesRoundTrips) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    sp<IBinder> root = IInterface::asBinder(service);

    sp<Callback> callback = new Callback();
    sp<Callback> other = new Callback();
    sp<ITestCallback> returned;
    ASSERT_TRUE(service->echoCallback(callback, &returned).isOk());
    EXPECT_EQ(IInterface::asBinder(callback), IInterface::asBinder(returned));
    EXPECT_EQ(callback.get(), returned.get());

    sp<IBinder> self1;
    sp<IBinder> self2;
    ASSERT_TRUE(service->self(&self1).isOk());
    ASSERT_TRUE(service->self(&self2).isOk());
    EXPECT_EQ(self1, self2);
    EXPECT_EQ(root, self1);

    bool same = false;
    ASSERT_TRUE(
            service->isSame(IInterface::asBinder(callback), IInterface::asBinder(callback), &same)
                    .isOk());
    EXPECT_TRUE(same);
    ASSERT_TRUE(service->isSame(IInterface::asBinder(callback), IInterface::asBinder(other), &same)
                        .isOk());
    EXPECT_FALSE(same);
    bool isSelf = false;
    ASSERT_TRUE(service->isSelf(root, &isSelf).isOk());
    EXPECT_TRUE(isSelf);
    ASSERT_TRUE(service->isSelf(IInterface::asBinder(other), &isSelf).isOk());
    EXPECT_FALSE(isSelf);

    // A proxy handed to a third process is relayed through this one and comes back as itself.
    sp<ITestService> second = startService<ITestService>("serve", "second");
    ASSERT_NE(nullptr, second);
    sp<IBinder> relayed;
    ASSERT_TRUE(second->echoBinder(root, &relayed).isOk());
    EXPECT_EQ(root, relayed);
    ASSERT_TRUE(second->isSame(root, root, &same).isOk());
    EXPECT_TRUE(same);

    // A proxy the service obtained earlier and a new lookup of the same service are one object.
    EXPECT_EQ(root, android::defaultServiceManager()->checkService(String16("test")));
    EXPECT_EQ(String16("binder.test.ITestService"), root->getInterfaceDescriptor());
}

// getExtension answers locally for a local object and through EXTENSION_TRANSACTION for a proxy:
// the extension arrives as a proxy of its own (the same one every time), null when none is set.
TEST_F(BinderIpcTest, ExtensionsAreFoundLocallyAndThroughProxies) {
    sp<ITestService> extended = startService<ITestService>("serve-extended", "extended");
    sp<ITestService> plainService = startService<ITestService>("serve", "plain-service");
    ASSERT_NE(nullptr, extended);
    ASSERT_NE(nullptr, plainService);
    sp<IBinder> root = IInterface::asBinder(extended);

    sp<IBinder> extension;
    ASSERT_EQ(OK, root->getExtension(&extension));
    ASSERT_NE(nullptr, extension);
    EXPECT_NE(root, extension);
    EXPECT_EQ(String16("binder.test.ITestService"), extension->getInterfaceDescriptor());
    EXPECT_EQ(9, echoed(android::interface_cast<ITestService>(extension), 9));
    sp<IBinder> again;
    ASSERT_EQ(OK, root->getExtension(&again));
    EXPECT_EQ(extension, again);

    // Objects without an extension, remote and local, give null; setting one makes it appear.
    sp<IBinder> none = new android::BBinder();
    for (const sp<IBinder>& object : {extension, IInterface::asBinder(plainService), none}) {
        sp<IBinder> found = root;
        EXPECT_EQ(OK, object->getExtension(&found));
        EXPECT_EQ(nullptr, found);
    }
    sp<Callback> callback = new Callback();
    none->localBinder()->setExtension(IInterface::asBinder(callback));
    sp<IBinder> local;
    ASSERT_EQ(OK, none->getExtension(&local));
    EXPECT_EQ(IInterface::asBinder(callback), local);
    EXPECT_EQ(android::BAD_VALUE, root->getExtension(nullptr));
}

TEST_F(BinderIpcTest, ServiceSeesTheCallersKernelIdentity) {
    EXPECT_EQ(getuid(), android::IPCThreadState::self()->getCallingUid());
    EXPECT_EQ(getpid(), android::IPCThreadState::self()->getCallingPid());
    sp<TestService> local = new TestService();
    ASSERT_EQ(OK, android::defaultServiceManager()->addService(String16("local"), local));

    PeerProcess& app = startPeer({"call-uid", "local"}, 54321);
    EXPECT_EQ("54321 " + std::to_string(app.pid()), app.readLine());
    EXPECT_EQ(0, app.wait());
    PeerProcess& rootClient = startPeer({"call-uid", "local"});
    EXPECT_EQ("0 " + std::to_string(rootClient.pid()), rootClient.readLine());
    EXPECT_EQ(0, rootClient.wait());

    // In-process calls keep the caller's identity.
    int32_t uid = -1;
    ASSERT_TRUE(local->callingUid(&uid).isOk());
    EXPECT_EQ(static_cast<int32_t>(getuid()), uid);
    EXPECT_EQ(local.get(), android::defaultServiceManager()->checkService(String16("local")).get());
}

TEST_F(BinderIpcTest, DumpWritesThroughTheCallersDescriptor) {
    sp<ITestService> service = startService<ITestService>("serve", "test");
    ASSERT_NE(nullptr, service);
    android::Vector<String16> args;
    args.add(String16("a"));
    args.add(String16("b\xc3\xa9"));
    EXPECT_EQ("dump a,b\xc3\xa9 uid=0\n", capturedText([&](int fd) {
                  EXPECT_EQ(OK, IInterface::asBinder(service)->dump(fd, args));
              }));
}

TEST_F(BinderIpcTest, GetServiceWaitsForALateServiceAndCheckServiceDoesNot) {
    sp<android::IServiceManager> sm = android::defaultServiceManager();
    EXPECT_EQ(nullptr, sm->checkService(String16("late")));
    EXPECT_EQ(nullptr, sm->checkService(String16("../escape")));
    EXPECT_EQ(android::BAD_VALUE, sm->addService(String16("a/b"), new android::BBinder()));
    EXPECT_EQ(android::BAD_VALUE, sm->addService(String16(""), new android::BBinder()));

    PeerProcess& late = startPeer({"serve", "late", "1500"});
    EXPECT_EQ(nullptr, sm->checkService(String16("late")));
    sp<IBinder> binder = sm->getService(String16("late"));
    ASSERT_NE(nullptr, binder);
    sp<ITestService> service = android::interface_cast<ITestService>(binder);
    EXPECT_EQ(3, echoed(service, 3));
    const android::Vector<String16> listed = sm->listServices();
    ASSERT_EQ(1u, listed.size());
    EXPECT_EQ(String16("late"), listed[0]);

    // A service whose process is gone leaves a socket nobody answers: not found, not listed.
    late.kill(SIGKILL);
    late.wait();
    service.clear();
    binder.clear();
    EXPECT_EQ(nullptr, sm->checkService(String16("late")));
    EXPECT_EQ(0u, sm->listServices().size());

    // A restarted service is found again, and the first call to it goes through.
    startPeer({"serve", "late"});
    service = android::interface_cast<ITestService>(sm->getService(String16("late")));
    ASSERT_NE(nullptr, service);
    EXPECT_EQ(4, echoed(service, 4));
}

class BinderPermissionTest : public BinderTest {};

TEST_F(BinderPermissionTest, RootAndSelfAreGrantedOthersAskThePermissionService) {
    const String16 permission("com.example.permission.READ");
    const String16 other("com.example.permission.OTHER");
    // No "permission" service: only root and the process itself pass.
    EXPECT_TRUE(android::PermissionCache::checkPermission(permission, 1, 0));
    EXPECT_TRUE(android::PermissionCache::checkPermission(permission, getpid(), 12345));
    EXPECT_FALSE(android::PermissionCache::checkPermission(permission, 1, 12345));
    EXPECT_TRUE(android::PermissionCache::checkCallingPermission(permission));

    PeerProcess& controller =
            startPeer({"serve-permission", "permission", "12345", "com.example.permission.READ"});
    ASSERT_NE(nullptr, android::defaultServiceManager()->getService(String16("permission")));
    EXPECT_TRUE(android::PermissionCache::checkPermission(permission, 1, 12345));
    EXPECT_EQ("asked 12345", controller.readLine());
    EXPECT_FALSE(android::PermissionCache::checkPermission(other, 1, 12345));
    EXPECT_EQ("asked 12345", controller.readLine());
    EXPECT_FALSE(android::PermissionCache::checkPermission(permission, 1, 12346));
    EXPECT_EQ("asked 12346", controller.readLine());

    // A grant is remembered for the uid, whatever the pid; a refusal is asked again, and a purge
    // makes the next check ask.
    EXPECT_TRUE(android::PermissionCache::checkPermission(permission, 2, 12345));
    EXPECT_FALSE(android::PermissionCache::checkPermission(permission, 1, 12346));
    EXPECT_EQ("asked 12346", controller.readLine());
    android::PermissionCache::purgeCache();
    EXPECT_TRUE(android::PermissionCache::checkPermission(permission, 1, 12345));
    EXPECT_EQ("asked 12345", controller.readLine());

    // The grants of a permission service die with it: its successor decides anew.
    sp<IBinder> first = android::defaultServiceManager()->checkService(String16("permission"));
    sp<DeathCounter> death = new DeathCounter();
    ASSERT_EQ(OK, first->linkToDeath(death));
    controller.kill(SIGKILL);
    controller.wait();
    ASSERT_EQ(1, death->wait(1));
    EXPECT_FALSE(android::PermissionCache::checkPermission(permission, 1, 12345));
    PeerProcess& successor =
            startPeer({"serve-permission", "permission", "12346", "com.example.permission.READ"});
    ASSERT_NE(nullptr, android::defaultServiceManager()->getService(String16("permission")));
    EXPECT_FALSE(android::PermissionCache::checkPermission(permission, 1, 12345));
    EXPECT_EQ("asked 12345", successor.readLine());
    EXPECT_TRUE(android::PermissionCache::checkPermission(permission, 1, 12346));
    EXPECT_EQ("asked 12346", successor.readLine());

    // The calling identity of a real client decides, as the service sees it.
    startPeer({"serve", "test"});
    ASSERT_NE(nullptr, android::defaultServiceManager()->getService(String16("test")));
    PeerProcess& app = startPeer({"check-permission", "test", "com.example.permission.READ",
                                  "com.example.permission.OTHER"},
                                 12346);
    EXPECT_EQ("1", app.readLine());
    EXPECT_EQ("0", app.readLine());
    EXPECT_EQ(0, app.wait());
    PeerProcess& stranger =
            startPeer({"check-permission", "test", "com.example.permission.READ"}, 12345);
    EXPECT_EQ("0", stranger.readLine());
    EXPECT_EQ(0, stranger.wait());
    PeerProcess& root = startPeer({"check-permission", "test", "com.example.permission.OTHER"});
    EXPECT_EQ("1", root.readLine());
    EXPECT_EQ(0, root.wait());
}

// A restricted name is trusted only from the uids it is restricted to (by the kernel's
// credentials of the server's socket); "permission" starts restricted to root and this process.
TEST_F(BinderPermissionTest, RestrictedNamesAreTrustedOnlyFromTheirServerUids) {
    const String16 permission("com.example.permission.READ");
    const sp<android::IServiceManager> services = android::defaultServiceManager();
    // A directory everybody may write, so an app can publish the names.
    ASSERT_EQ(0, chmod(mDir.path().c_str(), 01777));
    startPeer({"serve", "impostor"}, 12345);
    PeerProcess& controller = startPeer(
            {"serve-permission", "permission", "12345", "com.example.permission.READ"}, 12345);
    const sp<IBinder> impostor = services->getService(String16("impostor"));
    ASSERT_NE(nullptr, impostor);
    uid_t server = 0;
    ASSERT_TRUE(android::getServerUid(impostor, &server));
    EXPECT_EQ(12345u, server);
    ASSERT_TRUE(android::getServerUid(new android::BBinder(), &server));
    EXPECT_EQ(geteuid(), server);
    struct stat st {};
    ASSERT_TRUE(eventually([&] { return stat(mDir.file("permission").c_str(), &st) == 0; }));

    LogCapture log;
    EXPECT_FALSE(android::PermissionCache::checkPermission(permission, 1, 12345));
    EXPECT_EQ(nullptr, services->checkService(String16("permission")));
    services->setTrustedServerUids(String16("impostor"), {0});
    EXPECT_EQ(nullptr, services->checkService(String16("impostor")));
    EXPECT_FALSE(services->isDeclared(String16("impostor")));
    const std::string text = log.text();
    for (const char* name : {"permission", "impostor"}) {
        EXPECT_EQ(1, countLines(text, std::string("Binder: ignoring the service ") + name +
                                              ": it is served by uid 12345, which is not "
                                              "trusted to serve it"))
                << text;
    }

    services->setTrustedServerUids(String16("impostor"), {0, 12345});
    EXPECT_EQ(impostor, services->checkService(String16("impostor")));
    services->setTrustedServerUids(String16("permission"), {0, 12345});
    EXPECT_TRUE(android::PermissionCache::checkPermission(permission, 1, 12345));
    EXPECT_EQ("asked 12345", controller.readLine());
    services->setTrustedServerUids(String16("permission"), {0, geteuid()});
}

}  // namespace
}  // namespace Halo::OS::testing
