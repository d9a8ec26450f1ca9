// The service object called directly, in the test's own process (root, so the key manager grants
// every OS and key permission).
#include "service/PreferencesService.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "properties/SystemProperties.h"
#include "service/ServiceFixture.h"
#include "support/FdCapture.h"
#include "support/LogCapture.h"

namespace Halo::OS::testing {
namespace {

using android::String16;
using android::binder::Status;
using Type = PreferencesKeyInfo::Type;

TEST_F(ServiceTest, StoredTextsReadBackAsDocumented) {
    auto write = [&](const char* key, const char* text, Type type) {
        ASSERT_EQ(0, mManager->setWithoutCallback(key, text, type, 0)) << key << " " << text;
    };
    const std::pair<const char*, int32_t> integers[] = {
            {"abc", 0}, {"12abc", 12}, {" -7", -7}, {"", 0}, {"4294967297", 1}};
    for (const auto& [text, expected] : integers) {
        write("sys_integer", text, Type::Integer);
        int32_t value = -1;
        EXPECT_TRUE(mService->getInteger(String16("sys_integer"), &value).isOk()) << text;
        EXPECT_EQ(expected, value) << text;
    }
    const std::pair<const char*, int64_t> longs[] = {
            {"abc", 0}, {"-5x", -5}, {"9223372036854775807", std::numeric_limits<int64_t>::max()}};
    for (const auto& [text, expected] : longs) {
        write("sys_long", text, Type::Long);
        int64_t value = -1;
        EXPECT_TRUE(mService->getLong(String16("sys_long"), &value).isOk()) << text;
        EXPECT_EQ(expected, value) << text;
    }
    const std::pair<const char*, double> doubles[] = {
            {"abc", 0.0}, {"1e3", 1000.0}, {"0.123457", 0.123457}};
    for (const auto& [text, expected] : doubles) {
        write("sys_double", text, Type::Double);
        double value = -1;
        EXPECT_TRUE(mService->getDouble(String16("sys_double"), &value).isOk()) << text;
        EXPECT_EQ(expected, value) << text;
    }
    write("sys_float", "2.5xyz", Type::Float);
    float real = -1;
    EXPECT_TRUE(mService->getFloat(String16("sys_float"), &real).isOk());
    EXPECT_EQ(2.5f, real);

    const std::pair<const char*, bool> booleans[] = {{"true", true},  {"1", true},  {"TRUE", false},
                                                     {"True", false}, {"0", false}, {"1 ", false},
                                                     {"yes", false}};
    for (const auto& [text, expected] : booleans) {
        write("sys_boolean", text, Type::Boolean);
        bool value = !expected;
        EXPECT_TRUE(mService->getBoolean(String16("sys_boolean"), &value).isOk()) << text;
        EXPECT_EQ(expected, value) << text;
    }
    write("sys_string", "h\xc3\xa9llo \xe2\x82\xac", Type::String);
    String16 text;
    EXPECT_TRUE(mService->getString(String16("sys_string"), &text).isOk());
    EXPECT_EQ(String16(u"h\u00e9llo \u20ac"), text);
}

TEST_F(ServiceTest, NullOutValueFailsWithMinusTenBeforeTheKeyManager) {
    SystemProperties::set(kAutosleepProperty, "45");
    const int callsBefore = mAccess->calls();
    const String16 key("sys_integer");
    const String16 sleep("autosleep_time");
    const std::vector<Status> statuses = {mService->getInteger(sleep, nullptr),
                                          mService->getType(sleep, nullptr),
                                          mService->getInteger(key, nullptr),
                                          mService->getDouble(key, nullptr),
                                          mService->getString(key, nullptr),
                                          mService->getLong(key, nullptr),
                                          mService->getBoolean(key, nullptr),
                                          mService->getFloat(key, nullptr),
                                          mService->getIntegerCurrent(key, nullptr),
                                          mService->getDoubleCurrent(key, nullptr),
                                          mService->getStringCurrent(key, nullptr),
                                          mService->getLongCurrent(key, nullptr),
                                          mService->getBooleanCurrent(key, nullptr),
                                          mService->getFloatCurrent(key, nullptr),
                                          mService->getIntegerUser(key, 0, nullptr),
                                          mService->getDoubleUser(key, 0, nullptr),
                                          mService->getStringUser(key, 0, nullptr),
                                          mService->getLongUser(key, 0, nullptr),
                                          mService->getBooleanUser(key, 0, nullptr),
                                          mService->getFloatUser(key, 0, nullptr),
                                          mService->getType(key, nullptr)};
    for (size_t i = 0; i < statuses.size(); ++i) {
        EXPECT_EQ(Status::EX_SERVICE_SPECIFIC, statuses[i].exceptionCode()) << i;
        EXPECT_EQ(-10, statuses[i].serviceSpecificErrorCode()) << i;
    }
    EXPECT_EQ(callsBefore, mAccess->calls());
}

TEST_F(ServiceTest, ListenerKeysAreCutAtNulAndResultsMapToStatuses) {
    mAccess->setCaller(kAppUid);
    android::sp<RecordingListener> listener = new RecordingListener();
    const std::vector<String16> keys = {String16("sys_long\0ignored", 16), String16("sys_float")};
    ASSERT_TRUE(mService->registerListener(listener, keys, false).isOk());
    ASSERT_TRUE(mService->setLong(String16("sys_long\0other", 14), 3).isOk());
    EXPECT_EQ(std::vector<String16>{String16("sys_long")}, listener->firstCall());
    EXPECT_EQ("3", storedText("system.db", "sys_long"));

    EXPECT_TRUE(mService->unregisterListener(listener).isOk());
    const Status again = mService->unregisterListener(listener);
    EXPECT_EQ(Status::EX_SERVICE_SPECIFIC, again.exceptionCode());
    EXPECT_EQ(-6, again.serviceSpecificErrorCode());
    const Status unknown = mService->registerListener(listener, {String16("no_such_key")}, false);
    EXPECT_EQ(-3, unknown.serviceSpecificErrorCode());
}

// Without a key manager every profile command is a no-op that logs an error, never a failure.
TEST(ServiceWithoutKeyManagerTest, ProfileCommandsSucceedAndLogAnError) {
    binderDir();
    android::sp<PreferencesService> service = new PreferencesService(nullptr);
    for (const char* command :
         {"start-profiling", "stop-profiling", "enable-profile-on-boot", "disable-profile-on-boot",
          "reset-profile", "start-tracing", "stop-tracing", "enable-trace-on-boot",
          "disable-trace-on-boot", "reset-trace"}) {
        LogCapture log;
        EXPECT_TRUE(service->profile(command, {}).isOk()) << command;
        EXPECT_TRUE(log.contains("because the key manager is null")) << command;
    }
    EXPECT_FALSE(service->profiling() || service->tracing());
}

// The summary gains a line only when the host recovered a damaged store.
TEST_F(ServiceTest, SummaryShowsAStoreRecoveryOnlyAfterOne) {
    const auto summary = [this] {
        android::Vector<String16> args;
        args.push_back(String16("nodb"));
        return capturedText([&](int fd) { EXPECT_EQ(android::OK, mService->dump(fd, args)); });
    };
    const std::string healthy = summary();
    EXPECT_EQ(std::string::npos, healthy.find("Store recovered"));
    mService->setStoreRecovery("system.db was damaged (x); moved to y");
    const std::string line =
            "      Store recovered at start:    system.db was damaged (x); moved to y\n";
    const std::string after = "      PackageManager exists:       True\n";
    std::string expected = healthy;
    expected.insert(expected.find(after) + after.size(), line);
    EXPECT_EQ(expected, summary());
}

}  // namespace
}  // namespace Halo::OS::testing
