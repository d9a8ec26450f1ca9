#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "store/LogLines.h"
#include "store/StoreTest.h"
#include "support/LogCapture.h"

namespace Halo::OS::testing {
namespace {

using std::chrono::seconds;

constexpr unsigned int kCoreUid = 1000;
constexpr const char* kCore = "nimbus.preferences.service.core";
constexpr const char* kNative = "nimbus.preferences.native.audio";
constexpr unsigned int kNativeUid = 1041;

class StoreRegistrationTest : public StoreTest {
protected:
    std::string definition(const std::string& key) {
        return scalar(
                "SELECT key, type, scope, owner_package_uid, owner_package_name, "
                "default_value, migration, expires_at FROM preferences WHERE key = '" +
                key + "'");
    }
    std::string expiresAt(const std::string& key) {
        return scalar("SELECT expires_at IS NOT NULL FROM preferences WHERE key = '" + key + "'");
    }
    std::vector<std::string> keys() { return query("SELECT key FROM preferences ORDER BY key"); }
};

TEST_F(StoreRegistrationTest, NewKeysAreStoredWithTheirDefinition) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "name", Scope::Cross, Type::String, false, "",
                         Permission::Read));
    EXPECT_EQ("volume|0|0|1010123|com.example.app|5|0|NULL", definition("volume"));
    EXPECT_EQ("name|2|2|NULL|NULL||0|NULL", definition("name"));
    EXPECT_EQ("1010123|com.example.app", scalar("SELECT * FROM packages"));
    EXPECT_EQ((std::vector<std::string>{"name|1010123|com.example.app|1",
                                        "volume|1010123|com.example.app|2"}),
              query("SELECT * FROM permissions ORDER BY key"));

    // Half an owner is refused; a type outside the table's range is refused by its CHECK.
    LogCapture log;
    EXPECT_NE(0, mStore->registerPreference(kAppUid, kApp, "half", Scope::System, Type::Integer,
                                            kAppUid, std::nullopt, "1"));
    EXPECT_NE(0, registerKey(kAppUid, kApp, "untyped", Scope::System, Type::NoType, true, "1"));
    EXPECT_EQ((std::vector<std::string>{"name", "volume"}), keys());
    EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                  {"Unable to insert half; either both owner package and name or "
                                   "neither must be specified.",
                                   "Failed to register new untyped."}));
}

TEST_F(StoreRegistrationTest, OwnerKeepsAndChangesItsKey) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    // The same declaration again changes nothing.
    EXPECT_EQ(0, registerKey(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    EXPECT_EQ("volume|0|0|1010123|com.example.app|5|0|NULL", definition("volume"));

    LogCapture log;
    EXPECT_EQ(0, registerKey(kAppUid, kApp, "volume", Scope::User, Type::Long, true, "6"));
    EXPECT_EQ("volume|3|1|1010123|com.example.app|6|0|NULL", definition("volume"));
    EXPECT_TRUE(hasLogLine(log.text(), 'W',
                           "volume: non-owning packages have different scope (0) from that (1) "
                           "of owning package. Please correct."));

    // Declaring the key without ownership gives it up.
    EXPECT_EQ(0, registerKey(kAppUid, kApp, "volume", Scope::User, Type::Long, false, "6"));
    EXPECT_EQ("volume|3|1|NULL|NULL|6|0|NULL", definition("volume"));
}

TEST_F(StoreRegistrationTest, NonOwnersCannotChangeOrTakeOverAKey) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::Cross, Type::Integer, true, "5"));
    ASSERT_EQ(0, mStore->registerPackage(kOtherUid, kOther));
    const std::string original = definition("volume");

    // Same definition: accepted. A "user" declaration of a Cross key: accepted silently.
    EXPECT_EQ(0, registerKey(kOtherUid, kOther, "volume", Scope::Cross, Type::Integer, false, "5"));
    EXPECT_EQ(0, registerKey(kOtherUid, kOther, "volume", Scope::User, Type::Integer, false, "5"));
    EXPECT_EQ(original, definition("volume"));

    LogCapture log;
    EXPECT_EQ(-10,
              registerKey(kOtherUid, kOther, "volume", Scope::System, Type::Integer, false, "5"));
    EXPECT_EQ(-10, registerKey(kOtherUid, kOther, "volume", Scope::Cross, Type::Long, false, "5"));
    EXPECT_EQ(-10,
              registerKey(kOtherUid, kOther, "volume", Scope::Cross, Type::Integer, false, "6"));
    EXPECT_EQ(-9, registerKey(kOtherUid, kOther, "volume", Scope::Cross, Type::Integer, true, "5"));
    EXPECT_EQ(original, definition("volume"));
    EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                  {"Unable to update existing volume; failed to change from Cross "
                                   "to System, requester com.example.other is not the owner "
                                   "com.example.app",
                                   "Unable to update existing volume; failed to change from "
                                   "Integer to Long, requester com.example.other is not the "
                                   "owner(com.example.app).",
                                   "Unable to update existing volume; failed to change default "
                                   "value, requester com.example.other is not the owner "
                                   "(com.example.app).",
                                   "Unable to update existing volume; already owned by ("}));
    EXPECT_EQ(1u, Telemetry::count("preferencescopechange_error_not_owner"));
    EXPECT_EQ(1u, Telemetry::count("preferencestypechange_error_not_owner"));
    EXPECT_EQ(1u, Telemetry::count("preferencedefault_error_not_owner"));
    EXPECT_EQ(1u, Telemetry::count("preferenceownerchange_error_already_owned"));
}

