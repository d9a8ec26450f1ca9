// The client library's read cache against the real daemon: cached and uncached clients in app
// processes (cache_client_process) while packages, permissions and users change underneath.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "e2e/DeviceTest.h"
#include "e2e/TestPackages.h"

namespace Halo::OS::testing {
namespace {

constexpr uid_t kAlpha = 10123;
constexpr uid_t kAlphaUser10 = 1010123;

class ReadCacheTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        writePackageFile("alpha.json", TestPackages::alpha());
        writePackageFile("users.json", "{\"users\": [0, 10], \"current\": 0}");
        startAppInfo();
        startDaemon();
        ASSERT_TRUE(eventually([this] { return prefs({"type", "alpha_count"}).status == 0; }));
    }

    std::unique_ptr<ChildProcess> startClient(uid_t uid, const std::vector<std::string>& args) {
        std::vector<std::string> argv = {CACHE_CLIENT_PROCESS};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<ChildProcess>(asUid(uid, argv));
    }

    // Alpha holding only `permission` of its two OS permissions.
    static std::string alphaWithOnly(const std::string& permission) {
        std::string text = TestPackages::alpha();
        const size_t at = text.find("\"permissions\": [") + 16;
        return text.replace(at, text.find(']', at) - at, "\"" + permission + "\"");
    }
};

// Three processes (alpha in users 0 and 10, root) each read every type and flavour through a
// cached and an uncached client and write and reset keys, while the test installs and removes
// a package, takes OS permissions away and gives them back, switches the current user and
// removes and re-adds user 10. A cached answer that stays different from the service's fails.
TEST_F(ReadCacheTest, CachedAnswersEqualUncachedOnesThroughEveryKindOfChange) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    // Beside the device's folders, where every uid can look.
    const std::string stopFile = dataDir().substr(0, dataDir().rfind('/')) + "/stop-clients";
    std::vector<std::unique_ptr<ChildProcess>> clients;
    uid_t uids[] = {kAlpha, kAlphaUser10, 0};
    for (size_t i = 0; i < 3; ++i) {
        clients.push_back(
                startClient(uids[i], {"differential", std::to_string(seed + i), stopFile}));
    }
    // Lets every client run a hundred gets, so that each change meets warm caches.
    const auto letClientsRead = [&clients] {
        for (auto& client : clients) {
            std::optional<std::string> line = client->readLine(std::chrono::minutes(2));
            ASSERT_TRUE(line.has_value());
            ASSERT_EQ("tick", *line);
        }
    };

    std::mt19937 random(seed);
    bool gamma = false;
    int current = 0;
    bool user10 = true;
    for (int step = 0; step < 16; ++step) {
        letClientsRead();
        if (::testing::Test::HasFatalFailure()) break;
        const unsigned change = random() % 5;
        if (change == 0) {
            gamma = !gamma;
            if (gamma) writePackageFile("gamma.json", TestPackages::gamma(random() % 2 == 0));
            if (!gamma) removePackageFile("gamma.json");
        } else if (change == 1) {
            writePackageFile(
                    "alpha.json",
                    alphaWithOnly(random() % 2 == 0 ? "com.nimbus.permission.READ_SETTINGS"
                                                    : "com.nimbus.permission.WRITE_SETTINGS"));
        } else if (change == 2) {
            writePackageFile("alpha.json", TestPackages::alpha());
        } else if (change == 3) {
            current = user10 ? 10 - current : 0;
        } else {
            user10 = !user10;
            current = user10 ? current : 0;
        }
        writePackageFile("users.json", std::string("{\"users\": [0") + (user10 ? ", 10" : "") +
                                               "], \"current\": " + std::to_string(current) + "}");
        ASSERT_EQ(0, prefs({"set", "alpha_label", "step" + std::to_string(step)}).status);
    }
    std::ofstream(stopFile) << "stop\n";
    for (auto& client : clients) {
        std::string last;
        while (std::optional<std::string> line = client->readLine(std::chrono::minutes(2))) {
            last = *line;
            if (last.rfind("tick", 0) != 0) break;
        }
        EXPECT_EQ(0u, last.rfind("done hits=", 0)) << last;
        EXPECT_NE("done hits=0", last);
        const int status = client->wait();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << last;
    }
}

// An app that holds the table's descriptor can neither write it nor map it writable, and a
// service without the extension is read through plain calls.
TEST_F(ReadCacheTest, TableIsReadOnlyForAppsAndServicesWithoutTheExtensionStillServe) {
    std::unique_ptr<ChildProcess> hostile = startClient(kAlpha, {"hostile"});
    std::vector<std::string> lines;
    while (std::optional<std::string> line = hostile->readLine(std::chrono::minutes(2))) {
        lines.push_back(*line);
    }
    EXPECT_EQ((std::vector<std::string>{"write refused", "grow refused", "map-writable refused",
                                        "protect-writable refused", "reopen-writable refused",
                                        "unseal refused"}),
              lines);
    EXPECT_EQ(0, hostile->wait());

    // As root: only the service directory's owner may publish the relay.
    std::unique_ptr<ChildProcess> relay = startClient(0, {"relay"});
    EXPECT_EQ("relay ok caching=0 hits=0 shared=1", relay->readLine(std::chrono::minutes(2)).value_or(""));
    EXPECT_EQ(0, relay->wait());
}

}  // namespace
}  // namespace Halo::OS::testing
