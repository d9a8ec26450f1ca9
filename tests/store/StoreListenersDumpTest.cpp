#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "store/LogLines.h"
#include "store/StoreTest.h"
#include "support/FdCapture.h"
#include "support/LogCapture.h"

namespace Halo::OS::testing {
namespace {

using Pairs = std::vector<std::pair<unsigned int, unsigned int>>;

std::string header(const std::string& title, const std::string& schema) {
    return "\n=== Start of " + title + " table dump ===\nSchema: " + schema +
           "\n-------------------\n";
}

std::string end(const std::string& title) {
    return "=== End of " + title + " table dump ===\n";
}

class StoreListenersTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        for (const char* key : {"a", "b", "c"}) {
            ASSERT_EQ(0, declare(kAppUid, kApp, key, Scope::System, Type::Integer, true, "1"));
        }
    }
    unsigned int registerListener(unsigned int uid, const std::vector<std::string>& keys) {
        unsigned int id = 0;
        EXPECT_EQ(0, mStore->registerPreferenceListener(uid, keys, id));
        return id;
    }
    Pairs listenersOf(const std::string& key) {
        Pairs listeners;
        EXPECT_EQ(0, mStore->getPreferenceListenersForKey(key, listeners));
        return listeners;
    }
};

TEST_F(StoreListenersTest, IdsStartAtOneAndAreReusedAfterTheHighestGoes) {
    EXPECT_EQ(1u, registerListener(kAppUid, {"a", "b"}));
    EXPECT_EQ(2u, registerListener(kOtherUid, {"a"}));
    EXPECT_EQ(0, mStore->unregisterPreferenceListener(kOtherUid, 2));
    EXPECT_EQ(2u, registerListener(kOtherUid, {"c"}));
    // An id handed out without rows stays in use until it is unregistered: no later listener
    // is given the id of a live one.
    EXPECT_EQ(3u, registerListener(kOtherUid, {}));
    EXPECT_EQ(4u, registerListener(kOtherUid, {"b", "c"}));
    EXPECT_EQ(5u, registerListener(kOtherUid, {}));
    EXPECT_EQ(-12, mStore->unregisterPreferenceListener(kOtherUid, 5));
    EXPECT_EQ(5u, registerListener(kOtherUid, {}));
    EXPECT_EQ(-12, mStore->unregisterPreferenceListener(kOtherUid, 5));
    EXPECT_EQ(-12, mStore->unregisterPreferenceListener(kOtherUid, 3));

    // One row per key: an id occurs once per key of its listener. Outputs are appended to.
    std::vector<unsigned int> ids = {99};
    EXPECT_EQ(0, mStore->getPreferenceListenersIdsForPackage(kAppUid, ids));
    EXPECT_EQ((std::vector<unsigned int>{99, 1, 1}), ids);
    Pairs listeners;
    EXPECT_EQ(0, mStore->getPreferenceListenersForKey("a", listeners));
    EXPECT_EQ((Pairs{{kAppUid, 1}}), listeners);
    listeners.clear();
    EXPECT_EQ(0, mStore->getPreferenceListenersForKey("c", listeners));
    std::sort(listeners.begin(), listeners.end());
    EXPECT_EQ((Pairs{{kOtherUid, 2}, {kOtherUid, 4}}), listeners);

    // Unregistering removes every row of the listener, and only for its own uid.
    EXPECT_EQ(-12, mStore->unregisterPreferenceListener(kOtherUid, 1));
    EXPECT_EQ(0, mStore->unregisterPreferenceListener(kAppUid, 1));
    ids.clear();
    EXPECT_EQ(0, mStore->getPreferenceListenersIdsForPackage(kAppUid, ids));
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(0, mStore->getPreferenceListenersIdsForPackage(kOtherUid, ids));
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ((std::vector<unsigned int>{2, 4, 4}), ids);
}