TEST_F(StoreRegistrationTest, PrivilegedRequestersTakeOverAndUnownedKeysCanBeClaimed) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    EXPECT_EQ(0, registerKey(kCoreUid, kCore, "volume", Scope::System, Type::Integer, true, "7"));
    EXPECT_EQ("volume|0|0|1000|nimbus.preferences.service.core|7|0|NULL", definition("volume"));
    EXPECT_EQ(0, registerKey(kAppUid, "nimbus.preferences.service.legacy", "volume", Scope::System,
                             Type::Integer, true, "7"));
    EXPECT_EQ("1010123|nimbus.preferences.service.legacy",
              scalar("SELECT owner_package_uid, owner_package_name FROM preferences"));
    // A package whose name only starts like a privileged one is not privileged.
    EXPECT_EQ(-9, registerKey(kOtherUid, "nimbus.preferences.service.core2", "volume",
                              Scope::System, Type::Integer, true, "7"));

    // Nobody owns "theme": the first package to claim it becomes its owner, and its declaration
    // applies in full.
    ASSERT_EQ(0, declare(kAppUid, kApp, "theme", Scope::User, Type::String, false, "dark"));
    EXPECT_EQ(-10,
              registerKey(kOtherUid, kOther, "theme", Scope::User, Type::String, false, "light"));
    EXPECT_EQ(0, registerKey(kOtherUid, kOther, "theme", Scope::User, Type::String, true, "light"));
    EXPECT_EQ("theme|2|1|1010456|com.example.other|light|0|NULL", definition("theme"));
}

TEST_F(StoreRegistrationTest, UnregisteringAPackageClearsOnlyTheOwnerUid) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    ASSERT_EQ(0, declare(kOtherUid, kOther, "volume", Scope::System, Type::Integer, false, "5"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "solo", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "solo", "3"));

    EXPECT_EQ(0, mStore->unregisterPackage(kAppUid, kApp));
    EXPECT_EQ("0", scalar("SELECT count(*) FROM packages WHERE package_name = 'com.example.app'"));
    EXPECT_EQ("com.example.other", scalar("SELECT group_concat(package_name) FROM permissions"));
    // "solo" lost its only permission: the trigger reaped it and the cascade its value.
    EXPECT_EQ((std::vector<std::string>{"volume"}), keys());
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preference_values"));
    // The owner uid is cleared, the owner name stays.
    EXPECT_EQ("volume|0|0|NULL|com.example.app|5|0|NULL", definition("volume"));
    std::optional<unsigned int> ownerUid = 1;
    std::optional<std::string> ownerName = "x";
    EXPECT_EQ(0, mStore->getPreferenceOwner("volume", ownerUid, ownerName));
    EXPECT_FALSE(ownerUid.has_value());
    EXPECT_FALSE(ownerName.has_value());

    LogCapture log;
    EXPECT_EQ(-7, mStore->unregisterPackage(kAppUid, kApp));
    EXPECT_TRUE(hasLogLine(log.text(), 'E',
                           "Unable to unregister package: package does not in packages table."));
}

