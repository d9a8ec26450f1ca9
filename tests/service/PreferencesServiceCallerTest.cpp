// The service called in process as an app: the caller's identity and OS permissions are injected
// (kAppUid holds READ_SETTINGS and WRITE_SETTINGS, kBareUid neither). The real Binder path is
// tested by tests/e2e and tests/reliability.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "service/ServiceFixture.h"
#include "support/FdCapture.h"

namespace Halo::OS::testing {
namespace {

using android::String16;
using android::binder::Status;

// "ok", "ok VALUE" or "error CODE", as a client sees the answer.
std::string answer(const Status& status) {
    return status.isOk() ? "ok" : "error " + std::to_string(status.serviceSpecificErrorCode());
}
std::string answer(const Status& status, int32_t value) {
    return status.isOk() ? "ok " + std::to_string(value) : answer(status);
}

class ServiceCallerTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        const std::set<std::string> both = {PreferencesKeyManager::kReadPermission,
                                            PreferencesKeyManager::kWritePermission};
        mAccess->setGrants({{kAppUid, both}});
        mAccess->setCaller(kAppUid);
    }

    // Writes `value` with `set`, reads it back with `get` and returns what was read.
    template <typename T, typename V>
    T roundTrip(Status (PreferencesService::*set)(const String16&, V),
                Status (PreferencesService::*get)(const String16&, T*), const char* key,
                const T& value) {
        EXPECT_TRUE((mService.get()->*set)(String16(key), value).isOk()) << key;
        T out{};
        EXPECT_TRUE((mService.get()->*get)(String16(key), &out).isOk()) << key;
        return out;
    }
    // The same for the User flavour, in user 11.
    template <typename T, typename V>
    T roundTrip(Status (PreferencesService::*set)(const String16&, V, int32_t),
                Status (PreferencesService::*get)(const String16&, int32_t, T*), const char* key,
                const T& value) {
        EXPECT_TRUE((mService.get()->*set)(String16(key), value, 11).isOk()) << key;
        T out{};
        EXPECT_TRUE((mService.get()->*get)(String16(key), 11, &out).isOk()) << key;
        return out;
    }
};