// Ids in use are kept in memory: the table's highest id is only read while no id is in use, so
// a registration costs the same however many rows the table holds.
TEST_F(StoreListenersTest, HighestIdIsNotSearchedForEachRegistration) {
    int searches = 0;
    sqlite3_trace_v2(
            storeConnection(), SQLITE_TRACE_STMT,
            [](unsigned int, void* count, void* statement, void*) {
                const char* sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
                if (sql != nullptr &&
                    std::string(sql).find("MAX(listener_uuid)") != std::string::npos) {
                    ++*static_cast<int*>(count);
                }
                return 0;
            },
            &searches);
    for (unsigned int i = 1; i <= 300; ++i) EXPECT_EQ(i, registerListener(kAppUid, {"a", "b"}));
    sqlite3_trace_v2(storeConnection(), 0, nullptr, nullptr);
    EXPECT_EQ(1, searches);
    std::vector<unsigned int> ids;
    EXPECT_EQ(0, mStore->getPreferenceListenersIdsForPackage(kAppUid, ids));
    EXPECT_EQ(600u, ids.size());
}

TEST_F(StoreListenersTest, DuplicateAndUnknownListenersAreRefused) {
    registerListener(kAppUid, {"a"});
    LogCapture log;
    unsigned int second = 0;
    // A duplicate in the key list stops the registration; the rows before it stay.
    EXPECT_EQ(-11, mStore->registerPreferenceListener(kAppUid, {"b", "b", "c"}, second));
    EXPECT_EQ(2u, second);
    EXPECT_EQ(-12, mStore->unregisterPreferenceListener(kAppUid, 7));
    const std::string& text = log.text();
    EXPECT_TRUE(hasLogLine(text, 'E', "Unable to insert duplicate listener, b"));
    EXPECT_FALSE(hasLogLine(text, 'E', "listener_uuid = 7")) << text;
    EXPECT_EQ(1u, Telemetry::count("registerpreferencelistener_error_duplicate_listener"));
    EXPECT_EQ(1u, Telemetry::count("unregisterpreferencelistener_error"));
    EXPECT_EQ((Pairs{{kAppUid, 1}}), listenersOf("a"));
    EXPECT_EQ((Pairs{{kAppUid, 2}}), listenersOf("b"));
    EXPECT_EQ(Pairs{}, listenersOf("c"));
}

TEST_F(StoreListenersTest, RowsGoWithTheirKeys) {
    registerListener(kAppUid, {"a", "b"});
    registerListener(kOtherUid, {"b", "never-declared"});
    // Only the key "a" is declared again: "b" and "c" expire and are swept with their rows.
    ASSERT_EQ(0, mStore->registerPackage(kAppUid, kApp));
    ASSERT_EQ(0, registerKey(kAppUid, kApp, "a", Scope::System, Type::Integer, true, "1"));
    EXPECT_EQ(0, mStore->unregisterExpiredPreferences());
    EXPECT_EQ((Pairs{{kAppUid, 1}}), listenersOf("a"));
    for (const char* key : {"b", "never-declared"}) EXPECT_EQ(Pairs{}, listenersOf(key)) << key;
    // Listener rows vanish with the connection.
    reopenStore();
    EXPECT_EQ(Pairs{}, listenersOf("a"));
}

// A store with packages, keys with and without owner, a migrated key, an expiring key, Read,
// Read & Write and code-3 permissions, system and user values and listeners.
class StoreDumpTest : public StoreTest {
protected:
    static constexpr const char* kCore = "nimbus.preferences.service.core";

