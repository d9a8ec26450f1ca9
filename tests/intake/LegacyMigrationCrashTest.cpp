// A start-up killed inside the legacy migration, at each point where it writes: the next start
// finishes the migration with every value.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "StartupFixture.h"
#include "intake/PreferencesLegacyKeysMigrationManager.h"

namespace Halo::OS {
namespace {

using testing::fileExists;
using testing::kMigrated;
using testing::legacyDbPath;
using testing::LegacyValue;
using Manager = PreferencesLegacyKeysMigrationManager;

// Where the first start stops: "before-status" / "after-status" the status `count` is written,
// "after-values" the count-th legacy value is written, "after-copy" every value is (before the
// status says so). `copiesAgain`: whether the next start copies the values again.
struct StopPoint {
    const char* point;
    int count;
    bool copiesAgain;
};

std::ostream& operator<<(std::ostream& out, const StopPoint& stop) {
    return out << stop.point << " " << stop.count;
}

// A migration that, at its stop point, writes one byte to `ready` and waits to be killed.
class InterruptedMigration : public Manager {
public:
    InterruptedMigration(std::shared_ptr<PreferencesKeyManager> keyManager,
                         std::shared_ptr<LegacySettingsDbHelper> legacyDb,
                         std::shared_ptr<const PreferencesDeviceConfig> config, StopPoint stop,
                         int ready)
        : Manager(std::move(keyManager), std::move(legacyDb), std::move(config)),
          mPoint(stop.point),
          mCount(stop.count),
          mReady(ready) {}

    bool setLegacyKeysMigrationStatus(const Status& status) override {
        const bool at = static_cast<int>(status) == mCount;
        if (at && mPoint == "before-status") stop();
        const bool result = Manager::setLegacyKeysMigrationStatus(status);
        if (at && mPoint == "after-status") stop();
        return result;
    }
    bool setLegacyKeyValue(const std::string& key, const std::string& value, unsigned int userId,
                           unsigned int appId) override {
        const bool result = Manager::setLegacyKeyValue(key, value, userId, appId);
        if (mPoint == "after-values" && ++mWritten == mCount) stop();
        return result;
    }
    bool migrateLegacyKeyValue() override {
        const bool result = Manager::migrateLegacyKeyValue();
        if (mPoint == "after-copy") stop();
        return result;
    }

private:
    [[noreturn]] void stop() {
        (void)!write(mReady, "s", 1);
        while (true) pause();
    }

    const std::string mPoint;
    const int mCount;
    const int mReady;
    int mWritten = 0;
};

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
    // The first start runs in a child process (nothing of this one is open yet), killed at its
    // stop point.
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t child = fork();
    if (child == 0) {
        start();
        InterruptedMigration(mManager, std::make_shared<LegacySettingsDbHelper>(mLegacy.path()),
                             config(), GetParam(), ready[1])
                .migrateLegacyKeys();
        _exit(1);
    }
    close(ready[1]);
    pollfd stopped{ready[0], POLLIN, 0};
    char byte = 0;
    const bool reached = poll(&stopped, 1, 120000) == 1 && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    kill(child, SIGKILL);
    int waitStatus = 0;
    waitpid(child, &waitStatus, 0);
    ASSERT_TRUE(reached) << "the first start never reached its stop point";
    ASSERT_TRUE(WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == SIGKILL);

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

    Manager next(mManager, std::make_shared<LegacySettingsDbHelper>(mLegacy.path()), config());
    ASSERT_TRUE(next.migrateLegacyKeys());
    EXPECT_EQ(Manager::Status::Removed, next.getLegacyKeysMigrationStatus());
    EXPECT_FALSE(anyLegacyFile());
    EXPECT_EQ(changed && GetParam().copiesAgain ? "45" : "15",
              value("sleep_timer_minutes", testing::Type::Integer));
    ASSERT_EQ(0, mManager->setWithoutCallback("sleep_timer_minutes", "15", testing::Type::Integer));
    expectLegacyValues();
}

INSTANTIATE_TEST_SUITE_P(
        Interrupted, LegacyMigrationCrashTest,
        ::testing::Values(StopPoint{"after-status", 1, true}, StopPoint{"before-status", 1, true},
                          StopPoint{"after-values", 3, true}, StopPoint{"after-copy", 0, true},
                          StopPoint{"after-status", 2, false}, StopPoint{"before-status", 3, false},
                          StopPoint{"after-status", 3, false}));

}  // namespace
}  // namespace Halo::OS