TEST_F(StoreRegistrationTest, PermissionsAreReadAndReadWriteOnly) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5",
                         Permission::Read));
    Permission permission = Permission::None;
    EXPECT_EQ(0, mStore->getPreferencePermission("volume", kAppUid, permission));
    EXPECT_EQ(Permission::Read, permission);
    // Setting it again updates the row.
    EXPECT_EQ(0, mStore->setPreferencePermission("volume", kAppUid, kApp, Permission::ReadWrite));
    EXPECT_EQ("1", scalar("SELECT count(*) FROM permissions"));
    EXPECT_EQ(0, mStore->getPreferencePermission("volume", kAppUid, permission));
    EXPECT_EQ(Permission::ReadWrite, permission);
    // The highest permission of the uid under any package name.
    ASSERT_EQ(0, mStore->registerPackage(kAppUid, "com.example.app.second"));
    EXPECT_EQ(0, mStore->setPreferencePermission("volume", kAppUid, "com.example.app.second",
                                                 Permission::Read));
    EXPECT_EQ(0, mStore->getPreferencePermission("volume", kAppUid, permission));
    EXPECT_EQ(Permission::ReadWrite, permission);
    EXPECT_EQ(0, mStore->getPreferencePermission("volume", kOtherUid, permission));
    EXPECT_EQ(Permission::None, permission);

    LogCapture log;
    EXPECT_EQ(-13, mStore->setPreferencePermission("volume", kAppUid, kApp, Permission::None));
    EXPECT_EQ(-13,
              mStore->setPreferencePermission("volume", kAppUid, kApp, static_cast<Permission>(3)));
    // A key or package that does not exist fails the insert on a constraint: it becomes an
    // update, which finds no row to change.
    EXPECT_EQ(0, mStore->setPreferencePermission("missing", kAppUid, kApp, Permission::Read));
    EXPECT_EQ(0, mStore->setPreferencePermission("volume", kOtherUid, kOther, Permission::Read));
    EXPECT_EQ("2", scalar("SELECT count(*) FROM permissions"));
    EXPECT_EQ(0, mStore->getPreferencePermission("volume", kAppUid, permission));
    EXPECT_EQ(Permission::ReadWrite, permission);
    EXPECT_TRUE(hasLogLine(log.text(), 'E',
                           "volume Invalid permission provided to registering permission: 3"));
    EXPECT_EQ(0u, Telemetry::count("setpreferencepermission_error_prepared_statement"));
}

// A package that comes back with a new schema: the keys it no longer declares are swept with
// their values in every user database and their listener rows; the others stay.
TEST_F(StoreRegistrationTest, ReRegistrationMarksAndTheSweepRemovesUndeclaredKeys) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "kept", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "dropped", Scope::User, Type::String, true, "a"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "shared", Scope::Cross, Type::String, true, "b"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "systemGone", Scope::System, Type::String, true, "c"));
    ASSERT_EQ(0, declare(kOtherUid, kOther, "shared", Scope::Cross, Type::String, false, "b"));
    ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "kept", "2"));
    ASSERT_EQ(0, mStore->setPreferenceValue(std::nullopt, "systemGone", "z"));
    for (unsigned int user : {0u, 10u}) {
        ASSERT_EQ(0, mStore->setPreferenceValue(user, "dropped", "x"));
        ASSERT_EQ(0, mStore->setPreferenceValue(user, "shared", "y"));
    }
    unsigned int listenerId = 0;
    ASSERT_EQ(0, mStore->registerPreferenceListener(kAppUid, {"kept", "dropped"}, listenerId));

    // The new schema declares "kept" only. Registering the package again marks what only it
    // declares; clearing its permissions does not reap anything; re-registering clears the mark.
    EXPECT_EQ(0, mStore->registerPackage(kAppUid, kApp));
    EXPECT_EQ("1", expiresAt("kept"));
    EXPECT_EQ("1", expiresAt("dropped"));
    EXPECT_EQ("0", expiresAt("shared"));
    EXPECT_EQ(0, mStore->clearPermissionsForPackage(kAppUid, kApp));
    EXPECT_EQ("com.example.other", scalar("SELECT group_concat(package_name) FROM permissions"));
    EXPECT_EQ(4u, keys().size());
    EXPECT_EQ(0, registerKey(kAppUid, kApp, "kept", Scope::System, Type::Integer, true, "1"));
    EXPECT_EQ(0, mStore->setPreferencePermission("kept", kAppUid, kApp, Permission::ReadWrite));
    EXPECT_EQ("0", expiresAt("kept"));
    EXPECT_EQ((std::vector<std::string>{"dropped", "systemGone"}), expiredKeys());

    EXPECT_EQ(0, mStore->unregisterExpiredPreferences());
    EXPECT_EQ((std::vector<std::string>{"kept", "shared"}), keys());
    EXPECT_EQ("kept|2", scalar("SELECT * FROM preference_values"));
    for (unsigned int user : {0u, 10u}) {
        EXPECT_EQ("shared|y", scalar("SELECT * FROM preference_values", userDbFile(user))) << user;
    }
    std::vector<std::pair<unsigned int, unsigned int>> kept, dropped;
    EXPECT_EQ(0, mStore->getPreferenceListenersForKey("kept", kept));
    EXPECT_EQ(0, mStore->getPreferenceListenersForKey("dropped", dropped));
    EXPECT_EQ(1u, kept.size());
    EXPECT_TRUE(dropped.empty());
    // The trigger is back: a key losing its last permission is reaped at once again.
    EXPECT_EQ(0, mStore->unregisterPackage(kOtherUid, kOther));
    EXPECT_EQ((std::vector<std::string>{"kept"}), keys());
}

