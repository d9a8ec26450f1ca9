// Outcomes of store operations that meet a constraint or a failure: the code returned, the error
// lines logged and the telemetry events reported, one row per case.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "store/LogLines.h"
#include "store/StoreTest.h"
#include "support/LogCapture.h"

namespace Halo::OS::testing {
namespace {

class StoreOutcomeTableTest : public StoreTest {
protected:
    struct Case {
        const char* name;
        std::function<void()> setup;
        std::function<int32_t()> operation;
        int32_t result;
        // Error lines that must be logged; none means no error line at all.
        std::vector<std::string> logLines;
        // Prefixes of the events that must be reported, each once; no other event is.
        std::vector<std::string> events;
    };

    // A store of its own for each case, in a fresh subdirectory.
    void openCaseStore(const std::string& name) {
        closeStore();
        ASSERT_EQ(0, mkdir(mDir.file(name).c_str(), 0700));
        mStore = std::make_unique<DirectoryPreferencesDb>(mDir.file(name));
        ASSERT_EQ(0, initializeCapturing(*mStore));
    }

    // Makes every step of the system statement with the text `sql` fail (interrupted) until
    // the case ends.
    void failStepsOf(const std::string& sql) {
        mFailingSql = sql;
        sqlite3_progress_handler(storeConnection(), 1, &StoreOutcomeTableTest::interruptIfRunning,
                                 this);
    }
    void stopFailingSteps() {
        if (mFailingSql.empty()) return;
        sqlite3_progress_handler(storeConnection(), 0, nullptr, nullptr);
        mFailingSql.clear();
    }

    void run(const Case& c) {
        SCOPED_TRACE(c.name);
        openCaseStore(c.name);
        c.setup();
        Telemetry::resetCounts();
        LogCapture log;
        EXPECT_EQ(c.result, c.operation());
        stopFailingSteps();
        const std::string& text = log.text();
        if (c.logLines.empty()) {
            EXPECT_FALSE(log.contains("PreferencesService E ")) << text;
        }
        for (const std::string& line : c.logLines) {
            EXPECT_TRUE(hasLogLine(text, 'E', line)) << line << "\n" << text;
        }
        for (const std::string& event : c.events) {
            EXPECT_EQ(1u, Telemetry::countPrefix(event)) << event;
        }
        EXPECT_EQ(c.events.size(), Telemetry::countPrefix(""));
    }

private:
    static int interruptIfRunning(void* self) {
        auto* test = static_cast<StoreOutcomeTableTest*>(self);
        sqlite3* db = test->storeConnection();
        for (sqlite3_stmt* s = sqlite3_next_stmt(db, nullptr); s != nullptr;
             s = sqlite3_next_stmt(db, s)) {
            const char* sql = sqlite3_sql(s);  // null for SQLite's own statements
            if (sqlite3_stmt_busy(s) && sql != nullptr && test->mFailingSql == sql) return 1;
        }
        return 0;
    }

    std::string mFailingSql;
};

TEST_F(StoreOutcomeTableTest, ConstraintsAndFailures) {
    const auto declareVolume = [&] {
        ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    };
    const auto registerVolumeAgain = [&] {
        return registerKey(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5");
    };
    const Case cases[] = {
            // A permission insert that meets any constraint becomes an update: of no row when
            // the key is unknown or the package name is known under another uid.
            {"permissionOnUnknownKey",
             declareVolume,
             [&] {
                 return mStore->setPreferencePermission("missing", kAppUid, kApp, Permission::Read);
             },
             0,
             {},
             {}},
            {"permissionOfReinstalledPackage",
             declareVolume,
             [&] {
                 return mStore->setPreferencePermission("volume", kOtherUid, kApp,
                                                        Permission::Read);
             },
             0,
             {},
             {}},
            // A key of no type breaks the type CHECK: a constraint failure like a duplicate.
            {"keyOfNoType",
             [] {},
             [&] {
                 return registerKey(kAppUid, kApp, "typeless", Scope::System, Type::NoType, true,
                                    "1");
             },
             -1,
             {"Unable to insert duplicate row for typeless.", "Failed to register new typeless."},
             {}},
            // A system database that failed to open keeps its handle: queries on it fail as
            // queries.
            {"batchOnDatabaseThatFailedToOpen",
             [&] {
                 closeStore();
                 mStore = std::make_unique<DirectoryPreferencesDb>(mDir.file("absent"));
                 ASSERT_EQ(-2, mStore->initialize());
             },
             [&] { return mStore->beginBatch(); },
             -1,
             {"Failed to execute raw query: scope=System, query='BEGIN', code='",
              "Failed to begin batch mode transaction for system DB"},
             {"executerawquery_error_sqlite3_exec:scope=System, query='BEGIN', code='"}},
            // Only a row proves the migration column exists: a failed look goes on to add it.
            {"upgradeWhoseColumnTestFails",
             [&] {
                 execOnStore(
                         "ALTER TABLE preferences DROP COLUMN migration; PRAGMA user_version = 1");
                 failStepsOf(
                         "SELECT name FROM pragma_table_info('preferences') WHERE name = "
                         "'migration'");
             },
             [&] {
                 const int32_t result = mStore->upgradeVersionFromV1ToV2();
                 stopFailingSteps();
                 EXPECT_EQ(2, mStore->getDatabaseUserVersion());
                 EXPECT_EQ("1", scalar("SELECT count(*) FROM pragma_table_info('preferences') "
                                       "WHERE name = 'migration'"));
                 return result;
             },
             0,
             {},
             {}},
            // Re-registering a key reads its type, owner and default apart, and a failure names
            // the one that could not be read.
            {"configurationTypeUnreadable",
             [&] {
                 declareVolume();
                 failStepsOf("SELECT type FROM preferences WHERE key = ?");
             },
             registerVolumeAgain,
             -1,
             {"getPreferenceConfiguration, Unable to update existing volume; failed to get "
              "current type.",
              "Unable to update volume; unable to get configuration."},
             {"getPreferenceConfiguration_error_retrieve_type",
              "updatepreference_error_update_configuration"}},
            {"configurationOwnerUnreadable",
             [&] {
                 declareVolume();
                 failStepsOf(
                         "SELECT owner_package_uid, owner_package_name FROM preferences WHERE "
                         "key = ?");
             },
             registerVolumeAgain,
             -1,
             {"getPreferenceConfiguration, Unable to update existing volume; failed to get "
              "current owner -1.",
              "Unable to update volume; unable to get configuration."},
             {"getPreferenceConfiguration_error_retrieve_owner",
              "updatepreference_error_update_configuration"}},
            {"configurationDefaultUnreadable",
             [&] {
                 declareVolume();
                 failStepsOf("SELECT default_value FROM preferences WHERE key = ?");
             },
             registerVolumeAgain,
             -1,
             {"getPreferenceConfiguration, Unable to update existing volume; failed to get "
              "current default value.",
              "Unable to update volume; unable to get configuration."},
             {"getPreferenceConfiguration_error_retrieve_default_value",
              "updatepreference_error_update_configuration"}},
    };
    for (const Case& c : cases) run(c);
}

}  // namespace
}  // namespace Halo::OS::testing
