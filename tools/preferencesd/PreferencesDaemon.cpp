#define LOG_TAG "PreferencesService"

#include "PreferencesDaemon.h"

#include "StoreRecovery.h"

#include <binder/IServiceManager.h>
#include <log/log.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utils/String16.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "binder/DirectoryTrust.h"
#include "intake/PreferencesDeviceConfig.h"
#include "intake/PreferencesVersionManager.h"
#include "keymanager/PreferencesKeyManager.h"
#include "properties/SystemProperties.h"
#include "store/DirectoryPreferencesDb.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

constexpr const char* kDefaultBinderDir = "/run/binder";
// The services whose answers the daemon acts on: whoever serves them decides every caller's
// permissions and the installed packages.
constexpr const char* kTrustedServices[] = {"permission", "PreferencesAppInfoInquirer"};

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string join(const std::string& directory, const char* name) {
    return directory == "/" ? directory + name : directory + "/" + name;
}

// Creates `directory` and its parents when missing; a directory made here gets `mode`. False,
// with the reason in `*error`, when it cannot be made or is not a directory.
bool makeDirectory(const std::string& directory, mode_t mode, const char* what,
                   std::string* error) {
    std::error_code code;
    const bool created = std::filesystem::create_directories(directory, code);
    if (code) {
        *error = std::string("cannot create ") + what + " " + directory + ": " + code.message();
        return false;
    }
    if (!std::filesystem::is_directory(directory, code)) {
        *error = std::string(what) + " " + directory + " is not a directory";
        return false;
    }
    if (created) chmod(directory.c_str(), mode);
    return true;
}

// False, with the reason in `*error`, when others may write `directory` (see DirectoryTrust);
// a directory of the unprivileged uid that runs the daemon is only warned about.
bool checkWriters(const std::string& directory, const char* what, std::string* error) {
    std::string problem;
    switch (DirectoryTrust::check(directory, &problem)) {
        case DirectoryTrust::Verdict::Trusted:
            return true;
        case DirectoryTrust::Verdict::Warn:
            ALOGW("preferencesd: %s %s %s; accepted because it belongs to the uid running "
                  "preferencesd",
                  what, directory.c_str(), problem.c_str());
            return true;
        case DirectoryTrust::Verdict::Refused:
        case DirectoryTrust::Verdict::Missing:
            break;
    }
    *error = std::string(what) + " " + directory + " " + problem;
    return false;
}

}  // namespace

PreferencesDaemon::PreferencesDaemon(DaemonOptions options) : mOptions(std::move(options)) {}

PreferencesDaemon::~PreferencesDaemon() {
    shutdown();
}

bool PreferencesDaemon::prepare(std::string* error) {
    if (!prepareBinderDir(error) || !prepareDataDir(error) || !prepareProperties(error)) {
        return false;
    }
    if (!mOptions.telemetryLib.empty() && !Telemetry::load(mOptions.telemetryLib)) {
        *error = "cannot load the telemetry library " + mOptions.telemetryLib;
        return false;
    }
    PreferencesDeviceConfig::setInstance(
            std::make_shared<const PreferencesDeviceConfig>(mOptions.configDir));
    return true;
}

bool PreferencesDaemon::prepareBinderDir(std::string* error) {
    if (!mOptions.binderDir.empty()) {
        mBinderDir = withoutTrailingSlashes(mOptions.binderDir);
        setenv("BINDER_DIR", mBinderDir.c_str(), 1);
    } else {
        const char* env = getenv("BINDER_DIR");
        mBinderDir =
                withoutTrailingSlashes(env != nullptr && env[0] != '\0' ? env : kDefaultBinderDir);
    }
    // Clients of every uid look services up here.
    if (!makeDirectory(mBinderDir, 0755, "socket directory", error) ||
        !checkWriters(mBinderDir, "socket directory", error)) {
        return false;
    }
    std::vector<uid_t> trusted = {0, geteuid()};
    trusted.insert(trusted.end(), mOptions.trustedUids.begin(), mOptions.trustedUids.end());
    for (const char* name : kTrustedServices) {
        android::defaultServiceManager()->setTrustedServerUids(android::String16(name), trusted);
    }
    if (access(mBinderDir.c_str(), W_OK | X_OK) != 0) {
        *error = "socket directory " + mBinderDir + " is not writable: " + strerror(errno);
        return false;
    }
    int errorNumber = 0;
    switch (mServiceLock.acquire(join(mBinderDir, kServiceLockFile), &errorNumber)) {
        case LockFile::Result::Locked:
            break;
        case LockFile::Result::Busy:
            *error = std::string("another preferencesd is already serving ") + kServiceName +
                     " in " + mBinderDir;
            return false;
        case LockFile::Result::Failed:
            *error = "cannot lock " + join(mBinderDir, kServiceLockFile) + ": " +
                     strerror(errorNumber);
            return false;
    }
    if (android::defaultServiceManager()->checkService(android::String16(kServiceName)) !=
        nullptr) {
        *error = std::string(kServiceName) + " is already being served in " + mBinderDir +
                 " by another process";
        return false;
    }
    return true;
}

