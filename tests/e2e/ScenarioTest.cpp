// A device's life as its users see it, through the real processes: prefs-appinfo, preferencesd
// and the prefs tool run as root and as apps.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>
#include <vector>

#include "e2e/DeviceTest.h"
#include "e2e/TestPackages.h"

namespace Halo::OS::testing {
namespace {

const std::string kNotReadable =
        "unknown key, wrong type, a user key of another user, or the store read failed";
const std::string kNoOsPermission =
        "the app lacks com.nimbus.permission.READ_SETTINGS or WRITE_SETTINGS";

constexpr uid_t kAlpha = 10123;          // com.test.alpha in user 0: reads and writes settings
constexpr uid_t kAlphaUser10 = 1010123;  // the same app in user 10
constexpr uid_t kBeta = 10124;           // com.test.beta: reads settings only
constexpr uid_t kStranger = 10999;       // an app without a package

class ScenarioTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        writePackageFile("alpha.json", TestPackages::alpha());
        writePackageFile("beta.json", TestPackages::beta());
        writePackageFile("users.json", "{\"users\": [0], \"current\": 0}");
        startAppInfo();
        startDaemon();
        ASSERT_TRUE(eventually([this] {
            return prefs({"type", "beta_mode"}).status == 0;
        })) << "the packages' keys never appeared";
    }

    // Expects `result` to be a refusal: exit status 1, nothing on standard output and one error
    // line naming `what` and `reason`.
    static void expectRefused(const CommandResult& result, const std::string& what,
                              const std::string& reason) {
        EXPECT_EQ(1, result.status);
        EXPECT_EQ("", result.out);
        EXPECT_EQ("prefs: " + what + ": " + reason + "\n", result.err);
    }

    std::string get(const std::vector<std::string>& args, uid_t uid) {
        std::vector<std::string> words = {"get"};
        words.insert(words.end(), args.begin(), args.end());
        const CommandResult result = prefs(words, uid);
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ("", result.err);
        return result.out;
    }

    void set(const std::vector<std::string>& args, uid_t uid) {
        std::vector<std::string> words = {"set"};
        words.insert(words.end(), args.begin(), args.end());
        const CommandResult result = prefs(words, uid);
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ("", result.out + result.err);
    }
};

TEST_F(ScenarioTest, AppsReadAndWriteTheirKeysOfEveryTypeAndScope) {
    // Defaults, printed in their formats, with the type asked of the service.
    EXPECT_EQ("3\n", get({"alpha_count"}, kAlpha));
    EXPECT_EQ("9000000000\n", get({"alpha_total"}, kAlpha));
    EXPECT_EQ("0.500000\n", get({"alpha_ratio"}, kAlpha));
    EXPECT_EQ("1.250000\n", get({"alpha_distance"}, kAlpha));
    EXPECT_EQ("false\n", get({"alpha_enabled"}, kAlpha));
    EXPECT_EQ("none\n", get({"alpha_label"}, kAlpha));
    for (const auto& [key, word] :
         std::vector<std::pair<std::string, std::string>>{{"alpha_count", "integer"},
                                                          {"alpha_total", "long"},
                                                          {"alpha_ratio", "float"},
                                                          {"alpha_distance", "double"},
                                                          {"alpha_enabled", "boolean"},
                                                          {"alpha_label", "string"}}) {
        const CommandResult type = prefs({"type", key}, kAlpha);
        EXPECT_EQ(0, type.status) << type.err;
        EXPECT_EQ(word + "\n", type.out) << key;
    }

    set({"alpha_count", "-42"}, kAlpha);
    set({"alpha_total", "-9000000000123"}, kAlpha);
    set({"alpha_ratio", "0.25"}, kAlpha);
    set({"alpha_distance", "0.1234567"}, kAlpha);
    set({"alpha_enabled", "true"}, kAlpha);
    set({"alpha_label", "two words"}, kAlpha);
    EXPECT_EQ("-42\n", get({"alpha_count"}, kAlpha));
    EXPECT_EQ("-9000000000123\n", get({"alpha_total"}, kAlpha));
    EXPECT_EQ("0.250000\n", get({"alpha_ratio"}, kAlpha));
    EXPECT_EQ("0.123457\n", get({"alpha_distance"}, kAlpha));
    EXPECT_EQ("true\n", get({"alpha_enabled"}, kAlpha));
    EXPECT_EQ("two words\n", get({"alpha_label"}, kAlpha));
    // An explicit --type skips the type lookup; a type that is not the key's is refused.
    EXPECT_EQ("-42\n", get({"alpha_count", "--type", "integer"}, kAlpha));
    expectRefused(prefs({"get", "alpha_count", "--type", "float"}, kAlpha), "get alpha_count",
                  "key not readable (service-specific error -9): " + kNotReadable);

    // A value that is not of the key's type is a usage error, and nothing is written.
    const CommandResult notANumber = prefs({"set", "alpha_count", "12abc"}, kAlpha);
    EXPECT_EQ(2, notANumber.status);
    EXPECT_EQ("prefs: set alpha_count: '12abc' is not a valid integer\n", notANumber.err);
    EXPECT_EQ("-42\n", get({"alpha_count"}, kAlpha));

    // reset brings the default back.
    EXPECT_EQ(0, prefs({"reset", "alpha_count"}, kAlpha).status);
    EXPECT_EQ("3\n", get({"alpha_count"}, kAlpha));

    // Refusals: a key the package may only read, a key of another package (refused at the type
    // lookup), an app without the OS write permission.
    expectRefused(prefs({"set", "alpha_locked", "5"}, kAlpha), "set alpha_locked",
                  "no permission for this key (service-specific error -3): "
                  "the app's permission for this key does not allow the operation");
    EXPECT_EQ("1\n", get({"alpha_locked"}, kAlpha));
    const CommandResult foreign = prefs({"get", "alpha_count"}, kBeta);
    EXPECT_EQ(1, foreign.status);
    EXPECT_TRUE(std::regex_match(foreign.err,
                                 std::regex("prefs: type of alpha_count: "
                                            "[a-z ]+ \\(service-specific error -[0-9]+\\): .+\n")))
            << foreign.err;
    expectRefused(prefs({"set", "beta_mode", "manual"}, kBeta), "set beta_mode",
                  "OS permission missing (service-specific error -7): " + kNoOsPermission);
    EXPECT_EQ("auto\n", get({"beta_mode"}, kBeta));
}

