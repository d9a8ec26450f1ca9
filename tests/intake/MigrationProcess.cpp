// A service start-up reduced to the legacy migration, which stops at a chosen point and waits to
// be killed, for the crash tests:
//
//   intake_migration_process DATA_DIR LEGACY_DIR CONFIG_DIR POINT COUNT
//
// POINT is one of
//   before-status   just before the status COUNT is written
//   after-status    just after the status COUNT is written
//   after-values    just after the COUNT-th legacy value is written
//   after-copy      just after every legacy value is written (before the status says so)
//   anything else   never: the migration runs to its end
// At the point the process prints "stopped" and pauses. Without stopping it prints "done 1" (or
// "done 0" when the migration failed) and exits.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "intake/LegacySettingsDbHelper.h"
#include "intake/PreferencesDeviceConfig.h"
#include "intake/PreferencesLegacyKeysMigrationManager.h"
#include "keymanager/PreferencesKeyManager.h"
#include "store/DirectoryPreferencesDb.h"

namespace Halo::OS {
namespace {

class InterruptedMigration : public PreferencesLegacyKeysMigrationManager {
public:
    InterruptedMigration(std::shared_ptr<PreferencesKeyManager> keyManager,
                         std::shared_ptr<LegacySettingsDbHelper> legacyDb,
                         std::shared_ptr<const PreferencesDeviceConfig> config, std::string point,
                         int count)
        : PreferencesLegacyKeysMigrationManager(std::move(keyManager), std::move(legacyDb),
                                                std::move(config)),
          mPoint(std::move(point)),
          mCount(count) {}

    using PreferencesLegacyKeysMigrationManager::setLegacyKeyValue;

    bool setLegacyKeysMigrationStatus(const Status& status) override {
        if (mPoint == "before-status" && static_cast<int>(status) == mCount) stop();
        const bool result =
                PreferencesLegacyKeysMigrationManager::setLegacyKeysMigrationStatus(status);
        if (mPoint == "after-status" && static_cast<int>(status) == mCount) stop();
        return result;
    }
    bool setLegacyKeyValue(const std::string& key, const std::string& value, unsigned int userId,
                           unsigned int appId) override {
        const bool result =
                PreferencesLegacyKeysMigrationManager::setLegacyKeyValue(key, value, userId, appId);
        if (mPoint == "after-values" && ++mWritten == mCount) stop();
        return result;
    }
    bool migrateLegacyKeyValue() override {
        const bool result = PreferencesLegacyKeysMigrationManager::migrateLegacyKeyValue();
        if (mPoint == "after-copy") stop();
        return result;
    }

private:
    [[noreturn]] static void stop() {
        printf("stopped\n");
        fflush(stdout);
        while (true) pause();
    }

    const std::string mPoint;
    const int mCount;
    int mWritten = 0;
};

}  // namespace
}  // namespace Halo::OS

int main(int argc, char** argv) {
    using namespace Halo::OS;
    if (argc != 6) {
        fprintf(stderr, "usage: %s DATA_DIR LEGACY_DIR CONFIG_DIR POINT COUNT\n", argv[0]);
        return 2;
    }
    auto keyManager = std::make_shared<PreferencesKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(argv[1]));
    const bool migrated =
            InterruptedMigration(keyManager, std::make_shared<LegacySettingsDbHelper>(argv[2]),
                                 std::make_shared<PreferencesDeviceConfig>(argv[3]), argv[4],
                                 atoi(argv[5]))
                    .migrateLegacyKeys();
    printf("done %d\n", migrated ? 1 : 0);
    fflush(stdout);
    return migrated ? 0 : 1;
}