// Re-registering a package expires now each key on which no package of another uid and another
// name holds a permission. What a key carried before -- no expiry, one still to come, one passed
// or one that cannot be read -- must not change which keys the sweep then finds expired.
TEST_F(StoreRegistrationTest, ReRegistrationExpiresTheSameKeysWhateverTheyCarried) {
    constexpr const char* kSibling = "com.example.app.sibling";  // kApp's uid, another name
    ASSERT_EQ(0, declare(kAppUid, kApp, "alone", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "withSibling", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0,
              declare(kAppUid, kSibling, "withSibling", Scope::System, Type::Integer, false, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "withOther", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kOtherUid, kOther, "withOther", Scope::System, Type::Integer, false, "1"));
    const std::vector<std::string> stamped = {"alone", "withSibling"};
    const std::vector<std::string> all = {"alone", "withOther", "withSibling"};

    // No expiry: a sibling of the same uid does not keep a key alive, another package does.
    EXPECT_EQ(0, mStore->registerPackage(kAppUid, kApp));
    EXPECT_EQ(stamped, expiredKeys());

    // An expiry an hour away is brought forward.
    exec("UPDATE preferences SET expires_at = datetime('now', '+3600 seconds')");
    ASSERT_TRUE(expiredKeys().empty());
    EXPECT_EQ(0, mStore->registerPackage(kAppUid, kApp));
    EXPECT_EQ(stamped, expiredKeys());

    // Some keys expired long ago, one shared key never: the shared one stays unexpired.
    exec("UPDATE preferences SET expires_at = '2001-02-03 04:05:06'");
    exec("UPDATE preferences SET expires_at = NULL WHERE key = 'withOther'");
    EXPECT_EQ(0, mStore->registerPackage(kAppUid, kApp));
    EXPECT_EQ(stamped, expiredKeys());

    // Every key expired already, as a restart list leaves them before re-registering: they stay
    // expired, and keep their stamps -- restamping each would cost a scan of all permissions.
    exec("UPDATE preferences SET expires_at = '2001-02-03 04:05:06'");
    EXPECT_EQ(0, mStore->registerPackage(kAppUid, kApp));
    EXPECT_EQ(all, expiredKeys());
    EXPECT_EQ("3", scalar("SELECT count(*) FROM preferences WHERE expires_at = '2001-02-03 "
                          "04:05:06'"));

    // An expiry that cannot be read is no expiry: the key is stamped.
    exec("UPDATE preferences SET expires_at = 'soon' WHERE key = 'alone'");
    ASSERT_EQ((std::vector<std::string>{"withOther", "withSibling"}), expiredKeys());
    EXPECT_EQ(0, mStore->registerPackage(kAppUid, kApp));
    EXPECT_EQ(all, expiredKeys());

    // What the sweep then removes follows.
    EXPECT_EQ(0, mStore->unregisterExpiredPreferences());
    EXPECT_TRUE(keys().empty());
}

// The trigger reaps a key without touching user databases. Declared again, here by another
// package, the key finds the values they kept; declaring it opens no user database.
TEST_F(StoreRegistrationTest, AKeyDeclaredAgainFindsTheValuesItsUsersDatabasesKept) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "token", Scope::Cross, Type::String, true, "none"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "hint", Scope::User, Type::String, true, "none"));
    ASSERT_EQ(0, mStore->setPreferenceValue(0u, "token", "secret0"));
    ASSERT_EQ(0, mStore->setPreferenceValue(10u, "token", "secret10"));
    ASSERT_EQ(0, mStore->setPreferenceValue(10u, "hint", "h10"));
    ASSERT_EQ(0, mStore->unregisterPackage(kAppUid, kApp));
    ASSERT_TRUE(keys().empty());
    reopenStore();

    ASSERT_EQ(0, declare(kOtherUid, kOther, "token", Scope::Cross, Type::String, true, "fresh"));
    ASSERT_EQ(0, declare(kOtherUid, kOther, "hint", Scope::User, Type::String, true, "fresh"));
    EXPECT_EQ("secret0", read(0u, "token"));
    EXPECT_EQ("secret10", read(10u, "token"));
    EXPECT_EQ("h10", read(10u, "hint"));
}

