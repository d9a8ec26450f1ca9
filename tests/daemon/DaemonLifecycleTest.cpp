// preferencesd as a process: start-up on a new or existing store, properties across restarts, a
// shutdown in the middle of writes, and the errors it refuses to start with.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/DaemonFixture.h"

namespace Halo::OS::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kAutosleepProperty = "persist.halo.prefs_overrides.autosleep_time";

// The package, preference and permission rows of a store dump, sorted.
std::vector<std::string> declarations(const std::string& dump) {
    std::vector<std::string> rows;
    std::istringstream lines(dump);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("  > Package:", 0) == 0 || line.rfind("  > Preference:", 0) == 0 ||
            line.rfind("  > Permission:", 0) == 0) {
            rows.push_back(line);
        }
    }
    std::sort(rows.begin(), rows.end());
    return rows;
}

class DaemonLifecycleTest : public DaemonTest {
protected:
    // Runs a daemon (as `uid`) that ends by itself, because it refuses to start or prints its
    // help; expects exit status `code` and `message` as its whole output (or, unless `whole`,
    // in it).
    void expectEnds(const std::vector<std::string>& args, int code, const std::string& message,
                    bool whole = true, uid_t uid = 0) {
        const std::string logPath = mRoot.file("refused.log");
        unlink(logPath.c_str());
        const int status = startLogged(logPath, args, uid)->wait();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == code) << status << " " << message;
        if (whole) {
            EXPECT_EQ(message, readFile(logPath));
        } else {
            EXPECT_THAT(readFile(logPath), HasSubstr(message));
        }
    }
};

