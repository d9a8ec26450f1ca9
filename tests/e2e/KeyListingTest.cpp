// prefs list, describe and backup through the real processes, run as apps.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/DeviceTest.h"
#include "e2e/TestPackages.h"

namespace Halo::OS::testing {
namespace {

constexpr uid_t kAlpha = 10123;     // com.test.alpha: reads and writes settings
constexpr uid_t kBeta = 10124;      // com.test.beta: reads settings only
constexpr uid_t kStranger = 10999;  // an app without a package

class KeyListingTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        writePackageFile("alpha.json", TestPackages::alpha());
        writePackageFile("beta.json", TestPackages::beta());
        writePackageFile("users.json", "{\"users\": [0], \"current\": 0}");
        startAppInfo();
        startDaemon();
        ASSERT_TRUE(eventually([this] { return prefs({"type", "beta_mode"}).status == 0; }));
    }
};

// The text after "prefs: WHAT: " of a refusal.
std::string reason(const CommandResult& result) {
    const size_t colon = result.err.find(": ", 7);
    return colon == std::string::npos ? result.err : result.err.substr(colon + 2);
}

TEST_F(KeyListingTest, AppsSeeWhatTheyMayReadAndNothingElse) {
    ASSERT_EQ(0, prefs({"set", "alpha_total", "9000000001"}, kAlpha).status);
    CommandResult listed = prefs({"list", "--package", "com.test.alpha", "--values"}, kAlpha);
    EXPECT_EQ(0, listed.status) << listed.err;
    EXPECT_EQ(
            "alpha_count integer user 3\nalpha_distance double user 1.250000\n"
            "alpha_enabled boolean system false\nalpha_label string crossUser none\n"
            "alpha_locked integer user 1\nalpha_ratio float crossUser 0.500000\n"
            "alpha_total long system 9000000001\n",
            listed.out);

    // The reader sees its own key, none of alpha's, and may not write without WRITE_SETTINGS.
    listed = prefs({"list"}, kBeta);
    EXPECT_NE(std::string::npos, listed.out.find("beta_mode string user\n"));
    EXPECT_EQ(std::string::npos, listed.out.find("alpha_"));
    EXPECT_EQ(
            "{\"key\": \"beta_mode\", \"type\": \"string\", \"scope\": \"user\", \"default\": "
            "\"auto\", \"owner\": \"com.test.beta\", \"writable\": false}\n",
            prefs({"describe", "beta_mode", "--json"}, kBeta).out);
    // describe refuses what get refuses, with the same reason; an undeclared key alike.
    for (const std::string key : {"alpha_count", "no_such_key"}) {
        const CommandResult described = prefs({"describe", key}, kBeta);
        EXPECT_EQ(1, described.status) << key;
        EXPECT_EQ("", described.out) << key;
        EXPECT_EQ(reason(prefs({"get", key, "--type", "integer"}, kBeta)), reason(described));
    }
    const CommandResult refused = prefs({"list"}, kStranger);
    EXPECT_EQ(1, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find("-7")) << refused.err;

    const std::string backup = prefs({"backup"}, kAlpha).out;
    EXPECT_EQ(0u, backup.find("{\"format\": \"prefs-backup\", \"version\": 1, \"entries\": [\n"));
    for (const char* entry :
         {"{\"key\": \"alpha_total\", \"type\": \"long\", \"scope\": \"system\", \"user\": 0, "
          "\"value\": \"9000000001\"}",
          "{\"key\": \"alpha_ratio\", \"type\": \"float\", \"scope\": \"crossUser\", \"user\": 0, "
          "\"value\": 0.5}",
          "{\"key\": \"alpha_enabled\", \"type\": \"boolean\", \"scope\": \"system\", \"user\": "
          "0, \"value\": false}"}) {
        EXPECT_NE(std::string::npos, backup.find(entry)) << entry << "\n" << backup;
    }
    EXPECT_EQ(std::string::npos, prefs({"backup"}, kBeta).out.find("alpha_"));
}

}  // namespace
}  // namespace Halo::OS::testing
