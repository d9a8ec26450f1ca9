// The client library against the real daemon, in this (root) process.
#include "client/PreferencesClient.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "e2e/DeviceTest.h"
#include "e2e/TestPackages.h"

namespace Halo::OS::testing {
namespace {

class ClientLibraryTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        writePackageFile("alpha.json", TestPackages::alpha());
        writePackageFile("users.json", "{\"users\": [0, 10], \"current\": 10}");
        startAppInfo();
        startDaemon();
        // users.json is read before the daemon declares "current_user", so the key itself may
        // stay unset; the Current flavour follows the user the daemon was told about.
        ASSERT_TRUE(eventually([this] { return prefs({"type", "alpha_count"}).status == 0; }));
        mClient = PreferencesClient::connect();
        ASSERT_NE(nullptr, mClient);
    }
    void TearDown() override {
        mClient.reset();
        DeviceTest::TearDown();
    }

    std::string dumpText(const std::vector<std::string>& args) {
        FILE* file = tmpfile();
        EXPECT_TRUE(mClient->dump(fileno(file), args).isOk());
        std::string text;
        rewind(file);
        char buffer[4096];
        while (size_t n = fread(buffer, 1, sizeof(buffer), file)) text.append(buffer, n);
        fclose(file);
        return text;
    }

    std::unique_ptr<PreferencesClient> mClient;
};

TEST_F(ClientLibraryTest, TypedCallsInEveryFlavour) {
    PreferencesClient& client = *mClient;
    EXPECT_TRUE(client.setInteger("alpha_count", -5).isOk());
    EXPECT_TRUE(client.setLong("alpha_total", 1LL << 40).isOk());
    EXPECT_TRUE(client.setFloat("alpha_ratio", 0.125f).isOk());
    EXPECT_TRUE(client.setDouble("alpha_distance", 2.5).isOk());
    EXPECT_TRUE(client.setBoolean("alpha_enabled", true).isOk());
    EXPECT_TRUE(client.setString("alpha_label", "h\xc3\xa9llo").isOk());
    int32_t count = 0;
    int64_t total = 0;
    float ratio = 0;
    double distance = 0;
    bool enabled = false;
    std::string label;
    EXPECT_TRUE(client.getInteger("alpha_count", &count).isOk());
    EXPECT_TRUE(client.getLong("alpha_total", &total).isOk());
    EXPECT_TRUE(client.getFloat("alpha_ratio", &ratio).isOk());
    EXPECT_TRUE(client.getDouble("alpha_distance", &distance).isOk());
    EXPECT_TRUE(client.getBoolean("alpha_enabled", &enabled).isOk());
    EXPECT_TRUE(client.getString("alpha_label", &label).isOk());
    EXPECT_EQ(-5, count);
    EXPECT_EQ(1LL << 40, total);
    EXPECT_FLOAT_EQ(0.125f, ratio);
    EXPECT_DOUBLE_EQ(2.5, distance);
    EXPECT_TRUE(enabled);
    EXPECT_EQ("h\xc3\xa9llo", label);

    // Current (user 10) and User flavours reach other databases than the caller's (user 0).
    EXPECT_TRUE(client.setInteger("alpha_count", 10, PreferencesTarget::current()).isOk());
    EXPECT_TRUE(client.getInteger("alpha_count", &count, PreferencesTarget::user(10)).isOk());
    EXPECT_EQ(10, count);
    EXPECT_TRUE(client.getInteger("alpha_count", &count).isOk());
    EXPECT_EQ(-5, count);
    PreferenceValue value;
    EXPECT_TRUE(client.get("alpha_count", PreferenceValue::Type::Integer,
                           PreferencesTarget::current(), &value)
                        .isOk());
    EXPECT_EQ(PreferenceValue::fromInteger(10), value);
    EXPECT_TRUE(client.set("alpha_label", PreferenceValue::fromString("ten"),
                           PreferencesTarget::user(10))
                        .isOk());
    EXPECT_TRUE(client.getString("alpha_label", &label, PreferencesTarget::current()).isOk());
    EXPECT_EQ("ten", label);

    PreferenceValue::Type type;
    EXPECT_TRUE(client.getType("alpha_ratio", &type).isOk());
    EXPECT_EQ(PreferenceValue::Type::Float, type);
    EXPECT_TRUE(client.reset("alpha_count").isOk());
    EXPECT_TRUE(client.getInteger("alpha_count", &count).isOk());
    EXPECT_EQ(3, count);

    // Refusals come back with their codes and leave the out-value alone.
    count = 77;
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