    void populate() {
        ASSERT_EQ(0, mStore->registerPackage(kAppUid, kApp));
        ASSERT_EQ(0, mStore->registerPackage(kOtherUid, kOther));
        ASSERT_EQ(0, mStore->registerPackage(1000, kCore));
        ASSERT_EQ(0, declare(kAppUid, kApp, "brightness", Scope::System, Type::Float, true,
                             "0.500000"));
        ASSERT_EQ(0, declare(kOtherUid, kOther, "brightness", Scope::System, Type::Float, false,
                             "0.500000", Permission::Read));
        ASSERT_EQ(0,
                  declare(1000, kCore, "legacy_volume", Scope::System, Type::Integer, true, "3"));
        ASSERT_EQ(0, declare(kAppUid, kApp, "nickname", Scope::User, Type::String, false, "guest",
                             Permission::Read));
        ASSERT_EQ(0, declare(kAppUid, kApp, "wallpaper", Scope::Cross, Type::String, true, "sky"));
        exec("UPDATE preferences SET migration = 1 WHERE key = 'legacy_volume'");
        exec("UPDATE permissions SET permission = 3 WHERE package_name = 'com.example.other'");
        ASSERT_EQ(0, mStore->markPreferencesForExpiration(std::chrono::seconds(3600),
                                                          KeySourceDomain::Application));
        // Declared again by the app: no longer expiring.
        ASSERT_EQ(0, registerKey(kAppUid, kApp, "brightness", Scope::System, Type::Float, true,
                                 "0.500000"));
        ASSERT_EQ(0, registerKey(kAppUid, kApp, "nickname", Scope::User, Type::String, false,
                                 "guest"));
        mExpiry = scalar("SELECT expires_at FROM preferences WHERE key = 'wallpaper'");
        ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "brightness", "0.750000"));
        ASSERT_EQ(0, mStore->setPreferenceValue(0u, "nickname", "alice"));
        ASSERT_EQ(0, mStore->setPreferenceValue(10u, 0u, "wallpaper", "sea"));
        unsigned int id = 0;
        ASSERT_EQ(0, mStore->registerPreferenceListener(kAppUid, {"brightness", "nickname"}, id));
        ASSERT_EQ(0, mStore->registerPreferenceListener(kOtherUid, {"wallpaper"}, id));
    }

    std::string packagesDump() {
        return header("Packages", "package_uid | package_name") +
               "  > Package: 1010123 | com.example.app\n"
               "  > Package: 1010456 | com.example.other\n"
               "  > Package: 1000 | nimbus.preferences.service.core\n" +
               end("Packages");
    }
    std::string preferencesDump() {
        return header("Preferences",
                      "key | type | scope | owner_package_uid | owner_package_name | "
                      "default_value | expires_at") +
               "  > Preference: brightness | Float | System | 1010123 | com.example.app | "
               "0.500000 | no | (null)\n"
               "  > Preference: legacy_volume | Integer | System | 1000 | "
               "nimbus.preferences.service.core | 3 | yes | (null)\n"
               "  > Preference: nickname | String | User | 0 | (null) | guest | no | (null)\n"
               "  > Preference: wallpaper | String | Cross | 1010123 | com.example.app | sky | "
               "no | " +
               mExpiry + "\n" + end("Preferences");
    }
    std::string permissionsDump() {
        return header("Permissions", "key | package_uid | permission") +
               "  > Permission: brightness | 1010123 | Read & Write\n"
               "  > Permission: brightness | 1010456 | Invalid Permissions\n"
               "  > Permission: legacy_volume | 1000 | Read & Write\n"
               "  > Permission: nickname | 1010123 | Read\n"
               "  > Permission: wallpaper | 1010123 | Read & Write\n" +
               end("Permissions");
    }
    std::string systemValuesDump() {
        return header("System Values", "key | current_value") +
               "  > Value: brightness | 0.750000\n" + end("System Values");
    }
    std::string listenersDump() {
        return header("Listeners", "listener_uuid, key, package_uid") +
               "  > Listener: 1 | brightness | 1010123\n"
               "  > Listener: 1 | nickname | 1010123\n"
               "  > Listener: 2 | wallpaper | 1010456\n" +
               end("Listeners");
    }
    std::string userDump(unsigned int userId, const std::string& rows) {
        const std::string id = std::to_string(userId);
        return "\n=== Start of user " + id + " DB dump ===\n" +
               header("User Values", "key | current_value") + rows + end("User Values") +
               "=== End of user " + id + " DB dump ===\n";
    }

    std::string mExpiry;
};

TEST_F(StoreDumpTest, DumpOfAPopulatedStore) {
    populate();
    ASSERT_FALSE(mExpiry.empty());
    const std::string system =
            "=== Start of Sqlite3PreferencesDb dump ===\n"
            "\n=== Start of system DB dump ===\n" +
            packagesDump() + preferencesDump() + permissionsDump() + systemValuesDump() +
            listenersDump() + "=== End of system DB dump ===\n";
    const std::string user0 = userDump(0, "  > Value: nickname | alice\n");
    const std::string user10 = userDump(10, "  > Value: wallpaper | sea\n");
    const std::string last = "\n=== End of Sqlite3PreferencesDb dump ===\n";

    int32_t result = -100;
    const std::string dump = capturedText([&](int fd) { result = mStore->dumpDatabases(fd); });
    EXPECT_EQ(0, result);
    // User databases are listed in directory order.
    if (dump != system + user0 + user10 + last) {
        EXPECT_EQ(system + user10 + user0 + last, dump);
    }
    EXPECT_EQ(preferencesDump(), capturedText([&](int fd) { mStore->dumpPreferencesTable(fd); }));
}

