#include <binder/IServiceManager.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include <thread>

#include "keymanager/KeyManagerFixture.h"
#include "keymanager/PreferencesListener.h"
#include "support/ChildProcess.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using lumen::preferences::IPreferencesListener;
using testing::ChildProcess;
using testing::KeyManagerTest;
using Type = PreferencesKeyInfo::Type;
using namespace std::chrono_literals;

constexpr auto kLineTimeout = 5s;

class KeyManagerNotificationTest : public KeyManagerTest {
protected:
    void SetUp() override {
        KeyManagerTest::SetUp();
        ASSERT_TRUE(apply(testing::schemaListJson(
                true, {testing::schemaJson(10001, "p",
                                           {{"a"}, {"b"}, {"c"}, {"gate"}, {"unwatched"}})})));
    }

    // Starts a listener process published as `name` and returns a proxy to its listener.
    android::sp<IPreferencesListener> startListener(std::unique_ptr<ChildProcess>& child,
                                                    const std::string& name) {
        child = std::make_unique<ChildProcess>(std::vector<std::string>{LISTENER_PROCESS, name});
        EXPECT_EQ("ready", child->readLine(kLineTimeout).value_or("(nothing)"));
        android::sp<android::IBinder> binder =
                android::defaultServiceManager()->getService(android::String16(name.c_str()));
        EXPECT_NE(nullptr, binder);
        return android::interface_cast<IPreferencesListener>(binder);
    }

    // Waits for the first telemetry event `name` (death notices arrive on a binder thread).
    static void waitForEvent(const char* name) {
        testing::eventually([name] { return Telemetry::count(name) != 0; }, 5s);
    }

    void set(const std::string& key, const std::string& value) {
        mAccess->setCaller(0);
        ASSERT_EQ(0, mManager->set(key, value, Type::Integer)) << key;
    }
};

TEST_F(KeyManagerNotificationTest, ChangesArriveSortedOncePerPassAndOnlyForWatchedKeys) {
    std::unique_ptr<ChildProcess> child;
    android::sp<IPreferencesListener> listener = startListener(child, "listener.order");
    ASSERT_NE(nullptr, listener);
    ASSERT_EQ(0, mManager->registerListener(listener, {"b", "a", "c"}, false));

    set("a", "1");
    EXPECT_EQ("a", child->readLine(kLineTimeout).value_or("(nothing)"));

    // Hold the main mutex so that the callback thread takes "gate", drains the queue and then
    // waits for the mutex; everything queued meanwhile is handled in its next pass.
    {
        Mutex& mutex = PreferencesKeyManagerTestPeer::mutex(*mManager);
        Mutex::Autolock lock(mutex);
        PreferencesKeyManagerTestPeer::enqueue(*mManager, "gate");
        while (PreferencesKeyManagerTestPeer::queued(*mManager) != 0) std::this_thread::yield();
        std::this_thread::sleep_for(100ms);  // let it finish draining and block on the mutex
        for (const char* key : {"b", "unwatched", "a", "b", "b"}) {
            PreferencesKeyManagerTestPeer::enqueue(*mManager, key);
        }
    }
    EXPECT_EQ("a b", child->readLine(kLineTimeout).value_or("(nothing)"));

    // A change nobody watches produces no call: the next line is the next watched change.
    set("unwatched", "5");
    set("c", "3");
    EXPECT_EQ("c", child->readLine(kLineTimeout).value_or("(nothing)"));

    // After unregistering, nothing more arrives.
    ASSERT_EQ(0, mManager->unregisterListener(0, listener));
    set("a", "2");
    EXPECT_FALSE(child->readLine(300ms).has_value());
    EXPECT_EQ(-6, mManager->unregisterListener(0, listener));
}

TEST_F(KeyManagerNotificationTest, EveryListenerOfAChangedKeyIsNotified) {
    using testing::RecordingListener;
    const android::sp<RecordingListener> listeners[] = {new RecordingListener,
                                                        new RecordingListener,
                                                        new RecordingListener};
    ASSERT_EQ(0, mManager->registerListener(listeners[0], {"a"}, false));
    ASSERT_EQ(0, mManager->registerListener(listeners[1], {"b", "a"}, false));
    ASSERT_EQ(0, mManager->registerListener(listeners[2], {"a", "c"}, false));
    set("a", "1");
    for (const auto& listener : listeners) {
        EXPECT_EQ(std::vector<android::String16>{android::String16("a")}, listener->firstCall());
    }
}

TEST_F(KeyManagerNotificationTest, DeadListenerIsUnregisteredOnceAndItsRowsGo) {
    std::unique_ptr<ChildProcess> child;
    android::sp<IPreferencesListener> listener = startListener(child, "listener.dies");
    ASSERT_NE(nullptr, listener);
    ASSERT_EQ(0, mManager->registerListener(listener, {"a"}, false));
    Telemetry::resetCounts();

    child->kill();
    child->wait();
    // The death notice arrives on a binder thread; wait for it to take effect.
    waitForEvent("unregister_listener_success");
    EXPECT_EQ(1u, Telemetry::count("connection_to_preferences_manager_lost"));
    EXPECT_EQ(1u, Telemetry::count("unregister_listener_success"));
    EXPECT_EQ(0u, Telemetry::count("listener_promotion_failure"));
    // The rows are gone: a set of the key finds nobody, and unregistering again finds nothing.
    set("a", "9");
    EXPECT_EQ(-6, mManager->unregisterListener(0, listener));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(1u, Telemetry::count("connection_to_preferences_manager_lost"));
}

