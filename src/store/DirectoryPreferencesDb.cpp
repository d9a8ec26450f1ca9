#define LOG_TAG "PreferencesService"

#include "store/DirectoryPreferencesDb.h"

#include <log/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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

bool DirectoryPreferencesDb::mayOpenDatabase(const std::string& path) const {
    std::vector<std::string> files = {path};
    for (const char* suffix : kCompanionSuffixes) files.push_back(path + suffix);
    for (const std::string& file : files) {
        struct stat st {};
        if (lstat(file.c_str(), &st) != 0) {
            if (errno == ENOENT) continue;
            ALOGE("Refusing to open %s: cannot examine %s: %s", path.c_str(), file.c_str(),
                  strerror(errno));
            return false;
        }
        if (!S_ISREG(st.st_mode) || st.st_uid != geteuid() ||
            (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            ALOGE("Refusing to open %s: %s is not a private file of uid %u (type and mode %06o, "
                  "uid %u)",
                  path.c_str(), file.c_str(), geteuid(), st.st_mode, st.st_uid);
            return false;
        }
    }
    return true;
}

bool DirectoryPreferencesDb::getUserIdsForExistingDbs(std::vector<unsigned int>& userIds) {
    return getUserIdsInDirectory(mDirectory, userIds);
}

}  // namespace Halo::OS
