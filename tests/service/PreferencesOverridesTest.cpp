#include "service/PreferencesOverrides.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <string>

#include "properties/SystemProperties.h"
#include "service/String16Utils.h"
#include "support/LogCapture.h"

namespace Halo::OS {
namespace {

using android::String16;
using testing::LogCapture;

const std::string kProperty = "persist.halo.prefs_overrides.autosleep_time";

class PreferencesOverridesTest : public ::testing::Test {
protected:
    void SetUp() override {
        SystemProperties::set(kProperty, "");
        // The override lines are debug lines, below the host log's default threshold.
        mPriority = __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    }
    void TearDown() override {
        __android_log_set_minimum_priority(mPriority);
        SystemProperties::set(kProperty, "");
    }

    int mPriority = ANDROID_LOG_DEFAULT;
};

TEST_F(PreferencesOverridesTest, GetIntegerReadsTheOverrideProperty) {
    const String16 key("autosleep_time");
    int value = 77;
    EXPECT_EQ(-2, PreferencesOverrides::getInteger(key, &value));  // never set
    struct Case {
        const char* property;
        int expected;
    };
    for (const Case& c : {Case{"300", 300}, Case{"-15", -15}, Case{"abc", 0}, Case{"42abc", 42},
                          Case{"3000000000", -1294967296}}) {
        ASSERT_TRUE(SystemProperties::set(kProperty, c.property));
        LogCapture log;
        EXPECT_EQ(0, PreferencesOverrides::getInteger(key, &value)) << c.property;
        EXPECT_EQ(c.expected, value) << c.property;
        EXPECT_TRUE(log.contains(
                "PreferencesOverrides: returning override for key = autosleep_time, value = " +
                std::to_string(c.expected)));
    }
    ASSERT_TRUE(SystemProperties::set(kProperty, ""));
    value = 77;
    EXPECT_EQ(-2, PreferencesOverrides::getInteger(key, &value));
    EXPECT_EQ(77, value);

    // Other keys have no override, whatever properties exist.
    ASSERT_TRUE(SystemProperties::set("persist.halo.prefs_overrides.sleep_timer", "9"));
    ASSERT_TRUE(SystemProperties::set(kProperty, "5"));
    for (const char* name : {"sleep_timer", "AUTOSLEEP_TIME", "autosleep_time ", ""}) {
        int type = 77;
        EXPECT_EQ(-2, PreferencesOverrides::getInteger(String16(name), &value)) << name;
        EXPECT_EQ(-2, PreferencesOverrides::setInteger(String16(name), 1)) << name;
        EXPECT_EQ(-2, PreferencesOverrides::getType(String16(name), &type)) << name;
        EXPECT_EQ(-2, PreferencesOverrides::reset(String16(name))) << name;
        EXPECT_EQ(77, type);
    }
    EXPECT_EQ(77, value);
    EXPECT_EQ("9", SystemProperties::get("persist.halo.prefs_overrides.sleep_timer", ""));
    EXPECT_EQ("5", SystemProperties::get(kProperty, ""));
}

TEST_F(PreferencesOverridesTest, SetTypeAndResetFollowThePropertyOfTheKeyCutAtNul) {
    const char16_t raw[] = u"autosleep_time\0sleep_timer";
    const String16 key(raw, std::size(raw) - 1);
    ASSERT_EQ(26u, key.size());
    EXPECT_EQ("autosleep_time", toString(key));
    int type = 77;
    EXPECT_EQ(-2, PreferencesOverrides::getType(key, &type));  // no override yet

    LogCapture log;
    EXPECT_EQ(0, PreferencesOverrides::setInteger(key, -120));
    EXPECT_EQ("-120", SystemProperties::get(kProperty, ""));
    int value = 0;
    EXPECT_EQ(0, PreferencesOverrides::getInteger(key, &value));
    EXPECT_EQ(-120, value);
    EXPECT_EQ(0, PreferencesOverrides::getType(key, &type));
    EXPECT_EQ(0, type);  // Integer
    EXPECT_EQ(0, PreferencesOverrides::reset(key));
    EXPECT_EQ("", SystemProperties::get(kProperty, ""));
    EXPECT_EQ(-2, PreferencesOverrides::getType(key, &type));
    EXPECT_EQ(-2, PreferencesOverrides::getInteger(key, &value));
    EXPECT_TRUE(log.contains(
            "PreferencesOverrides: setting override int for key = autosleep_time, value = -120"));
    EXPECT_TRUE(log.contains(
            "PreferencesOverrides: returning override type for key = autosleep_time type = 0"));
    EXPECT_TRUE(log.contains("PreferencesOverrides: resetting override for key = autosleep_time"));

    EXPECT_EQ("", toString(String16(u"\0abc", 4)));
    EXPECT_EQ("caf\xc3\xa9 \xe2\x82\xac", toString(String16(u"caf\u00e9 \u20ac")));
}

}  // namespace
}  // namespace Halo::OS
