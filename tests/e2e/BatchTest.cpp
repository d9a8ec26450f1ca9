// Several values in one step, from the prefs tool run as an app: set with several pairs and
// restore of a backup file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "e2e/DeviceTest.h"
#include "e2e/TestPackages.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {
namespace {

constexpr uid_t kAlpha = 10123;  // com.test.alpha: reads and writes settings
const std::string kNoKeyPermission =
        "no permission for this key (service-specific error -3): the app's permission for this "
        "key does not allow the operation\n";

class BatchTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        chmod(mFiles.path().c_str(), 0755);
        writePackageFile("alpha.json", TestPackages::alpha());
        writePackageFile("users.json", "{\"users\": [0], \"current\": 0}");
        startAppInfo();
        startDaemon();
        ASSERT_TRUE(eventually([this] { return prefs({"type", "alpha_count"}).status == 0; }));
    }

    // The values of the keys of `keys` as the app reads them, one per line.
    std::string values(const std::vector<std::string>& keys) {
        std::string text;
        for (const std::string& key : keys) text += prefs({"get", key}, kAlpha).out;
        return text;
    }

    // A backup file holding `entries` (the JSON text of the entries array), readable by apps.
    std::string backup(const std::string& name, const std::string& entries) {
        const std::string path = mFiles.path() + "/" + name;
        std::ofstream(path) << R"({"format": "prefs-backup", "version": 1, "entries": [)" << entries
                            << "]}";
        chmod(path.c_str(), 0644);
        return path;
    }

    TempDir mFiles;
};

TEST_F(BatchTest, SetPairsAndRestoreApplyAllOrNothing) {
    const std::vector<std::string> keys = {"alpha_count", "alpha_total", "alpha_label"};
    CommandResult result = prefs(
            {"set", "alpha_count", "7", "alpha_label", "two words", "alpha_total", "5"}, kAlpha);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("7\n5\ntwo words\n", values(keys));

    // A read-only key refuses the whole set.
    result = prefs({"set", "alpha_count", "8", "alpha_locked", "5"}, kAlpha);
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("prefs: set alpha_locked (nothing written): " + kNoKeyPermission, result.err);
    EXPECT_EQ("7\n5\ntwo words\n", values(keys));

    const std::string file = backup("good.json", R"(
        {"key": "alpha_count", "type": "integer", "scope": "user", "user": 0, "value": 11},
        {"key": "alpha_total", "type": "long", "scope": "system", "user": 0, "value": "5"},
        {"key": "alpha_label", "type": "string", "scope": "crossUser", "user": 0, "value": "x"})");
    result = prefs({"restore", file, "--dry-run"}, kAlpha);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("alpha_count (user 0): 7 -> 11\nalpha_label (user 0): two words -> x\n", result.out);
    EXPECT_EQ("7\n5\ntwo words\n", values(keys));
    result = prefs({"restore", file}, kAlpha);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("11\n5\nx\n", values(keys));

    // A refused entry leaves its user's values as they were.
    result = prefs({"restore", backup("locked.json", R"(
        {"key": "alpha_count", "type": "integer", "user": 0, "value": 12},
        {"key": "alpha_locked", "type": "integer", "user": 0, "value": 2})")},
                   kAlpha);
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("prefs: restore " + mFiles.path() +
                      "/locked.json: user 0: alpha_locked (this step not written): " +
                      kNoKeyPermission,
              result.err);
    EXPECT_EQ("11\n5\nx\n", values(keys));

    // A reset for a named user goes through the extension with a set's checks: the app resets
    // its cross-user key, and a user that does not exist is refused.
    result = prefs({"reset", "alpha_label", "--user", "0"}, kAlpha);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(1, prefs({"reset", "alpha_label", "--user", "7"}, kAlpha).status);
    EXPECT_EQ("11\n5\nnone\n", values(keys));

    // Malformed files are usage errors that name what is wrong.
    for (const auto& [entries, reason] : std::vector<std::pair<std::string, std::string>>{
                 {R"({"key": "alpha_total", "type": "long", "user": 0, "value": 5})",
                  "entry 0: alpha_total: \"value\" is not a long (a decimal string)"},
                 {R"({"key": "alpha_count", "type": "int", "user": 0, "value": 5})",
                  "entry 0: alpha_count: \"type\" must be integer, long, float, double, boolean "
                  "or string"},
                 {R"({"key": "alpha_count", "type": "integer", "user": -1, "value": 5})",
                  "entry 0: alpha_count: \"user\" must be a user id (0 or more)"},
                 {R"([[[[[[[[[[1]]]]]]]]]])", ""}}) {
        const std::string path = backup("bad.json", entries);
        result = prefs({"restore", path}, kAlpha);
        EXPECT_EQ(2, result.status) << entries;
        if (!reason.empty()) EXPECT_EQ("prefs: restore " + path + ": " + reason + "\n", result.err);
    }
    EXPECT_EQ("11\n5\nnone\n", values(keys));
}

}  // namespace
}  // namespace Halo::OS::testing
