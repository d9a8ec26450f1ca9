#pragma once

#include <string>
#include <vector>

#include "store/Sqlite3PreferencesDb.h"

namespace Halo::OS {

// The SQLite preference store with its files in a chosen directory instead of the device's
// "/data/nimbus/preferences/": "system.db" and "userN.db" in `directory`. The daemon uses it for
// its --data-dir; tests use it with temporary directories. Like the base store, it does not
// create the directory: it must exist before initialize().
class DirectoryPreferencesDb : public Sqlite3PreferencesDb {
public:
    // `directory` may end with a slash or not.
    explicit DirectoryPreferencesDb(std::string directory);

    std::string getUserDbPath(unsigned int userId) const override;
    std::string getSystemDbPath() const override;
    bool getUserIdsForExistingDbs(std::vector<unsigned int>& userIds) override;

    // The directory, without a trailing slash (except for "/").
    const std::string& directory() const { return mDirectory; }

private:
    std::string mDirectory;
};

}  // namespace Halo::OS
