#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "keyvaluestore/KeyValueStore.h"

namespace Halo::OS {

// Reads and deletes the legacy settings databases that the older settings service left on the
// device: one system database (table "system_settings") and one database per Android user
// (table "user_settings"), all in one directory. A user's file is
// directory + user prefix + decimal user id + ".db", for example "/data/nimbus/settings/user10.db".
// The file format is that of KeyValueStore.
//
// Used by the legacy migration on the start-up thread only; not thread-safe.
class LegacySettingsDbHelper {
public:
    static constexpr const char* kDefaultDirectory = "/data/nimbus/settings/";
    static constexpr const char* kDefaultSystemDbName = "system.db";
    static constexpr const char* kDefaultUserDbPrefix = "user";
    static constexpr const char* kSystemTable = "system_settings";
    static constexpr const char* kUserTable = "user_settings";

    // Opens the system database unless its file is missing from `directory` while `readOnly` is
    // set; a file that is not a valid legacy database is not kept open. A `directory` without a
    // trailing '/' gets one. `extraFlag` is stored for the callers that pass it; no operation here
    // consults it.
    explicit LegacySettingsDbHelper(std::string directory = kDefaultDirectory,
                                    std::string systemDbName = kDefaultSystemDbName,
                                    std::string userDbPrefix = kDefaultUserDbPrefix,
                                    bool readOnly = true, bool extraFlag = true);

    bool isSystemDatabaseAvailable() const;
    // Whether the database of `userId` is open or could be opened now (it is then kept open). A
    // read-only helper never creates a missing user file.
    bool isUserDatabaseAvailable(int userId);

    // The stored text of `key`, or `defaultValue` when the database is unavailable or the key has
    // no value.
    std::string getSystemSetting(const std::string& key, const std::string& defaultValue) const;
    std::string getUserSetting(const std::string& key, const std::string& defaultValue, int userId);
    // False when the helper is read-only, the database is unavailable or the write failed.
    bool setSystemSetting(const std::string& key, const std::string& value);
    bool setUserSetting(const std::string& key, const std::string& value, int userId);

    // The user ids of the user databases in the directory, ascending: every entry named exactly
    // like the file of a user id (user prefix + decimal id without leading zeros + ".db").
    // Companion files ("user10.db-journal") and other names are not user databases. Empty when
    // the directory cannot be read.
    std::vector<int> getUserIds() const;

    // Closes the system database and removes its file and its SQLite companions ("-journal",
    // "-wal", "-shm"). True when nothing was open, or when the removal succeeded.
    bool deleteSystemDatabase();
    // Forgets the open database of `userId` and removes its file and companions. A missing file
    // counts as success.
    bool deleteUserSettingsDb(int userId);
    // Closes every user database, then removes the file of every id of getUserIds(). A file that
    // cannot be removed is logged ("%d: legacy database is unable to be deleted") and makes the
    // result false; the others are still removed.
    bool deleteAllUserDbs();
    // Both of the above; true only when both succeeded.
    bool deleteSystemAndAllUserDbs();

    // Whether `directory` holds an entry called `name` (read with opendir/readdir). False when
    // the directory cannot be read.
    static bool doesFileExist(const std::string& directory, const std::string& name);

    const std::string& directory() const { return mDirectory; }
    const std::string& systemDbName() const { return mSystemDbName; }
    const std::string& userDbPrefix() const { return mUserDbPrefix; }
    bool isReadOnly() const { return mReadOnly; }
    bool extraFlag() const { return mExtraFlag; }
    // Full path of the database of `userId`.
    std::string userDbPath(int userId) const;

private:
    std::string userDbName(int userId) const;
    // The open store of `userId`, opened on first use; null when unavailable.
    KeyValueStore* userStore(int userId);
    // Removes `path` and its SQLite companions; a missing file counts as removed.
    static bool removeDatabaseFiles(const std::string& path);

    std::string mDirectory;
    std::string mSystemDbName;
    std::string mUserDbPrefix;
    bool mReadOnly;
    bool mExtraFlag;
    std::unique_ptr<KeyValueStore> mSystemStore;
    std::map<int, std::shared_ptr<KeyValueStore>> mUserStores;
};

}  // namespace Halo::OS
