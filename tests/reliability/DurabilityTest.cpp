// Nothing answered is lost: the daemon is killed with SIGKILL at random moments while a client
// streams writes, and while schema lists are being applied (with the app-info service killed
// too). After each kill every database passes PRAGMA integrity_check, every acknowledged write
// reads back after the restart, and every package is in the store whole or not at all.
//
// PREFS_RELIABILITY_ROUNDS sets the number of kill rounds (default 4; the long run uses more).
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "reliability/ReliabilityTest.h"

namespace Halo::OS::testing {
namespace {

int rounds() {
    const char* text = getenv("PREFS_RELIABILITY_ROUNDS");
    const int value = text != nullptr ? atoi(text) : 0;
    return value > 0 ? value : 4;
}

// The stream keys the writes go to.
constexpr int kKeys = 64;

class DurabilityTest : public ReliabilityTest {
protected:
    // Every database in the data directory passes the integrity check (the daemon is down).
    void expectIntactDatabases(int round) {
        int checked = 0;
        for (const auto& entry : std::filesystem::directory_iterator(mDataDir)) {
            if (entry.path().extension() != ".db") continue;
            EXPECT_EQ(std::vector<std::string>{"ok"}, query(entry.path(), "PRAGMA integrity_check"))
                    << entry.path() << " round " << round;
            ++checked;
        }
        EXPECT_GE(checked, 1);
    }
};

TEST_F(DurabilityTest, EveryAcknowledgedWriteSurvivesSigkill) {
    startAppInfo();
    std::mt19937 random(20240611);
    constexpr int kWritesPerRound = 300;
    // Writes carry their sequence number s: stream_<s % kKeys> = s, and every eighth
    // write also goes to user 10's database as alpha_cross = s.
    int64_t sequence = 1;
    std::map<std::string, int64_t> acknowledged;
    for (int round = 0; round < rounds(); ++round) {
        start();
        ASSERT_TRUE(eventually([&] { return call({"getType", "alpha_cross"}) == "ok 0"; }));

        std::vector<std::string> ops;
        std::vector<std::pair<std::string, int64_t>> writes;
        for (int64_t s = sequence; s < sequence + kWritesPerRound; ++s) {
            const std::string key = "stream_" + std::to_string(s % kKeys);
            ops.insert(ops.end(), {"setInteger", key, std::to_string(s)});
            writes.emplace_back(key, s);
            if (s % 8 == 0) {
                ops.insert(ops.end(), {"setIntegerUser", "alpha_cross", std::to_string(s), "10"});
                writes.emplace_back("alpha_cross", s);
            }
        }
        // Kill after a random number of answers: sometimes none, sometimes nearly all.
        const size_t killAfter =
                std::uniform_int_distribution<size_t>(0, writes.size() - 1)(random);
        ChildProcess writer(clientArgs(ops));
        size_t answered = 0;
        while (answered < killAfter) {
            const std::optional<std::string> line = writer.readLine(std::chrono::minutes(2));
            ASSERT_TRUE(line.has_value()) << "round " << round << " after " << answered;
            ASSERT_EQ("ok", *line);
            acknowledged[writes[answered].first] = writes[answered].second;
            ++answered;
        }
        const int status = killDaemon(SIGKILL);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        writer.kill(SIGKILL);
        writer.wait();
        expectIntactDatabases(round);

        start();
        std::vector<std::string> reads;
        std::vector<std::string> readKeys;
        for (int k = 0; k < kKeys; ++k) {
            reads.insert(reads.end(), {"getInteger", "stream_" + std::to_string(k)});
            readKeys.push_back("stream_" + std::to_string(k));
        }
        reads.insert(reads.end(), {"getIntegerUser", "alpha_cross", "10"});
        readKeys.push_back("alpha_cross");
        ASSERT_TRUE(eventually([&] { return call({"getType", "alpha_cross"}) == "ok 0"; }));
        const std::vector<std::string> values = client(reads);
        ASSERT_EQ(readKeys.size(), values.size());
        for (size_t i = 0; i < readKeys.size(); ++i) {
            ASSERT_EQ(0u, values[i].rfind("ok ", 0)) << readKeys[i] << ": " << values[i];
            const int64_t value = std::stoll(values[i].substr(3));
            const auto ack = acknowledged.find(readKeys[i]);
            // The last acknowledged write, or a later one whose answer the kill cut off.
            if (ack != acknowledged.end()) {
                EXPECT_GE(value, ack->second) << readKeys[i] << " round " << round;
            }
            EXPECT_LT(value, sequence + kWritesPerRound) << readKeys[i];
            if (i < static_cast<size_t>(kKeys) && value != 0) {
                EXPECT_EQ(static_cast<int64_t>(i), value % kKeys) << readKeys[i];
            }
        }
        stop();
        sequence += kWritesPerRound;
    }
    // The kills fell among answered writes, not only before the first.
    EXPECT_GE(acknowledged.size(), 2u);
}

TEST_F(DurabilityTest, SchemaListsAreAppliedWholeOrNotAtAll) {
    constexpr int kPackagesPerRound = 6;
    constexpr int kKeysPerPackage = 300;
    std::mt19937 random(7);
    std::vector<std::string> packages;
    startAppInfo();
    start();
    for (int round = 0; round < rounds(); ++round) {
        for (int p = 0; p < kPackagesPerRound; ++p) {
            const std::string name =
                    "com.example.r" + std::to_string(round) + "p" + std::to_string(p);
            std::vector<std::string> keys;
            for (int k = 0; k < kKeysPerPackage; ++k) {
                keys.push_back("r" + std::to_string(round) + "p" + std::to_string(p) + "_" +
                               std::to_string(k));
            }
            writePackage(name + ".json",
                         packageText(10200 + round * kPackagesPerRound + p, name, keys));
            packages.push_back(name);
        }
        // Somewhere while the lists are on their way or being applied.
        std::this_thread::sleep_for(
                std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 600)(random)));
        killDaemon(SIGKILL);
        if (round % 2 == 1) stopAppInfo(SIGKILL);
        expectIntactDatabases(round);