TEST_F(DaemonLifecycleTest, NewStoreIsAtTheLatestVersionAndARestartChangesNoDeclaration) {
    ASSERT_FALSE(std::filesystem::exists(mDataDir));
    start();
    struct stat st {};
    ASSERT_EQ(0, stat(mDataDir.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777) << "the store is private to the service";
    EXPECT_THAT(log(), Not(HasSubstr("PreferencesService E "))) << "a healthy start";

    const std::string db = dump({"db"});
    EXPECT_THAT(db, HasSubstr("  > Value: preferences_version | 2\n"));
    for (const char* key :
         {"preferences_version", "current_user",
          "preferences_service_legacy_keys_migration_status_key",
          "preferences_profile_on_boot_one_shot", "preferences_trace_on_boot_one_shot",
          "audio_master_volume_step", "crash_upload_consent", "test_integer", "stream_399"}) {
        EXPECT_THAT(db, HasSubstr(std::string("  > Preference: ") + key + " |")) << key;
    }

    // (Values of every type and flavour are checked in ServiceCallerTest, their parcels in
    // BinderWireTest; answered writes across a restart in
    // SigtermDuringWritesExitsZeroAndKeepsEveryAnsweredWrite.)
    EXPECT_EQ("ok", call({"setString", "test_string", "h\xc3\xa9llo"}));
    restart();
    EXPECT_EQ("ok h\xc3\xa9llo", call({"getString", "test_string"}));
    EXPECT_EQ(declarations(db), declarations(dump({"db"}))) << "a restart changes no declaration";
    EXPECT_THAT(dump({"db"}), HasSubstr("  > Value: preferences_version | 2\n"));
}

TEST_F(DaemonLifecycleTest, PropertiesAreSeededAndPersistedOverridesWinAfterARestart) {
    const std::string propertyFile = mRoot.file("device.prop");
    std::ofstream(propertyFile) << "# seeded defaults\n"
                                << "persist.halo.prefs_default.seeded_a=11\n"
                                << "persist.halo.prefs_default.seeded_b=21\n"
                                << kAutosleepProperty << "=8\n";
    const std::vector<std::string> seeds = {
            "--property-file", propertyFile,
            "--property",      "persist.halo.prefs_default.seeded_b=22",
            "--property",      std::string(kAutosleepProperty) + "=9"};
    // The first start also loads a telemetry library and runs a small thread pool.
    std::vector<std::string> first = {"--telemetry-lib", TELEMETRY_TEST_SINK, "--threads", "2"};
    first.insert(first.end(), seeds.begin(), seeds.end());
    start(first);
    EXPECT_EQ((std::vector<std::string>{"ok 11", "ok 22", "ok 9", "ok 7"}),
              client({"getInteger", "seeded_a", "getInteger", "seeded_b", "getInteger",
                      "autosleep_time", "getIntegerCurrent", "autosleep_time"}));

    // Plain setInteger writes the override property as well as the store; the Current flavour
    // writes the store only.
    EXPECT_EQ((std::vector<std::string>{"ok", "ok", "ok 42", "ok 5"}),
              client({"setInteger", "autosleep_time", "42", "setIntegerCurrent", "autosleep_time",
                      "5", "getInteger", "autosleep_time", "getIntegerCurrent", "autosleep_time"}));
    EXPECT_THAT(readFile(mDataDir + "/persist.properties"),
                HasSubstr(std::string(kAutosleepProperty) + "=42\n"));

    // The persisted value wins over the seeds given again.
    restart(seeds);
    EXPECT_EQ((std::vector<std::string>{"ok 42", "ok 5"}),
              client({"getInteger", "autosleep_time", "getIntegerCurrent", "autosleep_time"}));
    restart();
    EXPECT_EQ("ok 42", call({"getInteger", "autosleep_time"}));

    // reset empties the property, which leaves the file too.
    EXPECT_EQ("ok", call({"reset", "autosleep_time"}));
    restart();
    EXPECT_EQ("ok 7", call({"getInteger", "autosleep_time"}));
    EXPECT_THAT(readFile(mDataDir + "/persist.properties"), Not(HasSubstr(kAutosleepProperty)));
}

TEST_F(DaemonLifecycleTest, SigtermDuringWritesExitsZeroAndKeepsEveryAnsweredWrite) {
    start();
    // Two writers, each on its own half of the stream keys, value = 1000 + index.
    std::vector<std::vector<std::string>> ops(2);
    for (int i = 0; i < kStreamKeys; ++i) {
        ops[i % 2].insert(ops[i % 2].end(),
                          {"setInteger", "stream_" + std::to_string(i), std::to_string(1000 + i)});
    }
    ChildProcess first(clientArgs(ops[0]));
    ChildProcess second(clientArgs(ops[1]));

    std::vector<std::vector<std::string>> answers(2);
    while (answers[0].size() < 20) {
        const auto line = first.readLine(std::chrono::seconds(60));
        ASSERT_TRUE(line.has_value());
        answers[0].push_back(*line);
    }
    const int status = killDaemon(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    while (auto line = first.readLine(std::chrono::seconds(60))) answers[0].push_back(*line);
    while (auto line = second.readLine(std::chrono::seconds(60))) answers[1].push_back(*line);
    first.wait();
    second.wait();

    start();
    std::vector<std::string> reads;
    std::vector<int> answered;
    for (int writer = 0; writer < 2; ++writer) {
        for (size_t n = 0; n < answers[writer].size(); ++n) {
            if (answers[writer][n] != "ok") continue;
            const int index = static_cast<int>(n) * 2 + writer;
            answered.push_back(index);
            reads.insert(reads.end(), {"getInteger", "stream_" + std::to_string(index)});
        }
    }
    ASSERT_GE(answered.size(), 20u);

    const std::vector<std::string> values = client(reads);
    ASSERT_EQ(answered.size(), values.size());
    for (size_t i = 0; i < answered.size(); ++i) {
        EXPECT_EQ("ok " + std::to_string(1000 + answered[i]), values[i])
                << "stream_" << answered[i] << " was answered ok before the shutdown";
    }
}

TEST_F(DaemonLifecycleTest, SigintStopsADaemonStartedWithSigintIgnored) {
    // As a shell starts a background job: SIGINT and SIGQUIT ignored, which exec keeps.
    const std::string asBackgroundJob = "trap '' INT QUIT;";
    const std::vector<std::string> ignored =
            runToEnd({"/bin/sh", "-c", asBackgroundJob + " exec grep SigIgn /proc/self/status"});
    ASSERT_EQ(1u, ignored.size());
    EXPECT_EQ(0x2u, std::stoul(ignored[0].substr(ignored[0].find(':') + 1), nullptr, 16) & 0x2u)
            << ignored[0] << ": the prefix does not ignore SIGINT";

    start({}, asBackgroundJob);
    mDaemon->kill(SIGINT);
    const pid_t pid = mDaemon->pid();
    const bool ended = eventually([pid] {
        siginfo_t info{};
        return waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
    });
    EXPECT_TRUE(ended) << "the daemon did not stop on SIGINT";
    const int status = killDaemon(ended ? SIGINT : SIGKILL);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    struct stat st {};
    EXPECT_NE(0, stat((mDataDir + "/system.db-wal").c_str(), &st)) << "the store was not closed";
    EXPECT_NE(0, stat(socketPath().c_str(), &st)) << "the socket outlived the daemon";
}

// A stopped app-info service delays the start by the registration's time limit and no more, and
// SIGTERM stops the daemon during that wait as well as after it.
TEST_F(DaemonLifecycleTest, AStoppedAppInfoServiceNeitherBlocksTheStartNorTheStop) {
    ChildProcess appInfo({APPINFO_SERVICE, "--exit-after-ms", "600000"});
    ASSERT_EQ("ready", appInfo.readLine(std::chrono::seconds(60)).value_or("(none)"));
    appInfo.kill(SIGSTOP);

    // SIGTERM once the daemon holds its data directory, that is, during its start-up.
    std::unique_ptr<ChildProcess> starting = startLogged(mLogPath, daemonArgs());
    ASSERT_TRUE(
            eventually([&] { return access((mDataDir + "/preferencesd.lock").c_str(), 0) == 0; }));
    starting->kill(SIGTERM);
    const int status = starting->wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(std::filesystem::exists(socketPath()));

    start();
    EXPECT_THAT(dump({"nodb"}), HasSubstr("      Listening to AppInfoSerivce: False\n"));
    EXPECT_EQ("ok 1", call({"getInteger", "test_integer"}));
    stop();
    appInfo.kill(SIGCONT);
}

// A system database that is not one is moved aside: the daemon starts on an empty store and says
// so in its log and its dump.
TEST_F(DaemonLifecycleTest, ADamagedStoreIsMovedAsideAndTheDaemonStartsEmpty) {
    std::filesystem::create_directories(mDataDir);
    std::ofstream(mDataDir + "/system.db") << std::string(8192, 'x');
    start();
    EXPECT_EQ("ok 1", call({"getInteger", "test_integer"}));
    const std::string summary = dump({"nodb"});
    EXPECT_THAT(summary,
                HasSubstr("      Store recovered at start:    system.db was damaged (file is "
                          "not a database); moved to " +
                          mDataDir + "/system.db.corrupt-"));
    EXPECT_THAT(log(), HasSubstr("The preference store " + mDataDir + "/system.db is damaged"));
    restart();
    EXPECT_THAT(dump({"nodb"}), Not(HasSubstr("Store recovered")));
}

TEST_F(DaemonLifecycleTest, RefusesToStartWithOneLineSayingWhy) {
    start();
    // A second daemon in the same service directory, and one on the same data directory.
    expectEnds(daemonArgs({"--data-dir", mRoot.file("other")}), 1,
               "preferencesd: another preferencesd is already serving PreferencesService in " +
                       mBinderDir + "\n");
    expectEnds(daemonArgs({"--binder-dir", mRoot.file("binder2")}), 1,
               "preferencesd: data directory " + mDataDir + " is in use by another preferencesd\n");
    // The first daemon is undisturbed.
    EXPECT_EQ("ok 1", call({"getInteger", "test_integer"}));
    stop();

    // As an app: a data directory it may not create, a socket directory it may not write.
    const std::string own = mRoot.file("app");
    std::filesystem::create_directories(own + "/binder");
    ASSERT_EQ(0, chown(own.c_str(), kAppUid, kAppUid));
    ASSERT_EQ(0, chown((own + "/binder").c_str(), kAppUid, kAppUid));
    const std::string rootOnly = mRoot.file("root-only");
    std::filesystem::create_directories(rootOnly);
    chmod(rootOnly.c_str(), 0755);
    expectEnds(
            {PREFERENCESD, "--binder-dir", own + "/binder", "--data-dir", rootOnly + "/data",
             "--config-dir", mConfigDir},
            1,
            "preferencesd: cannot create data directory " + rootOnly + "/data: Permission denied\n",
            true, kAppUid);
    expectEnds(
            {PREFERENCESD, "--binder-dir", rootOnly, "--data-dir", own + "/data", "--config-dir",
             mConfigDir},
            1,
            "preferencesd: socket directory " + rootOnly + " is not writable: Permission denied\n",
            true, kAppUid);

    // Directories others may write (or, for the store, that belong to someone else).
    const std::string open = mRoot.file("open");
    std::filesystem::create_directories(open);
    for (const auto& [mode, owner, binder] : std::vector<std::tuple<mode_t, uid_t, bool>>{
                 {0777, 0, true}, {01777, 0, true}, {0770, 0, false}, {0700, kAppUid, false}}) {
        ASSERT_EQ(0, chmod(open.c_str(), mode));
        ASSERT_EQ(0, chown(open.c_str(), owner, owner));
        char problem[128];
        snprintf(problem, sizeof(problem),
                 "may be written by users other than its owner (uid %u, mode %04o)", owner, mode);
        const std::string what = binder ? "socket directory " : "data directory ";
        expectEnds(daemonArgs({binder ? "--binder-dir" : "--data-dir", open}), 1,
                   "preferencesd: " + what + open + " " +
                           (owner == 0 ? std::string(problem)
                                       : "belongs to uid " + std::to_string(owner) +
                                                 ", not to uid 0 that runs preferencesd") +
                           "\n");
    }

    // Files named on the command line that cannot be used.
    expectEnds(daemonArgs({"--property-file", mRoot.file("missing.prop")}), 1,
               "preferencesd: cannot read the property file " + mRoot.file("missing.prop") + "\n",
               false);
    expectEnds(daemonArgs({"--telemetry-lib", mRoot.file("missing.so")}), 1,
               "preferencesd: cannot load the telemetry library " + mRoot.file("missing.so") + "\n",
               false);

    // A wrong command line.
    for (const auto& [option, message] :
         std::vector<std::pair<std::vector<std::string>, std::string>>{
                 {{"--verbose"}, "unknown option '--verbose'"},
                 {{"--threads=12x"}, "option '--threads' needs a number from 1 to 256, got '12x'"},
                 {{"--property", "novalue"}, "option '--property' needs KEY=VALUE, got 'novalue'"},
                 {{"--data-dir"}, "option '--data-dir' needs a value"},
                 {{"--trusted-uid=-1"}, "option '--trusted-uid' needs a uid, got '-1'"}}) {
        std::vector<std::string> argv = {PREFERENCESD};
        argv.insert(argv.end(), option.begin(), option.end());
        expectEnds(argv, 2, "preferencesd: " + message + " (see preferencesd --help)\n");
    }
    expectEnds({PREFERENCESD, "--help"}, 0, "Usage: preferencesd [OPTION]...\n", false);
    // Nothing of the refused daemons was left behind.
    EXPECT_FALSE(std::filesystem::exists(mRoot.file("other/system.db")));
    EXPECT_FALSE(std::filesystem::exists(mRoot.file("binder2/PreferencesService")));
}

}  // namespace
}  // namespace Halo::OS::testing
