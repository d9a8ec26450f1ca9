#pragma once

#include <string>
#include <vector>

#include "store/Sqlite3PreferencesDb.h"

namespace Halo::OS {

// The SQLite preference store with its files in a chosen directory instead of the device's
// "/data/nimbus/preferences/": "system.db" and "userN.db" in `directory`. The daemon uses it for
// its --data-dir; tests use it with temporary directories. Like the base store, it does not
// create the directory: it must exist before initialize().
//
// A database is only opened when it and the files SQLite keeps beside it (journal, write-ahead
// log, shared memory) are regular files of this process's effective uid that group and others
// may not write, or do not exist yet: a file planted by someone else is never read or applied.
// A refused database fails to open as when SQLite cannot open it (logged with the reason).
class DirectoryPreferencesDb : public Sqlite3PreferencesDb {
public:
    // `directory` may end with a slash or not.
    explicit DirectoryPreferencesDb(std::string directory);

    std::string getUserDbPath(unsigned int userId) const override;
    std::string getSystemDbPath() const override;
    bool getUserIdsForExistingDbs(std::vector<unsigned int>& userIds) override;

    // The directory, without a trailing slash (except for "/").
    const std::string& directory() const { return mDirectory; }

protected:
    bool mayOpenDatabase(const std::string& path) const override;

private:
    std::string mDirectory;
};

}  // namespace Halo::OS
