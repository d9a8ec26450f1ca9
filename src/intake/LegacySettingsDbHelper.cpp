#define LOG_TAG "PreferencesService"

#include "intake/LegacySettingsDbHelper.h"

#include <dirent.h>
#include <log/log.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Halo::OS {
namespace {

constexpr const char* kDbSuffix = ".db";
// Files SQLite keeps next to a database while it is written or in write-ahead-log mode.
constexpr const char* kCompanionSuffixes[] = {"-journal", "-wal", "-shm"};

std::string withTrailingSlash(std::string directory) {
    if (!directory.empty() && directory.back() != '/') directory.push_back('/');
    return directory;
}

// Removes `path`; a file that is already gone counts as removed.
bool removeIfPresent(const std::string& path) {
    if (remove(path.c_str()) == 0 || errno == ENOENT) return true;
    ALOGE("unable to remove %s: %s", path.c_str(), strerror(errno));
    return false;
}

}  // namespace

LegacySettingsDbHelper::LegacySettingsDbHelper(std::string directory, std::string systemDbName,
                                               std::string userDbPrefix, bool readOnly,
                                               bool extraFlag)
    : mDirectory(withTrailingSlash(std::move(directory))),
      mSystemDbName(std::move(systemDbName)),
      mUserDbPrefix(std::move(userDbPrefix)),
      mReadOnly(readOnly),
      mExtraFlag(extraFlag) {
    if (mReadOnly && !doesFileExist(mDirectory, mSystemDbName)) return;
    mSystemStore = std::make_unique<KeyValueStore>(mDirectory + mSystemDbName, kSystemTable);
    if (!mSystemStore->isValid()) {
        ALOGE("legacy system database %s%s is not usable", mDirectory.c_str(),
              mSystemDbName.c_str());
        mSystemStore.reset();
    }
}

bool LegacySettingsDbHelper::isSystemDatabaseAvailable() const {
    return mSystemStore != nullptr;
}

bool LegacySettingsDbHelper::isUserDatabaseAvailable(int userId) {
    return userStore(userId) != nullptr;
}

std::string LegacySettingsDbHelper::getSystemSetting(const std::string& key,
                                                     const std::string& defaultValue) const {
    if (mSystemStore == nullptr) return defaultValue;
    return mSystemStore->get(key).value_or(defaultValue);
}

std::string LegacySettingsDbHelper::getUserSetting(const std::string& key,
                                                   const std::string& defaultValue, int userId) {
    KeyValueStore* store = userStore(userId);
    if (store == nullptr) return defaultValue;
    return store->get(key).value_or(defaultValue);
}

bool LegacySettingsDbHelper::setSystemSetting(const std::string& key, const std::string& value) {
    if (mReadOnly || mSystemStore == nullptr) return false;
    return mSystemStore->set(key, value);
}

bool LegacySettingsDbHelper::setUserSetting(const std::string& key, const std::string& value,
                                            int userId) {
    if (mReadOnly) return false;
    KeyValueStore* store = userStore(userId);
    return store != nullptr && store->set(key, value);
}

std::vector<int> LegacySettingsDbHelper::getUserIds() const {
    std::vector<int> ids;
    DIR* dir = opendir(mDirectory.c_str());
    if (dir == nullptr) {
        if (errno == ENOENT) {
            ALOGD("no legacy settings directory %s", mDirectory.c_str());
        } else {
            ALOGE("unable to read legacy settings directory %s: %s", mDirectory.c_str(),
                  strerror(errno));
        }
        return ids;
    }
    const size_t prefixLength = mUserDbPrefix.size();
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefixLength, mUserDbPrefix) != 0) continue;
        const char* digits = name.c_str() + prefixLength;
        if (!isdigit(static_cast<unsigned char>(*digits))) continue;
        char* end = nullptr;
        errno = 0;
        const long id = strtol(digits, &end, 10);
        if (errno == ERANGE || id > INT_MAX || strcmp(end, kDbSuffix) != 0) continue;
        // "user07.db" is not the file of user 7, which would be "user7.db".
        if (name != userDbName(static_cast<int>(id))) continue;
        ids.push_back(static_cast<int>(id));
    }
    if (closedir(dir) != 0) ALOGE("close dir() failed, reason: %s", strerror(errno));
    std::sort(ids.begin(), ids.end());
    return ids;
}

bool LegacySettingsDbHelper::deleteSystemDatabase() {
    if (mSystemStore == nullptr) return true;
    mSystemStore.reset();
    return removeDatabaseFiles(mDirectory + mSystemDbName);
}

bool LegacySettingsDbHelper::deleteUserSettingsDb(int userId) {
    mUserStores.erase(userId);
    return removeDatabaseFiles(userDbPath(userId));
}

bool LegacySettingsDbHelper::deleteAllUserDbs() {
    mUserStores.clear();
    bool result = true;
    for (int userId : getUserIds()) {
        if (!removeDatabaseFiles(userDbPath(userId))) {
            ALOGE("%d: legacy database is unable to be deleted", userId);
            result = false;
        }
    }
    return result;
}

bool LegacySettingsDbHelper::deleteSystemAndAllUserDbs() {
    const bool system = deleteSystemDatabase();
    const bool users = deleteAllUserDbs();
    return system && users;
}

bool LegacySettingsDbHelper::doesFileExist(const std::string& directory, const std::string& name) {
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) return false;
    bool found = false;
    while (const dirent* entry = readdir(dir)) {
        if (name == entry->d_name) {
            found = true;
            break;
        }
    }
    if (closedir(dir) != 0) ALOGE("close dir() failed, reason: %s", strerror(errno));
    return found;
}

std::string LegacySettingsDbHelper::userDbName(int userId) const {
    return mUserDbPrefix + std::to_string(userId) + kDbSuffix;
}

std::string LegacySettingsDbHelper::userDbPath(int userId) const {
    return mDirectory + userDbName(userId);
}

KeyValueStore* LegacySettingsDbHelper::userStore(int userId) {
    if (userId < 0) return nullptr;
    auto it = mUserStores.find(userId);
    if (it != mUserStores.end()) return it->second.get();
    if (mReadOnly && !doesFileExist(mDirectory, userDbName(userId))) return nullptr;
    auto store = std::make_shared<KeyValueStore>(userDbPath(userId), kUserTable);
    if (!store->isValid()) {
        ALOGE("legacy user database %s is not usable", userDbPath(userId).c_str());
        return nullptr;
    }
    return mUserStores.emplace(userId, std::move(store)).first->second.get();
}

bool LegacySettingsDbHelper::removeDatabaseFiles(const std::string& path) {
    bool removed = removeIfPresent(path);
    for (const char* suffix : kCompanionSuffixes) {
        removed = removeIfPresent(path + suffix) && removed;
    }
    return removed;
}

}  // namespace Halo::OS