// Within a batch the sweep reads the directory once and keeps the list in step with the user
// databases: one deleted afterwards is not created again, one created afterwards is reached.
TEST_F(StoreRegistrationTest, SweepsWithinABatchFollowTheUserDatabases) {
    // Each key is held by a package of its own, which expires it by registering again.
    const std::vector<std::string> keys = {"first", "second", "third"};
    for (unsigned int i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(0, declare(kAppUid + 1 + i, keys[i], keys[i], Scope::Cross, Type::String, true,
                             "none"));
    }
    ASSERT_EQ(0, mStore->setPreferenceValue(10u, "first", "1"));
    const auto expireAndSweep = [&](const std::string& key) {
        const unsigned int uid =
                kAppUid + 1 + (std::find(keys.begin(), keys.end(), key) - keys.begin());
        EXPECT_EQ(0, mStore->registerPackage(uid, key));
        return mStore->unregisterExpiredPreferences();
    };
    ASSERT_EQ(0, mStore->beginBatch());
    EXPECT_EQ(0, expireAndSweep("first"));
    ASSERT_EQ(0, mStore->deleteUserData(10));
    expireAndSweep("second");
    EXPECT_FALSE(fileExists("user10.db"));
    ASSERT_EQ(0, mStore->setPreferenceValue(20u, "third", "3"));
    EXPECT_EQ(0, expireAndSweep("third"));
    ASSERT_EQ(0, mStore->commitBatch());
    EXPECT_EQ("0", scalar("SELECT count(*) FROM preference_values", userDbFile(20)));
    EXPECT_FALSE(fileExists("user10.db"));
}

TEST_F(StoreRegistrationTest, ServicePackagesKeepTheirPermissionsAndMarks) {
    ASSERT_EQ(0, declare(kCoreUid, kCore, "version", Scope::System, Type::Integer, true, "1"));
    EXPECT_EQ(0, mStore->registerPackage(kCoreUid, kCore));
    EXPECT_EQ("0", expiresAt("version"));
    EXPECT_EQ(0, mStore->clearPermissionsForPackage(kCoreUid, kCore));
    EXPECT_EQ("1", scalar("SELECT count(*) FROM permissions"));
}

TEST_F(StoreRegistrationTest, DomainsLimitMarkingOwnerClearingAndMissingPackages) {
    ASSERT_EQ(0, declare(kCoreUid, kCore, "legacyKey", Scope::Cross, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kNativeUid, kNative, "nativeKey", Scope::Cross, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "appKey", Scope::Cross, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kOtherUid, kOther, "otherKey", Scope::System, Type::Integer, false, "1"));

    // A 60-second mark on the application keys: one minute from now, not yet expired.
    EXPECT_EQ(0, mStore->markPreferencesForExpiration(seconds(60), KeySourceDomain::Application));
    EXPECT_EQ((std::vector<std::string>{"appKey|60", "otherKey|60"}),
              query("SELECT key, strftime('%s', expires_at) - strftime('%s', 'now') FROM "
                    "preferences WHERE expires_at IS NOT NULL ORDER BY key"));
    EXPECT_TRUE(expiredKeys().empty());
    EXPECT_EQ(0, mStore->markPreferencesForExpiration(seconds(0), KeySourceDomain::NativeService));
    EXPECT_EQ((std::vector<std::string>{"nativeKey"}), expiredKeys());

    // Owners are cleared per domain.
    EXPECT_EQ(0, mStore->clearPreferenceOwnerForNonMigrationKeys(KeySourceDomain::NativeService));
    EXPECT_EQ("appKey|com.example.app|legacyKey|nimbus.preferences.service.core",
              scalar("SELECT group_concat(key || '|' || owner_package_name, '|') FROM (SELECT * "
                     "FROM preferences WHERE owner_package_name IS NOT NULL ORDER BY key)"));
    EXPECT_EQ(0, mStore->clearPreferenceOwnerForNonMigrationKeys(KeySourceDomain::Application));
    EXPECT_EQ("legacyKey", scalar("SELECT key FROM preferences WHERE owner_package_uid IS NOT "
                                  "NULL"));

    // Cross keys not owned by the service become user keys.
    EXPECT_EQ(0, mStore->downGradeScopeForPackage());
    EXPECT_EQ((std::vector<std::string>{"appKey|1", "legacyKey|2", "nativeKey|1", "otherKey|0"}),
              query("SELECT key, scope FROM preferences ORDER BY key"));

    // Only packages of the given domain that are missing from the set go.
    EXPECT_EQ(0,
              mStore->unregisterMissingPackages({{kAppUid, kApp}}, KeySourceDomain::Application));
    EXPECT_EQ((std::vector<std::string>{"com.example.app", "nimbus.preferences.native.audio",
                                        "nimbus.preferences.service.core"}),
              query("SELECT package_name FROM packages ORDER BY package_name"));
    EXPECT_EQ(0, mStore->unregisterMissingPackages({}, KeySourceDomain::Legacy));
    EXPECT_EQ((std::vector<std::string>{"appKey", "nativeKey"}), keys());
}

