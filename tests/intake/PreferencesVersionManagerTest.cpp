#include "intake/PreferencesVersionManager.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "StartupFixture.h"
#include "support/LogCapture.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::sqlRows;
using testing::Type;
using Manager = PreferencesVersionManager;

const std::vector<std::string> kVersion2Columns = {
        "key",           "type",       "scope",    "owner_package_uid", "owner_package_name",
        "default_value", "expires_at", "migration"};

class PreferencesVersionManagerTest : public testing::StartupTest {
protected:
    // A store of an older layout: seven columns (without checks for version 0), with an app key
    // and its value, to show that the upgrades keep them.
    void writeOldStore(int version) {
        const std::string check = version == 0 ? "" : " CHECK(type >= 0 AND type < 6)";
        sqlRows(systemDb(),
                "CREATE TABLE packages (package_uid INTEGER NOT NULL, package_name TEXT NOT NULL "
                "PRIMARY KEY); CREATE TABLE preferences (key TEXT PRIMARY KEY, type INTEGER" +
                        check +
                        ", scope INTEGER, owner_package_uid INTEGER, owner_package_name TEXT, "
                        "default_value TEXT, expires_at TEXT); CREATE TABLE permissions (key "
                        "TEXT, package_uid INTEGER, package_name TEXT, permission INTEGER); "
                        "CREATE TABLE preference_values (key TEXT PRIMARY KEY, current_value "
                        "TEXT); INSERT INTO packages VALUES (10057, 'com.example.weather'); "
                        "INSERT INTO preferences VALUES ('units', 2, 0, 10057, "
                        "'com.example.weather', 'metric', NULL); INSERT INTO permissions VALUES "
                        "('units', 10057, 'com.example.weather', 2); INSERT INTO "
                        "preference_values VALUES ('units', 'imperial'); PRAGMA user_version=" +
                        std::to_string(version));
    }
    std::vector<std::string> columns() {
        return sqlRows(systemDb(), "SELECT name FROM pragma_table_info('preferences')");
    }
    std::optional<std::string> version() { return value(Manager::kVersionKey, Type::Integer); }
};

TEST_F(PreferencesVersionManagerTest, VersionZeroStoreGoesThroughBothStepsOnce) {
    writeOldStore(0);
    start();
    Manager manager(mManager);
    EXPECT_EQ(-1, manager.getPrefStoreVersion());
    Telemetry::resetCounts();
    ASSERT_TRUE(manager.upgradeToLatestVersion());
    EXPECT_EQ(1u, Telemetry::count("schema_process_success"));  // version keys declared once
    EXPECT_EQ(2u, Telemetry::count("update_version_success"));
    EXPECT_EQ("2", version());
    EXPECT_EQ("0", value("current_user", Type::Integer));
    EXPECT_EQ(2, mManager->getDatabaseUserVersion());
    EXPECT_EQ(kVersion2Columns, columns());
    // The first step rebuilt the table: it has the checks of version 1.
    EXPECT_NE(
            std::string::npos,
            sqlRows(systemDb(), "SELECT sql FROM sqlite_master WHERE name = 'preferences'")[0].find(
                    "CHECK(type >= 0"));
    EXPECT_EQ("imperial", value("units", Type::String));

    restart();  // "2" needs nothing
    Telemetry::resetCounts();
    EXPECT_TRUE(Manager(mManager).upgradeToLatestVersion());
    EXPECT_EQ(0u, Telemetry::count("schema_process_success") +
                          Telemetry::count("update_version_success"));
}

TEST_F(PreferencesVersionManagerTest, StoredTextDecidesAndALostKeyIsWrittenBack) {
    writeOldStore(1);
    start();
    Manager manager(mManager);
    ASSERT_TRUE(manager.injectKeys(Manager::kPreferencesVersionSchemaList));
    ASSERT_TRUE(manager.setVersion(5));
    Telemetry::resetCounts();
    EXPECT_TRUE(manager.upgradeToVersion(2));
    EXPECT_EQ(0u, Telemetry::count("update_version_success"));
    EXPECT_EQ(1, mManager->getDatabaseUserVersion());

    // Text that is not a number reads 0: both steps run, the key is not declared again.
    ASSERT_EQ(0, mManager->setWithoutCallback(Manager::kVersionKey, "abc", Type::Integer));
    EXPECT_EQ(0, manager.getPrefStoreVersion());
    Telemetry::resetCounts();
    EXPECT_TRUE(manager.upgradeToLatestVersion());
    EXPECT_EQ(2u, Telemetry::count("update_version_success"));
    EXPECT_EQ(0u, Telemetry::count("schema_process_success"));
    EXPECT_EQ("2", version());
    EXPECT_EQ(kVersion2Columns, columns());
    EXPECT_EQ("imperial", value("units", Type::String));

    // A version-2 store that lost the key: declared and written back by getCurrentVersion.
    sqlRows(systemDb(),
            "DELETE FROM permissions WHERE key = 'preferences_version';"
            "DELETE FROM preference_values WHERE key = 'preferences_version';");
    restart();
    ASSERT_EQ(std::nullopt, version());
    EXPECT_EQ(2, Manager(mManager).getCurrentVersion());
    EXPECT_EQ("2", version());
}

TEST_F(PreferencesVersionManagerTest, FailuresStopTheUpgradeWithTheirLogAndEvent) {
    writeOldStore(1);
    start();
    Manager manager(mManager);
    EXPECT_EQ(1, manager.getCurrentVersion());
    {
        LogCapture log;  // nothing goes beyond version 2, but version 2 is reached
        EXPECT_FALSE(manager.upgradeToVersion(3));
        EXPECT_TRUE(log.contains("upgradeToVersion has wrong version set"));
        EXPECT_EQ("2", version());
        EXPECT_EQ(kVersion2Columns, columns());
    }
    {
        // A current store whose version says 0 cannot be rebuilt by the first step.
        ASSERT_TRUE(manager.setVersion(0));
        Telemetry::resetCounts();
        LogCapture log;
        EXPECT_FALSE(manager.upgradeToLatestVersion());
        EXPECT_EQ(nullptr, manager.buildSchemaList("{\"add\": true,"));
        EXPECT_FALSE(manager.injectKeys("{\"add\": true,"));
        EXPECT_TRUE(log.contains("upgradeVersionFromV0ToV1 failed"));
        EXPECT_TRUE(log.contains("failed to parse schema list"));
        EXPECT_TRUE(log.contains("Failed to generate version key schema list."));
        EXPECT_EQ(1u, Telemetry::count("upgrading_version_v0_v1_failed"));
    }
    Manager detached(nullptr);
    EXPECT_EQ(-1, detached.getCurrentVersion());
    EXPECT_FALSE(detached.setVersion(2));
    EXPECT_FALSE(detached.upgradeToLatestVersion());
    EXPECT_FALSE(detached.injectKeys(Manager::kPreferencesVersionSchemaList));
}

}  // namespace
}  // namespace Halo::OS
