#include "store/DirectoryPreferencesDb.h"

#include <utility>

namespace Halo::OS {

DirectoryPreferencesDb::DirectoryPreferencesDb(std::string directory)
    : mDirectory(std::move(directory)) {
    while (mDirectory.size() > 1 && mDirectory.back() == '/') mDirectory.pop_back();
}

std::string DirectoryPreferencesDb::getUserDbPath(unsigned int userId) const {
    return mDirectory + (mDirectory == "/" ? "" : "/") + "user" + std::to_string(userId) + ".db";
}

std::string DirectoryPreferencesDb::getSystemDbPath() const {
    return mDirectory + (mDirectory == "/" ? "" : "/") + "system.db";
}

bool DirectoryPreferencesDb::getUserIdsForExistingDbs(std::vector<unsigned int>& userIds) {
    return getUserIdsInDirectory(mDirectory, userIds);
}

}  // namespace Halo::OS