TEST_F(StoreRegistrationTest, OrphanedKeysAreMarked) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "held", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "orphan", Scope::System, Type::Integer, false, "1"));
    ASSERT_EQ(0, declare(kAppUid, kApp, "ownedOrphan", Scope::System, Type::Integer, true, "1"));
    ASSERT_EQ(0, mStore->clearPermissionsForPackage(kAppUid, kApp));
    ASSERT_EQ(0, mStore->setPreferencePermission("held", kAppUid, kApp, Permission::Read));

    // Without permission: "orphan" has no owner; "ownedOrphan"'s owner is a known package.
    EXPECT_EQ(0, mStore->markOrphanedPreferencesForExpiration(seconds(0)));
    EXPECT_EQ((std::vector<std::string>{"held|0", "orphan|1", "ownedOrphan|0"}),
              query("SELECT key, expires_at IS NOT NULL FROM preferences ORDER BY key"));
    EXPECT_EQ(0, mStore->unregisterExpiredPreferences());
    EXPECT_EQ((std::vector<std::string>{"held", "ownedOrphan"}), keys());
}

TEST_F(StoreRegistrationTest, UnknownKeysAndBadOwners) {
    ASSERT_EQ(0, declare(kAppUid, kApp, "volume", Scope::System, Type::Integer, true, "5"));
    Scope scope;
    Type type;
    std::optional<unsigned int> uid;
    std::optional<std::string> name;
    {
        LogCapture quiet;
        EXPECT_EQ(-8, mStore->getPreferenceScope("missing", scope, true));
        EXPECT_EQ("", quiet.text());
    }
    LogCapture log;
    EXPECT_EQ(-8, mStore->getPreferenceScope("missing", scope, false));
    EXPECT_EQ(-8, mStore->getPreferenceType("missing", type));
    EXPECT_EQ(-8, mStore->getPreferenceOwner("missing", uid, name));
    // An owner uid without a package name.
    EXPECT_EQ(-9, mStore->registerPreference(kAppUid, kApp, "volume", Scope::System, Type::Integer,
                                             kAppUid, std::nullopt, "5"));
    EXPECT_EQ(0, mStore->getPreferenceOwner("volume", uid, name));
    EXPECT_EQ(kAppUid, uid.value_or(0));
    EXPECT_EQ(kApp, name.value_or(""));
    EXPECT_EQ(0, mStore->getPreferenceType("volume", type));
    EXPECT_EQ(Type::Integer, type);
    EXPECT_EQ("", missingLogLines(log.text(), 'E',
                                  {"Unable to get scope: missing does not exist in table.",
                                   "Unable to get owner: missing does not exist.",
                                   "Unable to set volume owner, either both owner id and name or "
                                   "neither must be specified."}));
    EXPECT_EQ(1u, Telemetry::count("getpreferencetype_error_unregistered_key"));
    EXPECT_EQ(1u, Telemetry::count("getpreferenceowner_error_key_not_exist"));
}

}  // namespace
}  // namespace Halo::OS::testing
