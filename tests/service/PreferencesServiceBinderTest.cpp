// The service published in the test process and called by prefs_test_client, a separate process
// that runs under an app uid.
#include <android/os/BnPermissionController.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <cutils/multiuser.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "properties/SystemProperties.h"
#include "service/ServiceFixture.h"
#include "support/ChildProcess.h"

namespace Halo::OS::testing {
namespace {

using android::String16;
using android::binder::Status;

// Grants READ_SETTINGS and WRITE_SETTINGS to kAppUid's application in every user, nothing else.
class AppPermissionController : public android::os::BnPermissionController {
public:
    Status checkPermission(const String16& permission, int32_t, int32_t uid,
                           bool* granted) override {
        *granted = multiuser_get_app_id(uid) == kAppUid &&
                   (permission == String16(PreferencesKeyManager::kReadPermission) ||
                    permission == String16(PreferencesKeyManager::kWritePermission));
        return Status::ok();
    }
};

std::string g17(double value) {
    char text[64];
    snprintf(text, sizeof(text), "%.17g", value);
    return text;
}

std::string g9(float value) {
    char text[64];
    snprintf(text, sizeof(text), "%.9g", static_cast<double>(value));
    return text;
}

class BinderServiceTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        static std::once_flag started;
        std::call_once(started, [] {
            android::defaultServiceManager()->addService(String16("permission"),
                                                         new AppPermissionController());
            android::ProcessState::self()->startThreadPool();
        });
        static int published = 0;
        mName = "PreferencesService" + std::to_string(++published);
        ASSERT_EQ(android::OK,
                  android::defaultServiceManager()->addService(String16(mName.c_str()), mService));
    }

    // Runs the client under `uid` with `ops`; returns its output lines.
    std::vector<std::string> run(uid_t uid, const std::vector<std::string>& ops) {
        std::vector<std::string> argv = {PREFS_SERVICE_TEST_CLIENT, mName};
        argv.insert(argv.end(), ops.begin(), ops.end());
        return runToEnd(asUid(uid, argv));
    }

    std::string mName;
};

TEST_F(BinderServiceTest, EveryTypeAndFlavourStoresItsTextAndReadsBack) {
    ASSERT_EQ(0, mManager->userList({0, 10, 11}));
    mManager->currentUser(10);
    struct Case {
        const char* method;  // the type's part of the method names
        const char* key;
        const char* flavour;  // "", "Current" or "User"
        std::string value;    // as given to the client
        const char* db;
        std::string stored;
        std::string read;  // as printed by the client
    };
    const Case cases[] = {
            {"Integer", "sys_integer", "", "-123456", "system.db", "-123456", "-123456"},
            {"Double", "sys_double", "", "0.1234567", "system.db", "0.123457", g17(0.123457)},
            {"String", "sys_string", "", "h\xc3\xa9llo", "system.db", "h\xc3\xa9llo",
             "h\xc3\xa9llo"},
            {"Long", "sys_long", "", "9000000000123", "system.db", "9000000000123",
             "9000000000123"},
            {"Boolean", "sys_boolean", "", "true", "system.db", "1", "true"},
            {"Float", "sys_float", "", "1.5", "system.db", "1.500000", "1.5"},
            {"Integer", "cross_integer", "Current", "2147483647", "user10.db", "2147483647",
             "2147483647"},
            {"Double", "cross_double", "Current", "-3", "user10.db", "-3.000000", "-3"},
            {"String", "cross_string", "Current", "ab%00cd", "user10.db", "ab", "ab"},
            {"Long", "cross_long", "Current", "-9223372036854775808", "user10.db",
             "-9223372036854775808", "-9223372036854775808"},
            {"Boolean", "cross_boolean", "Current", "false", "user10.db", "0", "false"},
            {"Float", "cross_float", "Current", "0.1", "user10.db", "0.100000", g9(0.1f)},
            {"Integer", "cross_integer", "User", "11", "user11.db", "11", "11"},
            {"Double", "cross_double", "User", "2.5", "user11.db", "2.500000", "2.5"},
            {"String", "cross_string", "User", "\xe2\x82\xacuro", "user11.db", "\xe2\x82\xacuro",
             "\xe2\x82\xacuro"},
            {"Long", "cross_long", "User", "42", "user11.db", "42", "42"},
            {"Boolean", "cross_boolean", "User", "true", "user11.db", "1", "true"},
            {"Float", "cross_float", "User", "1234.5678", "user11.db", "1234.567749",
             g9(1234.567749f)},
    };
    std::vector<std::string> ops;
    std::vector<std::string> expected;
    for (const Case& c : cases) {
        const bool user = std::string(c.flavour) == "User";
        ops.insert(ops.end(), {std::string("set") + c.method + c.flavour, c.key, c.value});
        if (user) ops.push_back("11");
        ops.insert(ops.end(), {std::string("get") + c.method + c.flavour, c.key});
        if (user) ops.push_back("11");
        expected.insert(expected.end(), {"ok", "ok " + c.read});
    }
    // A key is cut at its first NUL.
    ops.insert(ops.end(), {"getInteger", "sys_integer%00cross_integer"});
    expected.push_back("ok -123456");

    EXPECT_EQ(expected, run(kAppUid, ops));
    for (const Case& c : cases) {
        EXPECT_EQ(c.stored, storedText(c.db, c.key)) << c.key << " in " << c.db;
    }
    // The plain flavour wrote no user value, the User flavour none for the current user.
    EXPECT_EQ(std::nullopt, storedText("user10.db", "sys_integer"));
    EXPECT_EQ("2147483647", storedText("user10.db", "cross_integer"));
}

