#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "StartupFixture.h"
#include "intake/PreferencesLegacyKeysMigrationManager.h"
#include "support/ChildProcess.h"

namespace Halo::OS {
namespace {

using testing::fileExists;
using testing::kMigrated;
using testing::legacyDbPath;
using testing::LegacyValue;

// Where the first start is killed (see MigrationProcess.cpp), and whether the next start copies
// the values again.
struct StopPoint {
    const char* point;
    const char* count;
    bool copiesAgain;
};

std::ostream& operator<<(std::ostream& out, const StopPoint& stop) {
    return out << stop.point << " " << stop.count;
}

class LegacyMigrationCrashTest : public testing::StartupTest,
                                 public ::testing::WithParamInterface<StopPoint> {
protected:
    // The value in the legacy database, while that database exists.
    std::optional<std::string> legacyValue(const LegacyValue& legacy) {
        const std::string path = legacyDbPath(mLegacy, legacy.user);
        if (!fileExists(path)) return std::nullopt;
        return KeyValueStore(path, legacy.user ? "user_settings" : "system_settings",
                             KeyValueStore::kReadOnly)
                .get(legacy.key);
    }
};

TEST_P(LegacyMigrationCrashTest, NextStartFinishesWithEveryValue) {
    testing::writeLegacyDatabases(mLegacy);
    {
        testing::ChildProcess child({MIGRATION_PROCESS, mData.path(), mLegacy.path(),
                                     mConfigDir.path(), GetParam().point, GetParam().count});
        ASSERT_EQ("stopped", child.readLine(std::chrono::seconds(120)).value_or("no output"));
        child.kill(SIGKILL);
        const int waitStatus = child.wait();
        ASSERT_TRUE(WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == SIGKILL);
    }

    // Right after the crash every value is in its legacy database or already in the store.
    start();
    for (const LegacyValue& legacy : kMigrated) {
        EXPECT_TRUE(legacyValue(legacy) == legacy.value || value(legacy) == legacy.value)
                << legacy.key << " of " << legacy.user.value_or(-1);
    }
    // A legacy value changed in between shows whether the next start copies again.
    const bool changed = fileExists(legacyDbPath(mLegacy, {}));
    if (changed) {
        ASSERT_TRUE(KeyValueStore(legacyDbPath(mLegacy, {}), "system_settings")
                            .set("sleep_timer_minutes", "45"));
    }

    PreferencesLegacyKeysMigrationManager next(
            mManager, std::make_shared<LegacySettingsDbHelper>(mLegacy.path()), config());
    ASSERT_TRUE(next.migrateLegacyKeys());
    EXPECT_EQ(PreferencesLegacyKeysMigrationManager::Status::Removed,
              next.getLegacyKeysMigrationStatus());
    EXPECT_FALSE(anyLegacyFile());
    EXPECT_EQ(changed && GetParam().copiesAgain ? "45" : "15",
              value("sleep_timer_minutes", testing::Type::Integer));
    ASSERT_EQ(0, mManager->setWithoutCallback("sleep_timer_minutes", "15", testing::Type::Integer));
    expectLegacyValues();
}

INSTANTIATE_TEST_SUITE_P(Interrupted, LegacyMigrationCrashTest,
                         ::testing::Values(StopPoint{"after-status", "1", true},
                                           StopPoint{"before-status", "1", true},
                                           StopPoint{"after-values", "3", true},
                                           StopPoint{"after-copy", "0", true},
                                           StopPoint{"after-status", "2", false},
                                           StopPoint{"before-status", "3", false},
                                           StopPoint{"after-status", "3", false}));

}  // namespace
}  // namespace Halo::OS
