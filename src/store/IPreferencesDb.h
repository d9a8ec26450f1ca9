#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "model/KeySourceDomain.h"
#include "model/PreferencesKeyInfo.h"

namespace Halo::OS {

// The preference store: key definitions, packages, permissions, values and listener rows.
//
// The key manager owns the one instance and is its only caller; it serialises every call under
// its main mutex, so implementations need no lock of their own. Every operation that returns an
// int32_t returns 0 on success and a negative status on failure:
//   -1  a statement could not be reset, bound or stepped, or a raw query failed
//   -2  a database file could not be opened
//   -3  the database of the scope is not open
//   -4  a table, trigger, pragma or prepared statement could not be created
//   -5  a database could not be closed, or SQLite could not be shut down
//   -6  duplicate package          -7  unknown package        -8  unknown key or row
//   -9  owner refused              -10 change by a non-owner  -11 duplicate listener row
//   -12 no listener row to remove  -13 invalid permission     -14 a user id is required
//   -15 no user connection to close, or a user's database file could not be removed
//   -16 a schema upgrade step failed
// User ids are Android user ids; uids are Android uids; values are text in the value encoding of
// the key's type. The declaration order below is the order of the virtual slots.
class IPreferencesDb {
public:
    using Type = PreferencesKeyInfo::Type;
    using PreferenceScope = PreferencesKeyInfo::PreferenceScope;
    using PreferencePermission = PreferencesKeyInfo::PreferencePermission;
    // (uid, package name) pairs.
    using PackageSet = std::set<std::pair<unsigned int, const std::string>>;

    // Closes every database (as uninitialize()).
    virtual ~IPreferencesDb() = default;

    // Opens the system database, attaches the in-memory listener database, creates missing tables
    // and prepares the statements. A second call on an open store does nothing.
    virtual int32_t initialize() = 0;
    // Rebuilds a version-0 `preferences` table in the version-1 layout; does not stamp a version.
    virtual int32_t upgradeVersionFromV0ToV1() = 0;
    // The system database's user_version, or -1.
    virtual int32_t getDatabaseUserVersion() = 0;
    // Adds the `migration` column and stamps version 2; a table that has it is left untouched.
    virtual int32_t upgradeVersionFromV1ToV2() = 0;
    // Closes the system database, then the user databases in ascending id order, then shuts
    // SQLite down. No other SQLite connection of the process may be open at that time.
    virtual int32_t uninitialize() = 0;

    // Adds a package row. A package that is already known is being re-registered: the keys only
    // it holds a permission on are marked as expired now (its new schema clears the mark of the
    // keys it still declares).
    virtual int32_t registerPackage(unsigned int uid, const std::string& packageName) = 0;
    // Removes a package row with its permissions (keys left without permission are reaped) and
    // clears its ownership. -7 when the package is unknown.
    virtual int32_t unregisterPackage(unsigned int uid, const std::string& packageName) = 0;
    // Unregisters every known package of `domain` that is not in `present`. Goes on after a
    // failed package and returns the first failure.
    virtual int32_t unregisterMissingPackages(const PackageSet& present,
                                              KeySourceDomain domain) = 0;
    // Inserts a new key, or applies the requested owner, scope, type and default changes to an
    // existing one (and clears its expiry mark). Owner uid and name are both given or both absent.
    virtual int32_t registerPreference(unsigned int requesterUid,
                                       const std::string& requesterPackage, const std::string& key,
                                       PreferenceScope scope, Type type,
                                       const std::optional<unsigned int>& ownerUid,
                                       const std::optional<std::string>& ownerPackage,
                                       const std::optional<std::string>& defaultValue) = 0;
    // Stamps every key of `domain` to expire `delay` from now.
    virtual int32_t markPreferencesForExpiration(std::chrono::seconds delay,
                                                 KeySourceDomain domain) = 0;
    // Stamps keys without any permission and without a known owner package.
    virtual int32_t markOrphanedPreferencesForExpiration(std::chrono::seconds delay) = 0;
    // Deletes expired keys with their values in every database and their listener rows.
    virtual int32_t unregisterExpiredPreferences() = 0;
    // Turns Cross keys not owned by a "nimbus.preferences.service" package into User keys.
    virtual int32_t downGradeScopeForPackage() = 0;

    // The current value of `key` for `userId`, or its default when none is stored. A User key
    // needs userId == currentUserId (else -14); a Cross key needs a userId (else -14).
    virtual int32_t getPreferenceValue(const std::optional<unsigned int>& userId,
                                       const std::string& key,
                                       std::optional<std::string>& value) = 0;
    virtual int32_t getPreferenceValue(const std::optional<unsigned int>& userId,
                                       const std::optional<unsigned int>& currentUserId,
                                       const std::string& key,
                                       std::optional<std::string>& value) = 0;
    // Stores the current value; returns only after it is committed. A User key needs
    // userId == currentUserId (else -1); User and Cross keys need a userId (else -14).
    virtual int32_t setPreferenceValue(const std::optional<unsigned int>& userId,
                                       const std::string& key, const std::string& value) = 0;
    virtual int32_t setPreferenceValue(const std::optional<unsigned int>& userId,
                                       const std::optional<unsigned int>& currentUserId,
                                       const std::string& key, const std::string& value) = 0;
    // Replaces the default value; -8 when the key is unknown.
    virtual int32_t setPreferenceDefault(const std::string& key, const std::string& value) = 0;
    // Removes the current value, so that reads fall back to the default.
    virtual int32_t clearCurrentPreferenceValue(const std::optional<unsigned int>& userId,
                                                const std::string& key) = 0;

