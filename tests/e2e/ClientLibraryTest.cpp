// The client library against the real daemon, in this (root) process.
#include "client/PreferencesClient.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "e2e/DeviceTest.h"
#include "e2e/TestPackages.h"
#include "support/FdCapture.h"

namespace Halo::OS::testing {
namespace {

class ClientLibraryTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        writePackageFile("alpha.json", TestPackages::alpha());
        startAppInfo();
        startDaemon();
        ASSERT_TRUE(eventually([this] { return prefs({"type", "alpha_count"}).status == 0; }));
        mClient = PreferencesClient::connect();
        ASSERT_NE(nullptr, mClient);
    }
    void TearDown() override {
        mClient.reset();
        DeviceTest::TearDown();
    }

    std::string dumpText(const std::vector<std::string>& args) {
        return capturedText([&](int fd) { EXPECT_TRUE(mClient->dump(fd, args).isOk()); });
    }

    std::unique_ptr<PreferencesClient> mClient;
};

// Every type, flavour and the generic calls reach the daemon through the prefs tool, which uses
// this library (ScenarioTest); here is what only a library caller sees.
TEST_F(ClientLibraryTest, TypedCallsKeepUtf8AndRefusalsLeaveTheOutValueAlone) {
    PreferencesClient& client = *mClient;
    EXPECT_TRUE(client.setString("alpha_label", "h\xc3\xa9llo \xe2\x82\xac").isOk());
    std::string label;
    EXPECT_TRUE(client.getString("alpha_label", &label).isOk());
    EXPECT_EQ("h\xc3\xa9llo \xe2\x82\xac", label);

    int32_t count = 77;
    EXPECT_EQ(PreferencesStatus::serviceSpecific(-9), client.getInteger("no_such_key", &count));
    EXPECT_EQ(77, count);
    EXPECT_EQ(PreferencesStatus::serviceSpecific(-8), client.setFloat("alpha_count", 1.0f));
    EXPECT_EQ(PreferencesStatus::exception(-3), client.profile("no-such-command"));
    EXPECT_TRUE(client.profile("start-profiling").isOk());
}

TEST_F(ClientLibraryTest, WatchesDeliverUntilDestroyedAndDeathIsReported) {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::vector<std::string>> calls;
    PreferencesStatus status;
    std::unique_ptr<PreferencesWatch> watch = mClient->watch(
            {"alpha_count", "alpha_label"},
            [&](const std::vector<std::string>& keys) {
                std::lock_guard<std::mutex> lock(mutex);
                calls.push_back(keys);
                changed.notify_all();
            },
            &status);
    ASSERT_NE(nullptr, watch) << status.toString();
    const std::string pidLine = "pid: " + std::to_string(getpid()) + ",";
    EXPECT_NE(std::string::npos, dumpText({"nodb"}).find(pidLine));

    ASSERT_TRUE(mClient->setInteger("alpha_count", 4).isOk());
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(
                changed.wait_for(lock, std::chrono::minutes(1), [&] { return !calls.empty(); }));
        EXPECT_EQ((std::vector<std::string>{"alpha_count"}), calls[0]);
    }
    watch.reset();
    EXPECT_EQ(std::string::npos, dumpText({"nodb"}).find(pidLine))
            << "a destroyed watch left its listener registered";

    std::mutex deathMutex;
    std::condition_variable deathSeen;
    bool died = false;
    mClient->setOnServiceDied([&] {
        std::lock_guard<std::mutex> lock(deathMutex);
        died = true;
        deathSeen.notify_all();
    });
    EXPECT_TRUE(mClient->isAlive());
    stopDaemon();
    {
        std::unique_lock<std::mutex> lock(deathMutex);
        EXPECT_TRUE(deathSeen.wait_for(lock, std::chrono::minutes(1), [&] { return died; }));
    }
    EXPECT_FALSE(mClient->isAlive());
    int32_t count = 0;
    EXPECT_EQ(PreferencesStatus::Kind::Unreachable,
              mClient->getInteger("alpha_count", &count).kind());

    PreferencesStatus absent;
    EXPECT_EQ(nullptr, PreferencesClient::tryConnect(PreferencesClient::kServiceName, &absent));
    EXPECT_EQ(PreferencesStatus::Kind::Unreachable, absent.kind());
}

}  // namespace
}  // namespace Halo::OS::testing