TEST_F(ServiceCallerTest, EveryTypeAndFlavourStoresItsTextAndReadsBack) {
    using S = PreferencesService;
    mAccess->setCaller(0);
    ASSERT_EQ(0, mManager->userList({0, 10, 11}));
    mManager->currentUser(10);
    mAccess->setCaller(kAppUid);

    EXPECT_EQ(-123456, roundTrip(&S::setInteger, &S::getInteger, "sys_integer", -123456));
    EXPECT_EQ(0.123457, roundTrip(&S::setDouble, &S::getDouble, "sys_double", 0.1234567));
    EXPECT_EQ(String16(u"h\u00e9llo"),
              roundTrip(&S::setString, &S::getString, "sys_string", String16(u"h\u00e9llo")));
    EXPECT_EQ(9000000000123, roundTrip(&S::setLong, &S::getLong, "sys_long", int64_t{9000000000123}));
    EXPECT_TRUE(roundTrip(&S::setBoolean, &S::getBoolean, "sys_boolean", true));
    EXPECT_EQ(1.5f, roundTrip(&S::setFloat, &S::getFloat, "sys_float", 1.5f));
    EXPECT_EQ(2147483647,
              roundTrip(&S::setIntegerCurrent, &S::getIntegerCurrent, "cross_integer", 2147483647));
    EXPECT_EQ(-3.0, roundTrip(&S::setDoubleCurrent, &S::getDoubleCurrent, "cross_double", -3.0));
    EXPECT_EQ(String16("ab"), roundTrip(&S::setStringCurrent, &S::getStringCurrent,
                                        "cross_string", String16("ab\0cd", 5)));
    EXPECT_EQ(INT64_MIN,
              roundTrip(&S::setLongCurrent, &S::getLongCurrent, "cross_long", int64_t{INT64_MIN}));
    EXPECT_FALSE(roundTrip(&S::setBooleanCurrent, &S::getBooleanCurrent, "cross_boolean", false));
    EXPECT_EQ(0.1f, roundTrip(&S::setFloatCurrent, &S::getFloatCurrent, "cross_float", 0.1f));
    EXPECT_EQ(11, roundTrip(&S::setIntegerUser, &S::getIntegerUser, "cross_integer", 11));
    EXPECT_EQ(2.5, roundTrip(&S::setDoubleUser, &S::getDoubleUser, "cross_double", 2.5));
    EXPECT_EQ(String16(u"\u20acuro"), roundTrip(&S::setStringUser, &S::getStringUser,
                                                 "cross_string", String16(u"\u20acuro")));
    EXPECT_EQ(42, roundTrip(&S::setLongUser, &S::getLongUser, "cross_long", int64_t{42}));
    EXPECT_TRUE(roundTrip(&S::setBooleanUser, &S::getBooleanUser, "cross_boolean", true));
    EXPECT_EQ(1234.5678f, roundTrip(&S::setFloatUser, &S::getFloatUser, "cross_float", 1234.5678f));

    const std::pair<const char*, const char*> system[] = {
            {"sys_integer", "-123456"}, {"sys_double", "0.123457"}, {"sys_string", "h\xc3\xa9llo"},
            {"sys_long", "9000000000123"}, {"sys_boolean", "1"}, {"sys_float", "1.500000"}};
    for (const auto& [key, text] : system) EXPECT_EQ(text, storedText("system.db", key)) << key;
    const std::pair<const char*, const char*> current[] = {
            {"cross_integer", "2147483647"}, {"cross_double", "-3.000000"}, {"cross_string", "ab"},
            {"cross_long", "-9223372036854775808"}, {"cross_boolean", "0"},
            {"cross_float", "0.100000"}};
    for (const auto& [key, text] : current) EXPECT_EQ(text, storedText("user10.db", key)) << key;
    const std::pair<const char*, const char*> user[] = {
            {"cross_integer", "11"}, {"cross_double", "2.500000"}, {"cross_string", "\xe2\x82\xacuro"},
            {"cross_long", "42"}, {"cross_boolean", "1"}, {"cross_float", "1234.567749"}};
    for (const auto& [key, text] : user) EXPECT_EQ(text, storedText("user11.db", key)) << key;
    // The plain flavour wrote no user value.
    EXPECT_EQ(std::nullopt, storedText("user10.db", "sys_integer"));
}

TEST_F(ServiceCallerTest, KeyManagerRefusalsReachTheCallerUnchanged) {
    const auto k = [](const char* key) { return String16(key); };
    float real = 0;
    int32_t integer = 0;
    int64_t wide = 0;
    double number = 0;
    EXPECT_EQ((std::vector<std::string>{"error -8", "error -9", "error -3", "ok 3", "error -3",
                                        "error -3", "ok 5", "error -3", "ok", "ok", "ok 5"}),
              (std::vector<std::string>{
                      answer(mService->setFloat(k("sys_integer"), 1)),
                      answer(mService->getFloat(k("sys_integer"), &real)),
                      answer(mService->setInteger(k("ro_integer"), 4)),
                      answer(mService->getInteger(k("ro_integer"), &integer), integer),
                      answer(mService->getInteger(k("other_integer"), &integer)),
                      answer(mService->setInteger(k("other_integer"), 2)),
                      answer(mService->getType(k("sys_float"), &integer), integer),
                      answer(mService->getType(k("no_such_key"), &integer)),
                      answer(mService->setLong(k("sys_long"), 8)),
                      answer(mService->reset(k("sys_long"))),
                      answer(mService->getLong(k("sys_long"), &wide), static_cast<int32_t>(wide)),
              }));
    EXPECT_EQ(std::nullopt, storedText("system.db", "sys_long"));
    EXPECT_EQ(std::nullopt, storedText("system.db", "sys_integer"));

    mAccess->setCaller(kBareUid);
    EXPECT_EQ((std::vector<std::string>{"error -7", "error -7", "error -7", "error -7"}),
              (std::vector<std::string>{answer(mService->setInteger(k("sys_integer"), 1)),
                                        answer(mService->getInteger(k("sys_integer"), &integer)),
                                        answer(mService->getDoubleCurrent(k("sys_double"),
                                                                          &number)),
                                        answer(mService->reset(k("sys_integer")))}));
}