TEST_F(ScenarioTest, UsersFlavoursWatchRemovalDumpAndProfile) {
    set({"alpha_count", "7"}, kAlpha);

    // A second user appears and becomes the current one.
    writePackageFile("users.json", "{\"users\": [0, 10], \"current\": 10}");
    ASSERT_TRUE(eventually([this] { return prefs({"get", "current_user"}).out == "10\n"; }));
    set({"alpha_count", "11"}, kAlphaUser10);
    struct stat status;
    EXPECT_EQ(0, stat((dataDir() + "/user10.db").c_str(), &status));
    EXPECT_EQ("11\n", get({"alpha_count"}, kAlphaUser10));
    EXPECT_EQ("7\n", get({"alpha_count"}, kAlpha)) << "user 0 keeps its own value";
    EXPECT_EQ("11", rootGet({"alpha_count", "--current"}));
    EXPECT_EQ("11", rootGet({"alpha_count", "--user", "10"}));
    EXPECT_EQ("7", rootGet({"alpha_count", "--user", "0"}));
    // The current user's value of a user key is another user's for an app of user 0.
    expectRefused(prefs({"get", "alpha_count", "--current"}, kAlpha), "get alpha_count",
                  "key not readable (service-specific error -9): " + kNotReadable);
    EXPECT_EQ("11\n", get({"alpha_count", "--current"}, kAlphaUser10));

    // A user key of another user is out of an app's reach; a cross-user key is not.
    expectRefused(prefs({"set", "alpha_count", "5", "--user", "10"}, kAlpha), "set alpha_count",
                  "write refused (service-specific error -8): "
                  "unknown key, wrong type, a user key of another user, or the store write failed");
    set({"alpha_label", "from user 0", "--user", "10"}, kAlpha);
    EXPECT_EQ("from user 0\n", get({"alpha_label"}, kAlphaUser10));
    EXPECT_EQ("none\n", get({"alpha_label"}, kAlpha));
    set({"alpha_ratio", "0.75", "--current"}, kAlpha);
    EXPECT_EQ("0.750000\n", get({"alpha_ratio"}, kAlphaUser10));

    // A watch in another process sees the changes, one line per notification.
    // With --values each changed key comes with the value read after the notification.
    ChildProcess watch(prefsArgs(
            {"watch", "alpha_count", "alpha_enabled", "--count", "2", "--timeout", "60"}, kAlpha));
    ChildProcess values(prefsArgs({"watch", "--values", "alpha_count", "--count", "1"}, kAlpha));
    const std::string pidLine = "pid: " + std::to_string(watch.pid()) + ",";
    const std::string valuesPidLine = "pid: " + std::to_string(values.pid()) + ",";
    ASSERT_TRUE(eventually([&] {
        const std::string dump = prefs({"dump", "nodb"}).out;
        return dump.find(pidLine) != std::string::npos &&
               dump.find(valuesPidLine) != std::string::npos;
    })) << "the watches never registered";
    set({"alpha_count", "8"}, kAlpha);
    EXPECT_EQ("alpha_count", watch.readLine(std::chrono::seconds(60)).value_or("(nothing)"));
    EXPECT_EQ("alpha_count=8", values.readLine(std::chrono::seconds(60)).value_or("(nothing)"));
    set({"alpha_enabled", "true"}, kAlpha);
    EXPECT_EQ("alpha_enabled", watch.readLine(std::chrono::seconds(60)).value_or("(nothing)"));
    for (ChildProcess* process : {&watch, &values}) {
        const int watchStatus = process->wait();
        EXPECT_TRUE(WIFEXITED(watchStatus) && WEXITSTATUS(watchStatus) == 0) << watchStatus;
    }
    // A key that the caller cannot see is refused rather than watched in vain.
    expectRefused(prefs({"watch", "alpha_count", "no_such_key"}), "watch no_such_key",
                  "key not readable (service-specific error -9): " + kNotReadable);
    EXPECT_EQ(std::string::npos, prefs({"dump", "nodb"}).out.find(pidLine))
            << "the watch's listener outlived it";

    // A package file removed takes its keys away.
    removePackageFile("beta.json");
    ASSERT_TRUE(eventually([this] { return prefs({"type", "beta_mode"}).status == 1; }));
    expectRefused(prefs({"get", "beta_mode", "--type", "string"}), "get beta_mode",
                  "key not readable (service-specific error -9): " + kNotReadable);

    // Only callers that may read settings get the dump; profiling is for root only.
    const CommandResult refusedDump = prefs({"dump"}, kStranger);
    EXPECT_EQ(1, refusedDump.status);
    EXPECT_EQ("lack of root privilege: adb root\n", refusedDump.out);
    EXPECT_EQ(
            "prefs: dump: status -1 (permission denied): "
            "the caller lacks com.nimbus.permission.READ_SETTINGS\n",
            refusedDump.err);
    // Arguments that the service does not know are usage errors; the dump keeps the service's
    // own answer on the output.
    const CommandResult wrongDump = prefs({"dump", "bogus"});
    EXPECT_EQ(2, wrongDump.status);
    EXPECT_EQ(
            "PreferencesStore properties:\n   wrong arguments. argument: all or <empty>, nodb, "
            "db, --list, --profile, --trace\n",
            wrongDump.out);
    EXPECT_EQ("prefs: dump bogus: unknown argument (see 'prefs dump --help')\n", wrongDump.err);
    const CommandResult wrongWord = prefs({"profile", "bogus"});
    EXPECT_EQ(2, wrongWord.status);
    EXPECT_EQ("prefs: profile bogus: unknown word (see 'prefs profile --help')\n", wrongWord.err);
    expectRefused(prefs({"profile", "start-profiling"}, kAlpha), "profile start-profiling",
                  "exception -7 (unsupported operation): "
                  "only root may do this (profile commands)");
    EXPECT_EQ(0, prefs({"profile", "start-profiling"}).status);
}

