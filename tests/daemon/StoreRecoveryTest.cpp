// The check of the system database before the daemon opens it: what is moved aside, what is left.
#include "StoreRecovery.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/SqlRows.h"
#include "support/TempDir.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS::testing {
namespace {

using Outcome = StoreRecovery::Outcome;

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// A sound database with enough rows to span several pages.
void writeDatabase(const std::string& path) {
    sqlRows(path,
            "CREATE TABLE t (k TEXT PRIMARY KEY, v TEXT);"
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 400) "
            "INSERT INTO t SELECT 'key' || i, printf('%0200d', i) FROM n;");
}

TEST(StoreRecoveryTest, DamagedDatabasesAreMovedAsideAndOthersLeftAlone) {
    struct Case {
        const char* what;
        std::function<void(const std::string& dir)> make;
        Outcome outcome;
        const char* problem;
    };
    const std::vector<Case> cases = {
            {"no database yet", [](const std::string&) {}, Outcome::Healthy, ""},
            {"a sound database", [](const std::string& dir) { writeDatabase(dir + "/system.db"); },
             Outcome::Healthy, ""},
            {"not a database",
             [](const std::string& dir) {
                 writeBytes(dir + "/system.db", std::string(8192, 'x'));
                 writeBytes(dir + "/system.db-wal", "stale");
             },
             Outcome::MovedAside, "file is not a database"},
            {"truncated",
             [](const std::string& dir) {
                 writeDatabase(dir + "/system.db");
                 ASSERT_EQ(0, truncate((dir + "/system.db").c_str(), 6000));
             },
             Outcome::MovedAside, "malformed"},
            {"a directory in its place",
             [](const std::string& dir) { mkdir((dir + "/system.db").c_str(), 0700); },
             Outcome::MovedAside, "not a regular file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        c.make(dir.path());
        Telemetry::resetCounts();
        StoreRecovery recovery(dir.path());
        EXPECT_EQ(c.outcome, recovery.run());
        EXPECT_NE(std::string::npos, recovery.problem().find(c.problem)) << recovery.problem();
        const bool moved = c.outcome == Outcome::MovedAside;
        EXPECT_EQ(moved ? 1u : 0u, Telemetry::count(StoreRecovery::kMovedAsideEvent));
        EXPECT_EQ(moved, std::filesystem::exists(recovery.movedTo()));
        if (moved) {
            EXPECT_EQ(0u, recovery.movedTo().find(dir.file("system.db.corrupt-")));
            EXPECT_FALSE(std::filesystem::exists(dir.file("system.db")));
            EXPECT_FALSE(std::filesystem::exists(dir.file("system.db-wal")));
        }
    }
}

// What cannot be looked at is not moved: it may hold good data.
TEST(StoreRecoveryTest, AStoreThatCannotBeCheckedFails) {
    TempDir dir;
    writeBytes(dir.file("file"), "x");
    StoreRecovery recovery(dir.file("file"));
    EXPECT_EQ(Outcome::Failed, recovery.run());
    EXPECT_NE("", recovery.problem());
    EXPECT_EQ("", recovery.movedTo());
}

}  // namespace
}  // namespace Halo::OS::testing
