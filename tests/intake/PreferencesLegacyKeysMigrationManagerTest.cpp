#include "intake/PreferencesLegacyKeysMigrationManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "StartupFixture.h"
#include "support/LogCapture.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using testing::fileExists;
using testing::LogCapture;
using testing::Type;
using Manager = PreferencesLegacyKeysMigrationManager;

// Records the status writes, list injections and value copies of a migration.
class RecordingMigration : public Manager {
public:
    using Manager::Manager;
    bool setLegacyKeysMigrationStatus(const Status& status) override {
        statuses.push_back(static_cast<int>(status));
        return Manager::setLegacyKeysMigrationStatus(status);
    }
    bool injectKeys(const std::string& json) override {
        ++injections;
        return Manager::injectKeys(json);
    }
    bool migrateLegacyKeyValue() override {
        ++copies;
        return Manager::migrateLegacyKeyValue();
    }
    std::vector<int> statuses;
    int injections = 0;
    int copies = 0;
};

class PreferencesLegacyKeysMigrationManagerTest : public testing::StartupTest {
protected:
    std::unique_ptr<RecordingMigration> migration() {
        return std::make_unique<RecordingMigration>(
                mManager, std::make_shared<LegacySettingsDbHelper>(mLegacy.path()), config());
    }
    std::string status() {
        return value(Manager::kMigrationStatusKey, Type::Integer).value_or("absent");
    }
    // The state an earlier start left: the status key declared and set to `status`.
    void presetStatus(const std::string& status) {
        ASSERT_TRUE(migration()->injectKeys(Manager::kCoreStatusSchemaList));
        ASSERT_EQ(0, mManager->setWithoutCallback(Manager::kMigrationStatusKey, status,
                                                  Type::Integer));
    }
};

TEST_F(PreferencesLegacyKeysMigrationManagerTest, ValuesReachTheirUsersOnceAndTheFilesGo) {
    testing::writeLegacyDatabases(mLegacy);
    start();
    auto manager = migration();
    EXPECT_EQ(Manager::Status::NoStatus, manager->getLegacyKeysMigrationStatus());
    Telemetry::resetCounts();
    ASSERT_TRUE(manager->migrateLegacyKeys());
    EXPECT_EQ((std::vector<int>{1, 2, 3}), manager->statuses);
    EXPECT_EQ(1, manager->copies);
    EXPECT_EQ(1u, Telemetry::count("migration_successful_prefstore_running"));
    EXPECT_TRUE(mManager->isLegacyKey("last_sync_millis"));
    EXPECT_FALSE(mManager->isLegacyKey(Manager::kMigrationStatusKey));
    expectLegacyValues();
    EXPECT_FALSE(anyLegacyFile());
    EXPECT_EQ(std::nullopt, value("retired_setting", Type::Integer));

    // The next start (status 3) only declares the list again, here with a new key: it neither
    // copies nor deletes, and keeps what was written since.
    ASSERT_EQ(0, mManager->setWithoutCallback("sleep_timer_minutes", "20", Type::Integer));
    testing::writeLegacyDatabases(mLegacy);
    testing::writeFile(mConfigDir.file("legacy-keys.json"),
                       testing::legacyKeysJson("{\"index\": 20, \"key\": \"guardian\", \"type\": "
                                               "\"boolean\", \"default\": \"true\", \"scope\": "
                                               "\"system\", \"location\": 1}"));
    restart();
    auto again = migration();
    ASSERT_TRUE(again->migrateLegacyKeys());
    EXPECT_EQ(1, again->injections);
    EXPECT_TRUE(again->statuses.empty());
    EXPECT_EQ(0, again->copies);
    EXPECT_EQ("true", value("guardian", Type::Boolean));
    EXPECT_EQ("20", value("sleep_timer_minutes", Type::Integer));
    EXPECT_TRUE(anyLegacyFile());
}

TEST_F(PreferencesLegacyKeysMigrationManagerTest, ServiceRunningAsSystemUidWritesEveryUser) {
    // Not root: values reach other users only because the key manager knows the legacy keys.
    testing::ScopedCallingIdentity identity(1000, getpid());
    testing::writeLegacyDatabases(mLegacy);
    start();
    mManager->setCaller(1000);
    ASSERT_TRUE(migration()->migrateLegacyKeys());
    expectLegacyValues();
    EXPECT_EQ("3", status());
    std::string font;
    EXPECT_EQ(0, mManager->getWithoutPermissionCheck("font_name", font, Type::String,
                                                     multiuser_get_uid(10, 1000)));
    EXPECT_EQ("Mono", font);
}