    // -8 for an unknown key; `quiet` suppresses the log line of that case.
    virtual int32_t getPreferenceScope(const std::string& key, PreferenceScope& scope,
                                       bool quiet) = 0;
    virtual int32_t getPreferenceType(const std::string& key, Type& type) = 0;
    // Both outputs are empty when the key has no owner uid.
    virtual int32_t getPreferenceOwner(const std::string& key, std::optional<unsigned int>& uid,
                                       std::optional<std::string>& packageName) = 0;
    virtual int32_t clearPreferenceOwnerForNonMigrationKeys(KeySourceDomain domain) = 0;
    // Inserts or updates a package's permission on a key; only Read and ReadWrite are accepted
    // (else -13).
    virtual int32_t setPreferencePermission(const std::string& key, unsigned int uid,
                                            const std::string& packageName,
                                            PreferencePermission permission) = 0;
    // The highest permission `uid` holds on `key` under any package name; None when it has none.
    virtual int32_t getPreferencePermission(const std::string& key, unsigned int uid,
                                            PreferencePermission& permission) = 0;
    // Deletes the package's permissions without reaping keys (the expiry sweep removes keys
    // that are left without permission). Permissions of "nimbus.preferences.service" packages
    // are kept.
    virtual int32_t clearPermissionsForPackage(unsigned int uid,
                                               const std::string& packageName) = 0;

    // Allocates a listener id (one more than the highest in use, 1 when none) and inserts one
    // row per key. Rows inserted before a failure stay; the id is handed back and stays in use,
    // with or without rows, until unregisterPreferenceListener releases it.
    virtual int32_t registerPreferenceListener(unsigned int uid,
                                               const std::vector<std::string>& keys,
                                               unsigned int& listenerId) = 0;
    // Deletes the listener's rows and releases its id; -12 when it has none for that uid (the id
    // is released all the same).
    virtual int32_t unregisterPreferenceListener(unsigned int uid, unsigned int listenerId) = 0;
    // Appends (package uid, listener id) for each listener row of `key`.
    virtual int32_t getPreferenceListenersForKey(
            const std::string& key,
            std::vector<std::pair<unsigned int, unsigned int>>& listeners) = 0;
    // Appends the listener id of each row of `uid` (an id occurs once per key).
    virtual int32_t getPreferenceListenersIdsForPackage(unsigned int uid,
                                                        std::vector<unsigned int>& listenerIds) = 0;

    // Drops every table, closes every database and opens the system database afresh.
    virtual int32_t reset() = 0;
    // Write every table (respectively the `preferences` table) as text to `fd`.
    virtual int32_t dumpDatabases(int fd) = 0;
    virtual int32_t dumpPreferencesTable(int fd) = 0;
    // Closes the user's database and removes its file with its -journal, -wal and -shm files.
    virtual int32_t deleteUserData(unsigned int userId) = 0;
    // BEGIN and COMMIT on the system database; user databases always autocommit.
    virtual int32_t beginBatch() = 0;
    virtual int32_t commitBatch() = 0;
    // Deletes the data of every user that has a database file and is not in `userIds`; stops at
    // the first failure.
    virtual int32_t updateUserList(const std::vector<int>& userIds) = 0;

    // The CREATE statement of the `preferences` table.
    virtual const char* getQueryCreatePreferencesMapTable() const = 0;
    virtual std::string getUserDbPath(unsigned int userId) const = 0;
    virtual std::string getSystemDbPath() const = 0;
    // Appends the ids of the users that have a database file (unsorted); false when the
    // directory cannot be read.
    virtual bool getUserIdsForExistingDbs(std::vector<unsigned int>& userIds) = 0;

    // One declared key as the store holds it. The owner is absent when the key has no owner uid
    // (as getPreferenceOwner); the default is absent when the row holds none.
    struct PreferenceDefinition {
        std::string key;
        Type type = Type::NoType;
        PreferenceScope scope = PreferenceScope::System;
        std::optional<std::string> ownerPackage;
        std::optional<std::string> defaultValue;
    };
    // Appends the definition of every declared key, expired or not, in ascending key order; with
    // `key`, only that key's (-8 when it is not declared). -1 when the query fails, -3 when the
    // system database is not open.
    virtual int32_t getPreferenceDefinitions(const std::optional<std::string>& key,
                                             std::vector<PreferenceDefinition>& definitions) = 0;
};

}  // namespace Halo::OS