TEST_F(ServiceCallerTest, OverridesServeOnlyPlainIntegerReadsTypeAndReset) {
    using android::base::GetProperty;
    using android::base::SetProperty;
    const String16 key("autosleep_time");
    int32_t value = 0;
    const auto getInteger = [&] { return answer(mService->getInteger(key, &value), value); };
    const auto getCurrent = [&] { return answer(mService->getIntegerCurrent(key, &value), value); };
    ASSERT_TRUE(SetProperty(kAutosleepProperty, "45"));
    // Not declared anywhere yet: the property alone answers, without any permission.
    mAccess->setCaller(kBareUid);
    EXPECT_EQ("ok 45", getInteger());
    EXPECT_EQ("ok 0", answer(mService->getType(key, &value), value));
    EXPECT_EQ("error -7", getCurrent());
    mAccess->setCaller(kAppUid);
    EXPECT_EQ("error -3", getCurrent());
    EXPECT_EQ("error -3", answer(mService->getIntegerUser(key, 0, &value)));
    EXPECT_EQ("error -3", answer(mService->reset(key)));
    EXPECT_EQ("", GetProperty(kAutosleepProperty, ""));
    EXPECT_EQ("error -3", answer(mService->getType(key, &value)));
    EXPECT_EQ("error -3", getInteger());

    ASSERT_TRUE(apply(autosleepSchemaList()));
    ASSERT_TRUE(SetProperty(kAutosleepProperty, "45"));
    EXPECT_EQ("ok 7", getCurrent());
    EXPECT_EQ("ok 45", getInteger());
    EXPECT_EQ("ok", answer(mService->setInteger(key, 60)));
    EXPECT_EQ("60", GetProperty(kAutosleepProperty, ""));
    EXPECT_EQ("60", storedText("system.db", "autosleep_time"));

    EXPECT_EQ("ok", answer(mService->setIntegerUser(key, 61, 0)));
    EXPECT_EQ("ok 60", getInteger());
    EXPECT_EQ("ok 61", getCurrent());
    EXPECT_EQ("60", GetProperty(kAutosleepProperty, ""));
    EXPECT_EQ("ok", answer(mService->reset(key)));
    EXPECT_EQ("ok 7", getInteger());
    EXPECT_EQ("", GetProperty(kAutosleepProperty, ""));
    EXPECT_EQ(std::nullopt, storedText("system.db", "autosleep_time"));
}

// profile() is for root only; a dump needs READ_SETTINGS.
TEST_F(ServiceCallerTest, ProfileAndDumpAskTheCallersIdentity) {
    // The system uid, the privileged application ids, an app, root's application id in users 1
    // and 10, an app in user 10, nobody.
    for (uid_t uid : {1000u, 1041u, 2907u, kAppUid, 100000u, 1000000u, 1010057u, 65534u}) {
        mAccess->setCaller(uid);
        EXPECT_EQ(Status::EX_UNSUPPORTED_OPERATION,
                  mService->profile("start-profiling", {}).exceptionCode())
                << uid;
    }
    EXPECT_FALSE(mService->profiling());
    mAccess->setCaller(0);
    EXPECT_TRUE(mService->profile("start-profiling", {}).isOk());
    EXPECT_TRUE(mService->profiling());

    mAccess->setCaller(kBareUid);
    capturedText([&](int fd) { EXPECT_EQ(android::PERMISSION_DENIED, mService->dump(fd, {})); });
    mAccess->setCaller(kAppUid);
    capturedText([&](int fd) { EXPECT_EQ(android::OK, mService->dump(fd, {})); });
}

}  // namespace
}  // namespace Halo::OS::testing
