// Apps that try to make the store keep what they leave behind: listener rows of refused
// registrations, databases of users the device does not have, and the main mutex held by a dump
// whose reader never reads. Each refusal is checked, and a well-behaved client is served after.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "reliability/ReliabilityTest.h"

namespace Halo::OS::testing {
namespace {

constexpr auto kLineTimeout = std::chrono::minutes(5);

class StoreAbuseTest : public ReliabilityTest {};

TEST_F(StoreAbuseTest, RefusedListenerRegistrationsLeaveNoRows) {
    startDevice();
    std::unique_ptr<ChildProcess> bad = hostile({"badlisteners", "20000", "alpha_sys"}, kAlphaUid);
    EXPECT_EQ("refused 20000", bad->readLine(kLineTimeout).value_or("none"));
    EXPECT_EQ("first error -13", bad->readLine(kLineTimeout).value_or("none"));
    EXPECT_EQ("itself error -13", bad->readLine(kLineTimeout).value_or("none"));
    EXPECT_EQ(0, bad->wait());
    EXPECT_EQ(0, countOf(dump({"db"}), "  > Listener: "));
    EXPECT_EQ(0, countOf(dump({"nodb"}), "        uuid: "));

    // The next listener gets the first id and hears of changes.
    std::unique_ptr<ChildProcess> watcher = hostile({"watch", "alpha_sys", "-"}, kAlphaUid);
    ASSERT_EQ("registered ok", watcher->readLine(kLineTimeout).value_or("none"));
    EXPECT_EQ(1, countOf(dump({"nodb"}), "        uuid: 1\n"));
    ASSERT_EQ("ok", call({"setInteger", "alpha_sys", "4"}));
    EXPECT_EQ("changed alpha_sys", watcher->readLine(kLineTimeout).value_or("none"));
}

TEST_F(StoreAbuseTest, UsersThatDoNotExistGetNoDatabase) {
    startDevice();
    ASSERT_EQ("ok 1", call({"getIntegerUser", "alpha_cross", "0"}, kAlphaUid));
    const int descriptors = openDescriptors(mDaemon->pid());
    std::vector<std::string> ops;
    std::vector<std::string> expected;
    for (const std::string user : {"777", "2147483647", "-1", "11"}) {
        ops.insert(ops.end(), {"getIntegerUser", "alpha_cross", user, "setIntegerUser",
                               "alpha_cross", "5", user, "getStringUser", "alpha_text", user});
        expected.insert(expected.end(), {"error -9", "error -8", "error -9"});
    }
    for (int user = 700; user < 760; ++user) {
        ops.insert(ops.end(), {"getIntegerUser", "alpha_cross", std::to_string(user)});
        expected.push_back("error -9");
    }
    EXPECT_EQ(expected, client(ops, kAlphaUid));

    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(mDataDir)) {
        const std::string name = entry.path().filename();
        if (name.rfind("user", 0) == 0 && name.find(".db") != std::string::npos &&
            name.rfind("user0.db", 0) != 0 && name.rfind("user10.db", 0) != 0) {
            files.push_back(name);
        }
    }
    EXPECT_EQ(std::vector<std::string>{}, files);
    EXPECT_LE(openDescriptors(mDaemon->pid()), descriptors + 2);
    EXPECT_EQ("ok", call({"setIntegerUser", "alpha_cross", "6", "10"}, kAlphaUid));
    EXPECT_EQ("ok 6", call({"getIntegerUser", "alpha_cross", "10"}, kAlphaUid));
}

TEST_F(StoreAbuseTest, DumpThatIsNeverReadHoldsUpNobody) {
    // The daemon waits for the dump's reader far longer than this test takes.
    startAppInfo();
    start({"--property", "halo.prefs.dump_timeout_ms=600000"});
    ASSERT_TRUE(eventually([&] { return call({"getType", "alpha_text"}) == "ok 2"; }));

    // The dump goes into a FIFO of 4 KiB that nobody reads until another client was served.
    const std::string fifo = mRoot.path() + "/dump.fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    ASSERT_EQ(4096, fcntl(reader, F_SETPIPE_SZ, 4096));
    std::string command = "exec";
    for (const std::string& arg : clientArgs({"dump", "1", "db"})) command += " '" + arg + "'";
    ChildProcess dumper({"/bin/sh", "-c", command + " > '" + fifo + "'"});
    EXPECT_TRUE(eventually([&] {
        int queued = 0;
        return ioctl(reader, FIONREAD, &queued) == 0 && queued > 0;
    }));

    std::unique_ptr<ChildProcess> other = hostile({"getInteger", "beta_sys"}, kBetaUid);
    EXPECT_EQ("ok 2", other->readLine(kLineTimeout).value_or("none"));

    // Read now, the dump arrives whole.
    std::string text;
    EXPECT_TRUE(eventually([&] {
        char buffer[4096];
        ssize_t n;
        while ((n = read(reader, buffer, sizeof(buffer))) > 0) {
            text.append(buffer, static_cast<size_t>(n));
        }
        return n == 0;
    }));
    close(reader);
    EXPECT_EQ(0, dumper.wait());
    EXPECT_NE(std::string::npos, text.find("\n=== End of Sqlite3PreferencesDb dump ===\ndump 0\n"))
            << text.size() << " bytes";
    EXPECT_EQ("ok 2", call({"getInteger", "beta_sys"}, kBetaUid));
}

}  // namespace
}  // namespace Halo::OS::testing