bool PreferencesDaemon::prepareDataDir(std::string* error) {
    mDataDir = withoutTrailingSlashes(mOptions.dataDir);
    // The preferences of every user: private to the service.
    if (!makeDirectory(mDataDir, 0700, "data directory", error) ||
        !checkWriters(mDataDir, "data directory", error)) {
        return false;
    }
    struct stat st {};
    if (stat(mDataDir.c_str(), &st) == 0 && st.st_uid != geteuid()) {
        *error = "data directory " + mDataDir + " belongs to uid " + std::to_string(st.st_uid) +
                 ", not to uid " + std::to_string(geteuid()) + " that runs preferencesd";
        return false;
    }
    if (access(mDataDir.c_str(), R_OK | W_OK | X_OK) != 0) {
        *error = "data directory " + mDataDir + " is not writable: " + strerror(errno);
        return false;
    }
    int errorNumber = 0;
    switch (mDataLock.acquire(join(mDataDir, kDataLockFile), &errorNumber)) {
        case LockFile::Result::Locked:
            return true;
        case LockFile::Result::Busy:
            *error = "data directory " + mDataDir + " is in use by another preferencesd";
            return false;
        case LockFile::Result::Failed:
            *error = "cannot lock " + join(mDataDir, kDataLockFile) + ": " + strerror(errorNumber);
            return false;
    }
    return false;
}

bool PreferencesDaemon::prepareProperties(std::string* error) {
    if (!mOptions.propertyFile.empty() && !SystemProperties::loadFile(mOptions.propertyFile)) {
        *error = "cannot read the property file " + mOptions.propertyFile;
        return false;
    }
    for (const auto& [key, value] : mOptions.properties) {
        if (!SystemProperties::set(key, value)) {
            *error = "cannot set the property " + key;
            return false;
        }
    }
    // Loaded last: what the service persisted before wins over the seeded defaults.
    const std::string persisted = join(mDataDir, kPersistFile);
    if (!SystemProperties::enablePersistence(persisted)) {
        *error = "cannot read the persisted properties " + persisted;
        return false;
    }
    return true;
}

bool PreferencesDaemon::start(std::string* error) {
    const std::string systemDb = join(mDataDir, StoreRecovery::kSystemDbName);
    StoreRecovery recovery(mDataDir);
    const StoreRecovery::Outcome outcome = recovery.run();
    if (outcome == StoreRecovery::Outcome::Failed) {
        *error = "cannot open the preference store " + systemDb + ": " + recovery.problem();
        return false;
    }
    auto keyManager = std::make_shared<PreferencesKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(mDataDir));
    // A store that did not open answers every call with an error: better not to serve at all.
    if (keyManager->getDatabaseUserVersion() < 0) {
        *error = "cannot open the preference store " + systemDb;
        return false;
    }
    mService = new PreferencesService(std::move(keyManager));
    if (outcome == StoreRecovery::Outcome::MovedAside) {
        mService->setStoreRecovery(std::string(StoreRecovery::kSystemDbName) + " was damaged (" +
                                   recovery.problem() + "); moved to " + recovery.movedTo());
    }
    if (!mService->migrateLegacyKeys(mOptions.legacyDir)) {
        ALOGW("preferencesd: the legacy settings migration did not finish; it resumes at the next "
              "start");
    }
    if (!mService->injectNativeServiceKeys()) {
        ALOGE("preferencesd: the native-service keys could not be declared");
    }
    if (!mService->upgradeToLatestVersion()) {
        ALOGE("preferencesd: the preference store could not be upgraded to version %d",
              PreferencesVersionManager::kLatestVersion);
    }
    mService->handleProfileAndTraceOnBoot();
    mService->startupFinished();
    return true;
}

bool PreferencesDaemon::publish(std::string* error) {
    mGate = new GatedBinder(mService);
    const android::status_t status =
            android::defaultServiceManager()->addService(android::String16(kServiceName), mGate);
    if (status != android::OK) {
        *error = std::string("cannot publish ") + kServiceName + " in " + mBinderDir + " (status " +
                 std::to_string(status) + ")";
        return false;
    }
    struct stat st {};
    if (lstat(socketPath().c_str(), &st) == 0) {
        mPublished = true;
        mSocketDevice = st.st_dev;
        mSocketInode = st.st_ino;
    }
    ALOGD("preferencesd: %s is ready in %s", kServiceName, mBinderDir.c_str());
    return true;
}

void PreferencesDaemon::shutdown() {
    if (mPublished) {
        struct stat st {};
        const std::string path = socketPath();
        if (lstat(path.c_str(), &st) == 0 && st.st_dev == mSocketDevice &&
            st.st_ino == mSocketInode) {
            unlink(path.c_str());
        }
        mPublished = false;
    }
    if (mGate != nullptr) mGate->close();
    if (mService != nullptr) {
        mService.clear();
        ALOGD("preferencesd: %s stopped", kServiceName);
    }
}

std::string PreferencesDaemon::socketPath() const {
    return join(mBinderDir, kServiceName);
}

}  // namespace Halo::OS