TEST_F(KeyManagerNotificationTest, DeathAfterTheManagerIsGoneReachesNothing) {
    // A record whose client dies after the key manager went away: the notice must not reach the
    // manager (under ASan a call would be a use after free).
    std::unique_ptr<ChildProcess> child;
    android::sp<IPreferencesListener> listener = startListener(child, "listener.orphan");
    ASSERT_NE(nullptr, listener);
    android::sp<PreferencesListener> record =
            new PreferencesListener(mManager.get(), listener, {"a"}, 1, 0, 77);
    record->detach();
    mManager.reset();
    Telemetry::resetCounts();

    child->kill();
    child->wait();
    waitForEvent("connection_to_preferences_manager_lost");
    EXPECT_EQ(1u, Telemetry::count("connection_to_preferences_manager_lost"));
    EXPECT_EQ(0u, Telemetry::count("unregister_listener_success"));
}

TEST_F(KeyManagerNotificationTest, StoppedListenerCannotBlockOthersOrTheService) {
    std::unique_ptr<ChildProcess> stopped;
    std::unique_ptr<ChildProcess> healthy;
    android::sp<IPreferencesListener> stalled = startListener(stopped, "listener.stopped");
    android::sp<IPreferencesListener> live = startListener(healthy, "listener.live");
    ASSERT_NE(nullptr, stalled);
    ASSERT_NE(nullptr, live);
    ASSERT_EQ(0, mManager->registerListener(stalled, {"a", "b"}, false));
    ASSERT_EQ(0, mManager->registerListener(live, {"b", "c"}, false));

    // The stopped process reads nothing, so its socket fills up.
    stopped->kill(SIGSTOP);
    for (int i = 0; i < 3000; ++i) {
        set(i % 2 == 0 ? "a" : "b", std::to_string(i));
    }
    // The live listener gets its passes of "b" (any number, at least one), and after them the
    // change of "c" that only it watches; the service kept answering meanwhile.
    int passes = 0;
    std::optional<std::string> line;
    while ((line = healthy->readLine(kLineTimeout)).has_value() && *line == "b") ++passes;
    EXPECT_GT(passes, 0);
    EXPECT_FALSE(line.has_value()) << *line;
    set("c", "1");
    EXPECT_EQ("c", healthy->readLine(kLineTimeout).value_or("(nothing)"));
    std::string value;
    EXPECT_EQ(0, rootGet("a", value, Type::Integer));
    EXPECT_EQ("2998", value);
    stopped->kill(SIGKILL);
}

TEST_F(KeyManagerNotificationTest, StressSetsSchemasAndListenersTogether) {
    constexpr int kWriters = 3;
    constexpr int kRounds = 200;
    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([this, w] {
            const std::string key = std::string(1, "abc"[w]);
            for (int i = 0; i < kRounds; ++i) {
                std::string value;
                EXPECT_EQ(0,
                          mManager->setWithoutCallback(key, std::to_string(i), Type::Integer, 0));
                EXPECT_EQ(0, mManager->set(key, std::to_string(i), Type::Integer, 0));
                EXPECT_EQ(0, mManager->getWithoutPermissionCheck(key, value, Type::Integer, 0));
            }
        });
    }
    threads.emplace_back([this] {
        for (int i = 0; i < kRounds / 4; ++i) {
            const std::string package = "churn" + std::to_string(i % 5);
            EXPECT_TRUE(apply(R"({"add": true, "schemas": [{"uid": 10050, "packageName": ")" +
                              package + R"(", "contents": [{"key": ")" + package +
                              R"(.k", "type": "long", "default": "1"}]}]})"));
            EXPECT_TRUE(apply(R"({"add": false, "schemas": [{"uid": 10050, "packageName": ")" +
                              package + R"("}]})"));
        }
    });
    threads.emplace_back([this] {
        for (int i = 0; i < kRounds / 4; ++i) {
            android::sp<testing::RecordingListener> listener = new testing::RecordingListener;
            EXPECT_EQ(0, mManager->registerListener(listener, {"a", "b", "c"}, false));
            std::this_thread::yield();
            EXPECT_EQ(0, mManager->unregisterListener(0, listener));
        }
    });
    for (auto& thread : threads) thread.join();

    for (int w = 0; w < kWriters; ++w) {
        EXPECT_EQ(std::to_string(kRounds - 1), rootValue(std::string(1, "abc"[w]), Type::Integer));
    }
    std::string value;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(-9, rootGet("churn" + std::to_string(i) + ".k", value, Type::Long));
    }
    // Every listener is gone.
    EXPECT_EQ(-6, mManager->unregisterListener(0, new testing::RecordingListener));
}

}  // namespace
}  // namespace Halo::OS
