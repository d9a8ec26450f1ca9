// The profile command and the dump request, answered by a running preferencesd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/DaemonFixture.h"

namespace Halo::OS::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kHeader = "PreferencesStore properties:\n";
constexpr const char* kShortUsage =
        "   wrong arguments. argument: all or <empty>, nodb, db, --list, --profile\n";
constexpr const char* kLongUsage =
        "   wrong arguments. argument: all or <empty>, nodb, db, --list, --profile, --trace\n";
constexpr const char* kSummary =
        "  PreferencesService Service:\n"
        "      KeyManager exists:           True\n"
        "      PackageManager exists:       True\n";

using DaemonCommandsTest = DaemonTest;

TEST_F(DaemonCommandsTest, ProfileTakesExactWordsAndSwitchesTheDumps) {
    start();
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--profile"}));

    EXPECT_EQ("ok", call({"profile", "start-profiling"}));
    for (const char* word :
         {"Start-Profiling", "start-profiling ", "start_profiling", "", "dump"}) {
        EXPECT_EQ("exception -3", call({"profile", word})) << "'" << word << "'";
    }

    // The refused words left profiling on: one write and one read are counted.
    EXPECT_EQ((std::vector<std::string>{"ok", "ok 5"}),
              client({"setInteger", "test_integer", "5", "getInteger", "test_integer"}));
    std::string profile = dump({"--profile"});
    EXPECT_THAT(profile, StartsWith(kHeader));
    EXPECT_THAT(profile, HasSubstr("total reads:  1\ntotal writes: 1\n"));
    EXPECT_THAT(profile, HasSubstr("test_integer"));

    EXPECT_EQ("ok", call({"profile", "reset-profile"}));
    EXPECT_THAT(dump({"--profile"}), HasSubstr("total reads:  0\ntotal writes: 0\n"));
    EXPECT_EQ("ok", call({"profile", "stop-profiling"}));
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--profile"}));

    // Tracing, on its own switch.
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--trace"}));
    EXPECT_EQ("ok", call({"profile", "start-tracing"}));
    EXPECT_EQ("ok", call({"setInteger", "test_integer", "6"}));
    EXPECT_THAT(dump({"--trace"}), HasSubstr("test_integer"));
    EXPECT_EQ("ok", call({"profile", "reset-trace"}));
    EXPECT_THAT(dump({"--trace"}), Not(HasSubstr("test_integer")));
    EXPECT_EQ("ok", call({"profile", "stop-tracing"}));
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--trace"}));
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--profile"}));
}

TEST_F(DaemonCommandsTest, DumpAnswersEachArgumentWithItsSections) {
    start();
    const std::string full = dump({});
    ASSERT_THAT(full, StartsWith(std::string(kHeader) + kSummary));
    const size_t packages = full.find("  PreferencesPackageManager properties:\n");
    const size_t keys = full.find("  PreferencesKeyManager properties:\n");
    const size_t store = full.find("=== Start of Sqlite3PreferencesDb dump ===");
    ASSERT_NE(std::string::npos, packages);
    EXPECT_LT(packages, keys);
    EXPECT_LT(keys, store);
    EXPECT_NE(std::string::npos, store) << full;
    EXPECT_THAT(full, HasSubstr("Connection Thread Running:   True\n"));
    EXPECT_THAT(full, Not(HasSubstr("wrong arguments")));
    EXPECT_THAT(full, HasSubstr("dump 0\n"));

    EXPECT_EQ(full, dump({"all"}));
    EXPECT_EQ(full, dump({"-a"}));
    EXPECT_EQ(full.substr(0, store), dump({"nodb"}).substr(0, store));
    EXPECT_THAT(dump({"nodb"}), Not(HasSubstr("Sqlite3PreferencesDb dump")));

    const std::string db = dump({"db"});
    EXPECT_EQ(std::string(kHeader) + full.substr(store), db);

    const std::string list = dump({"--list"});
    EXPECT_THAT(list, StartsWith(kHeader));
    EXPECT_THAT(list, Not(HasSubstr("PreferencesService Service")));
    EXPECT_THAT(list, HasSubstr("audio_master_volume_step"));
    EXPECT_THAT(list, HasSubstr("test_integer"));

    EXPECT_EQ(std::string(kHeader) + kShortUsage + "dump 0\n", dump({"db", "x"}));
    EXPECT_EQ(std::string(kHeader) + kShortUsage + "dump 0\n", dump({"--trace", "--profile"}));
    EXPECT_EQ(std::string(kHeader) + kLongUsage + "dump 0\n", dump({"everything"}));
    EXPECT_EQ(std::string(kHeader) + kLongUsage + "dump 0\n", dump({"DB"}));

    // Without READ_SETTINGS: the refusal alone, and PERMISSION_DENIED.
    EXPECT_EQ("lack of root privilege: adb root\ndump -1\n", dump({}, kAppUid));
    EXPECT_EQ("lack of root privilege: adb root\ndump -1\n", dump({"--list"}, kAppUid));
}

TEST_F(DaemonCommandsTest, OnBootSwitchesActOnceAtTheNextStart) {
    start();
    EXPECT_EQ("ok", call({"profile", "enable-profile-on-boot"}));
    EXPECT_EQ("ok", call({"profile", "enable-trace-on-boot"}));
    EXPECT_EQ("ok true", call({"getBoolean", "preferences_profile_on_boot_one_shot"}));
    EXPECT_EQ("ok true", call({"getBoolean", "preferences_trace_on_boot_one_shot"}));
    // Nothing changes before the restart.
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--profile"}));

    restart();
    EXPECT_THAT(dump({"--profile"}), HasSubstr("total writes:"));
    EXPECT_EQ("ok false", call({"getBoolean", "preferences_profile_on_boot_one_shot"}));
    EXPECT_EQ("ok false", call({"getBoolean", "preferences_trace_on_boot_one_shot"}));
    EXPECT_EQ("ok", call({"setInteger", "test_integer", "9"}));
    EXPECT_THAT(dump({"--trace"}), HasSubstr("test_integer"));

    // One shot only; and a switch turned off again before the restart does nothing.
    EXPECT_EQ("ok", call({"profile", "enable-trace-on-boot"}));
    EXPECT_EQ("ok", call({"profile", "disable-trace-on-boot"}));
    restart();
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--profile"}));
    EXPECT_EQ(std::string(kHeader) + "dump 0\n", dump({"--trace"}));
    EXPECT_EQ("ok false", call({"getBoolean", "preferences_trace_on_boot_one_shot"}));
}

}  // namespace
}  // namespace Halo::OS::testing