TEST_F(StoreDumpTest, NullValuesAndAStoreWithoutUserDatabases) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "k", Scope::System, Type::String, false, "d"));
    exec("INSERT INTO preference_values (key) VALUES ('k')");
    EXPECT_EQ(
            "=== Start of Sqlite3PreferencesDb dump ===\n"
            "\n=== Start of system DB dump ===\n" +
                    header("Packages", "package_uid | package_name") +
                    "  > Package: 1010123 | com.example.app\n" + end("Packages") +
                    header("Preferences",
                           "key | type | scope | owner_package_uid | owner_package_name | "
                           "default_value | expires_at") +
                    "  > Preference: k | String | System | 0 | (null) | d | no | (null)\n" +
                    end("Preferences") + header("Permissions", "key | package_uid | permission") +
                    "  > Permission: k | 1010123 | Read & Write\n" + end("Permissions") +
                    header("System Values", "key | current_value") + "  > Value: k | (null)\n" +
                    end("System Values") + header("Listeners", "listener_uuid, key, package_uid") +
                    end("Listeners") +
                    "=== End of system DB dump ===\n"
                    "\n=== End of Sqlite3PreferencesDb dump ===\n",
            capturedText([&](int fd) { mStore->dumpDatabases(fd); }));
}

TEST_F(StoreDumpTest, FailingTablesWriteTheirErrorLineAndTheOthersStillPrint) {
    populate();
    exec("DROP TABLE permissions");
    ASSERT_EQ(0, mkdir(mDir.file("user11.db").c_str(), 0700));

    LogCapture log;
    int32_t result = 0;
    const std::string dump = capturedText([&](int fd) { result = mStore->dumpDatabases(fd); });
    EXPECT_EQ(-1, result);
    const std::string permissions = header("Permissions", "key | package_uid | permission") +
                                    "Error encountered while dumping table Permissions.\n" +
                                    end("Permissions");
    EXPECT_NE(std::string::npos, dump.find(packagesDump() + preferencesDump() + permissions +
                                           systemValuesDump() + listenersDump()))
            << dump;
    EXPECT_NE(std::string::npos,
              dump.find("\n=== Start of user 11 DB dump ===\n" +
                        header("User Values", "key | current_value") +
                        "Error encountered while dumping table Preferences: Unable to initialize "
                        "user DB.\n=== End of user 11 DB dump ===\n"))
            << dump;
    EXPECT_NE(std::string::npos, dump.find(userDump(0, "  > Value: nickname | alice\n")));
    EXPECT_NE(std::string::npos, dump.find(userDump(10, "  > Value: wallpaper | sea\n")));
    const std::string& text = log.text();
    EXPECT_TRUE(hasLogLine(text, 'E',
                           "Failed to execute prepared statement (scope System): "
                           "SELECT key, package_uid, permission FROM permissions."))
            << text;
    EXPECT_TRUE(hasLogLine(text, 'E', "Unable to dump system DB."));
    EXPECT_TRUE(hasLogLine(text, 'E', "Unable to dump user values table for user"));
    EXPECT_TRUE(hasLogLine(text, 'E', "Unable to dump user database for user"));
    EXPECT_TRUE(hasLogLine(text, 'E', "Unable to dump user DB(s)."));
}

TEST_F(StoreDumpTest, PreferencesTableNeedsItsColumns) {
    LogCapture log;
    int32_t result = 0;
    // A store still in the version-1 layout cannot dump its preferences table.
    execOnStore("ALTER TABLE preferences DROP COLUMN migration");
    EXPECT_EQ(header("Preferences",
                     "key | type | scope | owner_package_uid | owner_package_name | "
                     "default_value | expires_at"),
              capturedText([&](int fd) { result = mStore->dumpPreferencesTable(fd); }));
    EXPECT_EQ(-1, result);
    const std::string& text = log.text();
    EXPECT_TRUE(hasLogLine(text, 'E',
                           "Error initializing prepared statements: kQueryDumpPreferencesTable"));
}

}  // namespace
}  // namespace Halo::OS::testing
