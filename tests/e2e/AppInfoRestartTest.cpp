// The simulator and the daemon outlive each other: prefs-appinfo killed and started again while
// preferencesd runs, and the prefs tool when the service goes away.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>

#include "e2e/DeviceTest.h"
#include "e2e/TestPackages.h"

namespace Halo::OS::testing {
namespace {

class AppInfoRestartTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        writePackageFile("alpha.json", TestPackages::alpha());
        writePackageFile("beta.json", TestPackages::beta());
        startAppInfo();
        startDaemon();
        ASSERT_TRUE(eventually([this] { return known("beta_mode"); }));
    }

    bool known(const std::string& key) const { return prefs({"type", key}).status == 0; }
    std::string currentUser() const { return prefs({"get", "current_user"}).out; }
};

TEST_F(AppInfoRestartTest, SchemasAndUserEventsFlowAgainWithoutRestartingTheDaemon) {
    const pid_t daemon = daemonPid();
    const int killed = stopAppInfo(SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGKILL) << killed;

    // The daemon keeps serving what it knows.
    EXPECT_EQ("3", rootGet({"alpha_count"}));

    // Changes made while no simulator runs arrive with its full list when it is back.
    writePackageFile("gamma.json", TestPackages::gamma(false));
    removePackageFile("beta.json");
    writePackageFile("users.json", "{\"users\": [0, 10], \"current\": 10}");
    startAppInfo();
    EXPECT_TRUE(eventually([this] { return known("gamma_level"); }));
    EXPECT_TRUE(eventually([this] { return !known("beta_mode"); }));
    EXPECT_TRUE(eventually([this] { return currentUser() == "10\n"; }));

    // And the restarted simulator's live events reach the same daemon.
    writePackageFile("delta.json", TestPackages::delta());
    EXPECT_TRUE(eventually([this] { return known("delta_on"); }));
    writePackageFile("users.json", "{\"users\": [0], \"current\": 0}");
    EXPECT_TRUE(eventually([this] { return currentUser() == "0\n"; }));
    EXPECT_TRUE(eventually([this] {
        return prefs({"dump", "nodb"}).out.find("Listening to AppInfoSerivce: True") !=
               std::string::npos;
    }));

    EXPECT_EQ(daemon, daemonPid());
    EXPECT_TRUE(answers(kService));
    const int stopped = stopAppInfo(SIGTERM);
    EXPECT_TRUE(WIFEXITED(stopped) && WEXITSTATUS(stopped) == 0) << stopped;
}

// The current user that prefs-appinfo sends while the daemon is still starting lands in
// "current_user" on a fresh store, however the start-up and the events interleave.
TEST_F(AppInfoRestartTest, AFreshStartRecordsTheCurrentUser) {
    writePackageFile("users.json", "{\"users\": [0, 10], \"current\": 10}");
    for (int start = 0; start < 3; ++start) {
        stopDaemon();
        stopAppInfo(SIGTERM);
        std::filesystem::remove_all(dataDir());
        startAppInfo();
        startDaemon();
        EXPECT_TRUE(eventually([this] { return currentUser() == "10\n"; })) << currentUser();
    }
}

TEST_F(AppInfoRestartTest, WatchEndsOnCtrlCAndWhenTheServiceGoes) {
    const auto registered = [this](pid_t pid) {
        return prefs({"dump", "nodb"}).out.find("pid: " + std::to_string(pid) + ",") !=
               std::string::npos;
    };
    {
        ChildProcess watch(prefsArgs({"watch", "alpha_count"}, 10123));
        ASSERT_TRUE(eventually([&] { return registered(watch.pid()); }));
        watch.kill(SIGINT);
        const int status = watch.wait();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_TRUE(eventually([&] { return !registered(watch.pid()); }))
                << "Ctrl-C left the listener registered";
    }
    {
        const CommandResult timedOut = prefs({"watch", "alpha_count", "--timeout", "0.2"}, 10123);
        EXPECT_EQ(1, timedOut.status);
        EXPECT_EQ("", timedOut.out);
        EXPECT_EQ("prefs: watch alpha_count: timed out after 0.2 s\n", timedOut.err);
    }
    {
        // An app without the OS read permission may not watch.
        const CommandResult refused = prefs({"watch", "alpha_count", "--count", "1"}, 10999);
        EXPECT_EQ(1, refused.status);
        EXPECT_EQ(
                "prefs: watch alpha_count: OS permission missing (service-specific error -7): "
                "the app lacks com.nimbus.permission.READ_SETTINGS or WRITE_SETTINGS\n",
                refused.err);
    }
    ChildProcess watch(prefsArgs({"watch", "alpha_count"}, 10123));
    ASSERT_TRUE(eventually([&] { return registered(watch.pid()); }));
    stopDaemon();
    const int status = watch.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;

    const CommandResult unreachable = prefs({"get", "alpha_count"}, 10123);
    EXPECT_EQ(3, unreachable.status);
    EXPECT_EQ("", unreachable.out);
    // The default wait of five seconds says once what it is waiting for.
    EXPECT_EQ("prefs: waiting for PreferencesService in " + binderDir() +
                      " (is preferencesd running?)\n"
                      "prefs: connect to PreferencesService in " +
                      binderDir() +
                      ": service unreachable: status -2 (no such service): "
                      "nothing is published under that name\n",
              unreachable.err);
}

}  // namespace
}  // namespace Halo::OS::testing