        const std::string systemDb = mDataDir + "/system.db";
        int present = 0;
        for (size_t i = 0; i < packages.size(); ++i) {
            const std::string& name = packages[i];
            const std::string prefix = name.substr(std::string("com.example.").size()) + "\\_";
            const auto rows = query(
                    systemDb, "SELECT count(*) FROM packages WHERE package_name = '" + name + "'");
            const auto keys = query(systemDb, "SELECT count(*) FROM preferences WHERE key LIKE '" +
                                                      prefix + "%' ESCAPE '\\'");
            const auto rights =
                    query(systemDb,
                          "SELECT count(*) FROM permissions WHERE package_name = '" + name + "'");
            ASSERT_EQ(1u, rows.size());
            if (rows[0] == "1") {
                ++present;
                EXPECT_EQ(std::to_string(kKeysPerPackage), keys.at(0)) << name;
                EXPECT_EQ(std::to_string(kKeysPerPackage), rights.at(0)) << name;
            } else {
                EXPECT_EQ("0", keys.at(0)) << name << " is half there";
                EXPECT_EQ("0", rights.at(0)) << name << " is half there";
            }
        }
        RecordProperty("round" + std::to_string(round) + "_present", present);

        if (mAppInfo == nullptr) startAppInfo();
        start();
        // After the restart the app-info service sends every package again.
        const std::string last = packages.back().substr(std::string("com.example.").size()) + "_0";
        EXPECT_TRUE(eventually([&] { return call({"getType", last}) == "ok 0"; })) << last;
    }
    const auto all =
            query(mDataDir + "/system.db",
                  "SELECT count(*) FROM packages WHERE package_name LIKE 'com.example.r%'");
    EXPECT_EQ(std::to_string(packages.size()), all.at(0));
}

}  // namespace
}  // namespace Halo::OS::testing