TEST_F(BinderServiceTest, KeyManagerRefusalsReachTheClientUnchanged) {
    EXPECT_EQ((std::vector<std::string>{"error -8", "error -9", "error -3", "ok 3", "error -3",
                                        "error -3", "ok 5", "error -3", "ok", "ok", "ok 5"}),
              run(kAppUid, {"setFloat",   "sys_integer",   "1",  //
                            "getFloat",   "sys_integer",         //
                            "setInteger", "ro_integer",    "4",  //
                            "getInteger", "ro_integer",          //
                            "getInteger", "other_integer",       //
                            "setInteger", "other_integer", "2",  //
                            "getType",    "sys_float",           //
                            "getType",    "no_such_key",         //
                            "setLong",    "sys_long",      "8",  //
                            "reset",      "sys_long",            //
                            "getLong",    "sys_long"}));
    EXPECT_EQ(std::nullopt, storedText("system.db", "sys_long"));
    EXPECT_EQ(std::nullopt, storedText("system.db", "sys_integer"));

    EXPECT_EQ((std::vector<std::string>{"error -7", "error -7", "error -7", "error -7"}),
              run(kBareUid, {"setInteger", "sys_integer", "1", "getInteger", "sys_integer",
                             "getDoubleCurrent", "sys_double", "reset", "sys_integer"}));
}

TEST_F(BinderServiceTest, OverridesServeOnlyPlainIntegerReadsTypeAndReset) {
    ASSERT_TRUE(SystemProperties::set(kAutosleepProperty, "45"));
    // Not declared anywhere yet: the property alone answers, without any permission.
    EXPECT_EQ((std::vector<std::string>{"ok 45", "ok 0", "error -7"}),
              run(kBareUid, {"getInteger", "autosleep_time", "getType", "autosleep_time",
                             "getIntegerCurrent", "autosleep_time"}));
    EXPECT_EQ((std::vector<std::string>{"error -3", "error -3", "error -3"}),
              run(kAppUid, {"getIntegerCurrent", "autosleep_time", "getIntegerUser",
                            "autosleep_time", "0", "reset", "autosleep_time"}));
    EXPECT_EQ("", SystemProperties::get(kAutosleepProperty, ""));
    EXPECT_EQ((std::vector<std::string>{"error -3", "error -3"}),
              run(kAppUid, {"getType", "autosleep_time", "getInteger", "autosleep_time"}));

    ASSERT_TRUE(apply(autosleepSchemaList()));
    ASSERT_TRUE(SystemProperties::set(kAutosleepProperty, "45"));
    EXPECT_EQ((std::vector<std::string>{"ok 7", "ok 45", "ok"}),
              run(kAppUid, {"getIntegerCurrent", "autosleep_time", "getInteger", "autosleep_time",
                            "setInteger", "autosleep_time", "60"}));
    EXPECT_EQ("60", SystemProperties::get(kAutosleepProperty, ""));
    EXPECT_EQ("60", storedText("system.db", "autosleep_time"));

    EXPECT_EQ((std::vector<std::string>{"ok", "ok 60", "ok 61"}),
              run(kAppUid, {"setIntegerUser", "autosleep_time", "61", "0", "getInteger",
                            "autosleep_time", "getIntegerCurrent", "autosleep_time"}));
    EXPECT_EQ("60", SystemProperties::get(kAutosleepProperty, ""));
    EXPECT_EQ((std::vector<std::string>{"ok", "ok 7"}),
              run(kAppUid, {"reset", "autosleep_time", "getInteger", "autosleep_time"}));
    EXPECT_EQ("", SystemProperties::get(kAutosleepProperty, ""));
    EXPECT_EQ(std::nullopt, storedText("system.db", "autosleep_time"));
}

}  // namespace
}  // namespace Halo::OS::testing