TEST_F(PreferencesLegacyKeysMigrationManagerTest, StatusTwoOnlyDeletesAndUnknownOnesTouchNothing) {
    testing::writeLegacyDatabases(mLegacy);
    start();
    for (const char* unknown : {"7", "-2"}) {
        presetStatus(unknown);
        auto manager = migration();
        EXPECT_TRUE(manager->migrateLegacyKeys());
        EXPECT_EQ(0, manager->injections + manager->copies + int(manager->statuses.size()));
        EXPECT_EQ(unknown, status());
        EXPECT_EQ(std::nullopt, value("sleep_timer_minutes", Type::Integer));  // not declared
        EXPECT_TRUE(anyLegacyFile());
    }

    presetStatus("2");
    ASSERT_TRUE(migration()->injectKeys(config()->legacyKeySchemaList()));
    auto resumed = migration();
    ASSERT_TRUE(resumed->migrateLegacyKeys());
    EXPECT_EQ((std::vector<int>{3}), resumed->statuses);
    EXPECT_EQ(0, resumed->copies + resumed->injections);
    expectLegacyValues(false);
    EXPECT_FALSE(anyLegacyFile());
}

TEST_F(PreferencesLegacyKeysMigrationManagerTest, MinorFailuresAreReportedAndTheMigrationEnds) {
    testing::writeLegacyDatabases(mLegacy);
    // User 10's store cannot be opened, and a legacy "user database" cannot be removed.
    ASSERT_EQ(0, mkdir(mData.file("user10.db").c_str(), 0700));
    ASSERT_EQ(0, mkdir(mLegacy.file("user3.db").c_str(), 0700));
    testing::writeFile(mLegacy.file("user3.db/x"), "x");
    start();
    Telemetry::resetCounts();
    LogCapture log;
    EXPECT_TRUE(migration()->migrateLegacyKeys());
    EXPECT_EQ("3", status());
    EXPECT_TRUE(log.contains("failed to set legacy value on font_name, 1000000"));
    EXPECT_TRUE(log.contains("migrate user settings failed"));
    EXPECT_FALSE(log.contains("migrate system settings failed"));
    EXPECT_TRUE(log.contains("migration: failed to migrate legacy key value"));
    EXPECT_TRUE(log.contains("migration: failed to remove old database"));
    EXPECT_TRUE(log.contains("migration: has minor failure which do not impact performance"));
    EXPECT_EQ(1u, Telemetry::count("migration_legacykeys_value_migration_failed"));
    EXPECT_EQ(1u, Telemetry::count("migration_legacy_database_files_deletion_failed"));
    EXPECT_EQ("Serif", value("font_name", Type::String));
    EXPECT_EQ("15", value("sleep_timer_minutes", Type::Integer));
    EXPECT_FALSE(anyLegacyFile());
}

TEST_F(PreferencesLegacyKeysMigrationManagerTest, MissingPartsAndUnknownKeys) {
    LogCapture log;
    EXPECT_FALSE(
            Manager(nullptr, std::make_shared<LegacySettingsDbHelper>(mLegacy.path()), config())
                    .migrateLegacyKeys());
    start();
    EXPECT_FALSE(Manager(mManager, nullptr, config()).migrateLegacyKeys());
    auto manager = migration();
    EXPECT_EQ(Type::NoType, manager->getLegacyKeyType("retired_setting"));
    EXPECT_EQ(0, manager->getLegacyKeyScope("retired_setting"));
    EXPECT_EQ(2, manager->getLegacyKeyScope("font_name"));
    EXPECT_TRUE(manager->setLegacyKeyValue("retired_setting", "7"));  // skipped
    EXPECT_FALSE(manager->injectKeys("[1, 2"));
    EXPECT_TRUE(log.contains("migration modules missing"));
    EXPECT_TRUE(log.contains("can not find key index -1 in type"));
    EXPECT_TRUE(log.contains("failed to generate legacy schema list"));
    EXPECT_EQ("absent", status());
}

}  // namespace
}  // namespace Halo::OS