TEST_F(ScenarioTest, PackagesInstalledUpdatedAndStrippedOfAPermissionOverTheFolder) {
    // A package installed while the device runs, then updated with one more key.
    writePackageFile("gamma.json", TestPackages::gamma(false));
    ASSERT_TRUE(eventually([this] { return prefs({"type", "gamma_level"}).status == 0; }));
    EXPECT_EQ(1, prefs({"type", "gamma_extra"}).status);
    writePackageFile("gamma.json", TestPackages::gamma(true));
    ASSERT_TRUE(eventually([this] { return prefs({"type", "gamma_extra"}).status == 0; }));

    // An OS permission taken away by an update of the package is refused from then on, although
    // the service has seen it granted before; given back, it works again.
    constexpr uid_t kGamma = 10125;
    set({"gamma_level", "5"}, kGamma);
    const std::string writable = TestPackages::gamma(true);
    const std::string grant = ", \"com.nimbus.permission.WRITE_SETTINGS\"";
    std::string readOnly = writable;
    ASSERT_NE(std::string::npos, readOnly.find(grant));
    readOnly.erase(readOnly.find(grant), grant.size());
    writePackageFile("gamma.json", readOnly);
    ASSERT_TRUE(eventually([this] {
        return prefs({"set", "gamma_level", "5"}, kGamma).status != 0;
    }));
    expectRefused(prefs({"set", "gamma_level", "7"}, kGamma), "set gamma_level",
                  "OS permission missing (service-specific error -7): " + kNoOsPermission);
    EXPECT_EQ("5\n", get({"gamma_level"}, kGamma));
    writePackageFile("gamma.json", writable);
    ASSERT_TRUE(eventually([this] {
        return prefs({"set", "gamma_level", "8"}, kGamma).status == 0;
    }));
    EXPECT_EQ("8\n", get({"gamma_level"}, kGamma));
}

}  // namespace
}  // namespace Halo::OS::testing
