// Callers that try to make the key manager keep what they leave behind, open databases of users
// the device does not have, or hold its mutex through a dump they never read.
#include <cutils/multiuser.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <optional>
#include <thread>

#include "keymanager/KeyManagerFixture.h"
#include "support/ChildProcess.h"
#include "support/FdCapture.h"
#include "support/LogCapture.h"

namespace Halo::OS {
namespace {

using testing::capturedText;
using testing::eventually;
using testing::KeyManagerTest;
using testing::RecordingListener;
using Type = PreferencesKeyInfo::Type;
using namespace std::chrono_literals;

constexpr uid_t kApp = 10001;

class KeyManagerHostileCallerTest : public KeyManagerTest {
protected:
    void SetUp() override {
        KeyManagerTest::SetUp();
        ASSERT_TRUE(apply(testing::schemaListJson(
                true,
                {testing::schemaJson(kApp, "p",
                                     {{"a"}, {"b"}, {"c"}, {"x", "integer", "0", "crossUser"}})})));
    }
    int count(const std::string& text, const std::string& needle) {
        int n = 0;
        for (size_t at = text.find(needle); at != std::string::npos;
             at = text.find(needle, at + 1)) {
            ++n;
        }
        return n;
    }
    int rows() {
        return count(capturedText([&](int fd) { mManager->dumpDb(fd); }), "  > Listener: ");
    }
    int records() {
        return count(capturedText([&](int fd) { mManager->dump(fd); }), "        uuid: ");
    }
    int userFiles() {
        int files = 0;
        for (const auto& entry : std::filesystem::directory_iterator(mDir.path())) {
            files += entry.path().filename().string().rfind("user", 0) == 0;
        }
        return files;
    }
};

TEST_F(KeyManagerHostileCallerTest, RefusedRegistrationsLeaveNoRowsAndNoRecord) {
    struct Case {
        std::vector<std::string> keys;
        bool fromAnotherProcess;  // which hands in an object of this process
    };
    for (const Case& c : {Case{{"a", "a"}, false}, Case{{"a", "b", "c", "b"}, false},
                          Case{{"a", "b"}, true}, Case{{}, true}}) {
        mAccess->setCaller(0, c.fromAnotherProcess ? getppid() : getpid());
        EXPECT_EQ(-13, mManager->registerListener(new RecordingListener, c.keys, false));
        EXPECT_EQ(0, rows());
        EXPECT_EQ(0, records());
    }
    mAccess->setCaller(0);
    ASSERT_EQ(0, mManager->registerListener(new RecordingListener, {"a", "b"}, false));
    EXPECT_EQ(2, rows());
    EXPECT_NE(std::string::npos,
              capturedText([&](int fd) { mManager->dump(fd); }).find("uid: 0, uuid: 1\n"));
}

TEST_F(KeyManagerHostileCallerTest, ListenerWithoutRowsKeepsItsIdAndGoesWhenUnregistered) {
    android::sp<RecordingListener> keyless = new RecordingListener;
    android::sp<RecordingListener> keyed = new RecordingListener;
    ASSERT_EQ(0, mManager->registerListener(keyless, {}, false));
    ASSERT_EQ(0, mManager->registerListener(keyed, {"a"}, false));
    const std::string dump = capturedText([&](int fd) { mManager->dump(fd); });
    EXPECT_NE(std::string::npos,
              dump.find("uid: 0, uuid: 1\n          keys: \n            no keys\n"))
            << dump;
    EXPECT_NE(std::string::npos, dump.find("uid: 0, uuid: 2\n          keys: \n            a\n"))
            << dump;
    ASSERT_EQ(0, mManager->set("a", "5", Type::Integer));
    EXPECT_EQ(std::vector<android::String16>{android::String16("a")}, keyed->firstCall());

    // Without rows the listener is unknown to the store (-6), but its record goes.
    EXPECT_EQ(-6, mManager->unregisterListener(0, keyless));
    EXPECT_EQ(1, records());
}

TEST_F(KeyManagerHostileCallerTest, UsersTheDeviceDoesNotHaveAreRefusedAndGetNoDatabase) {
    std::string value;
    mAccess->setCaller(kApp);
    testing::LogCapture log;
    // The uid of 42950 (and of 2147483647 and 4294967295) in an app wraps around to another
    // user: 42950 to user 0. Callers of such uids are simply of that other user.
    for (unsigned int user : {777u, 10u, 42950u, 2147483647u, 4294967295u}) {
        EXPECT_EQ(-9, mManager->getUser("x", value, Type::Integer, user)) << user;
        EXPECT_EQ(-8, mManager->setUser("x", "1", Type::Integer, user)) << user;
        if (multiuser_get_user_id(multiuser_get_uid(user, kApp)) != user) continue;
        mAccess->setCaller(multiuser_get_uid(user, kApp));
        EXPECT_EQ(-9, mManager->get("x", value, Type::Integer)) << user;
        EXPECT_EQ(-8, mManager->set("x", "1", Type::Integer)) << user;
        EXPECT_EQ(-8, mManager->reset("x")) << user;
        EXPECT_EQ(-9, mManager->registerListener(new RecordingListener, {"x"}, false)) << user;
        mAccess->setCaller(kApp);
    }
    EXPECT_TRUE(log.contains("x: get denied, user 777 does not exist on this device"));
    EXPECT_EQ(0, userFiles());
    EXPECT_EQ(0, records());

    // User 0 always exists; a list that names user 10 brings it in.
    EXPECT_EQ(0, mManager->setUser("x", "3", Type::Integer, 0));
    mAccess->setCaller(0);
    ASSERT_EQ(0, mManager->userList({0, 10}));
    mAccess->setCaller(kApp);
    EXPECT_EQ(0, mManager->setUser("x", "4", Type::Integer, 10));
    EXPECT_EQ(-8, mManager->setUser("x", "4", Type::Integer, 777));
    // At the next start, before any list, the users that have a database exist.
    restart();
    mAccess->setCaller(kApp);
    EXPECT_EQ(0, mManager->getUser("x", value, Type::Integer, 10));
    EXPECT_EQ("4", value);
    EXPECT_EQ(-9, mManager->getUser("x", value, Type::Integer, 777));
}

TEST_F(KeyManagerHostileCallerTest, DumpReaderThatDoesNotReadHoldsUpNobody) {
    std::vector<testing::KeyJson> keys;
    for (int i = 0; i < 150; ++i) keys.emplace_back("filler." + std::to_string(i));
    ASSERT_TRUE(apply(testing::schemaListJson(true, {testing::schemaJson(kApp, "r", keys)})));
    const std::string expected = capturedText([&](int fd) { mManager->dumpDb(fd); });
    ASSERT_GT(expected.size(), 8192u);

    for (const std::chrono::milliseconds timeout : {600000ms, 200ms}) {
        mManager->setDumpTimeout(timeout);
        int pipeFds[2];
        ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
        ASSERT_EQ(4096, fcntl(pipeFds[1], F_SETPIPE_SZ, 4096));
        std::atomic<bool> dumped{false};
        std::thread dumper([&] {
            mManager->dumpDb(pipeFds[1]);
            dumped = true;
        });
        // The reader reads nothing until the pipe is full and another caller has been served.
        EXPECT_TRUE(eventually([&] {
            int queued = 0;
            return ioctl(pipeFds[0], FIONREAD, &queued) == 0 && queued == 4096;
        }));
        std::atomic<bool> served{false};
        std::thread reader([&] {
            std::string value;
            EXPECT_EQ(0, mManager->get("b", value, Type::Integer));
            served = true;
        });
        EXPECT_TRUE(eventually([&] { return served.load(); }, 60s));
        if (timeout == 200ms) EXPECT_TRUE(eventually([&] { return dumped.load(); }, 60s));
        std::string text;
        char buffer[4096];
        fcntl(pipeFds[0], F_SETFL, O_NONBLOCK);
        for (;;) {
            const bool done = dumped;
            const ssize_t n = read(pipeFds[0], buffer, sizeof(buffer));
            if (n > 0) {
                text.append(buffer, static_cast<size_t>(n));
            } else if (done) {
                break;
            } else {
                std::this_thread::sleep_for(10ms);
            }
        }
        dumper.join();
        reader.join();
        close(pipeFds[0]);
        close(pipeFds[1]);
        if (timeout == 600000ms) {
            EXPECT_EQ(expected, text);
        } else {
            EXPECT_EQ(expected.substr(0, 4096), text);
        }
    }
}

}  // namespace
}  // namespace Halo::OS
