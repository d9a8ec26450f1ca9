#define LOG_TAG "PreferencesService"

#include "keymanager/PreferencesKeyManager.h"

#include <binder/IInterface.h>
#include <cutils/multiuser.h>
#include <fmt/format.h>
#include <log/log.h>
#include <pthread.h>
#include <sched.h>
#include <sys/types.h>
#include <unistd.h>
#include <utils/String16.h>

#include <limits>
#include <set>
#include <system_error>

#include "keymanager/DumpBuffer.h"
#include "profiler/TraceData.h"
#include "store/Sqlite3PreferencesDb.h"
#include "store/StoreStatus.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using Permission = PreferencesKeyInfo::PreferencePermission;
using EventType = preferences::profiler::EventType;

// Application ids exempt from the OS permission checks (not from the per-key checks): the audio
// server and the system service that shares its privileges.
const std::unordered_set<unsigned int>& privilegedAppIds() {
    static const auto* ids = [] {
        auto* set = new std::unordered_set<unsigned int>{1041, 2907};
        set->max_load_factor(1.0);
        return set;
    }();
    return *ids;
}

const android::String16& readPermissionName() {
    static const auto* name = new android::String16(PreferencesKeyManager::kReadPermission);
    return *name;
}

const android::String16& writePermissionName() {
    static const auto* name = new android::String16(PreferencesKeyManager::kWritePermission);
    return *name;
}

// Success events carry the calling uid and a true flag; failure events uid 0 and false.
void reportSuccess(const char* event, uid_t uid) {
    Telemetry::report(event, uid, true);
}

void reportFailure(std::string_view event) {
    Telemetry::report(event, 0, false);
}

const char* boolText(bool value) {
    return value ? "true" : "false";
}

const char* trueFalse(bool value) {
    return value ? "True" : "False";
}

unsigned int threadId() {
    return static_cast<unsigned int>(gettid());
}

}  // namespace

PreferencesKeyManager::PreferencesKeyManager()
    : PreferencesKeyManager(std::make_unique<Sqlite3PreferencesDb>()) {}

PreferencesKeyManager::PreferencesKeyManager(std::unique_ptr<IPreferencesDb> db,
                                             std::shared_ptr<PreferencesAccess> access)
    : mAccess(std::move(access)) {
    // A failure to start the thread throws std::system_error out of the constructor, which ends
    // the process: the service cannot notify anybody without it.
    mThread = std::thread(&PreferencesKeyManager::callback, this);
    Mutex::Autolock lock(mMutex);
    mDb = std::move(db);
    mProfiler = std::make_unique<PreferencesProfiler>();
    mDb->initialize();
    std::vector<unsigned int> existing;
    mDb->getUserIdsForExistingDbs(existing);
    Mutex::Autolock usersLock(mUsersLock);
    mUsers = {0};
    mUsers.insert(existing.begin(), existing.end());
}

void PreferencesKeyManager::stopCallbacks() {
    std::call_once(mStopOnce, [this] {
        // Binder threads may be forwarding the death of a listener's client right now: wait for
        // them and cut later ones off before anything goes. Not under mMutex, which they wait for.
        std::vector<android::sp<PreferencesListener>> records;
        {
            Mutex::Autolock lock(mMutex);
            for (const auto& [uuid, record] : mListeners) records.push_back(record);
        }
        for (const android::sp<PreferencesListener>& record : records) record->detach();
        records.clear();

        mQueue.clear();
        mRunning = false;
        mQueue.enqueue(kSentinelKey);
        if (mThread.joinable()) mThread.join();
        mQueue.terminate();
    });
}

PreferencesKeyManager::~PreferencesKeyManager() {
    stopCallbacks();

    Mutex::Autolock lock(mMutex);
    if (mDb != nullptr) {
        mDb->clearCurrentPreferenceValue(0u, kCurrentUserKey);
        mDb->uninitialize();
    }
    mProfiler.reset();
    mDb.reset();
    mListeners.clear();
}

unsigned int PreferencesKeyManager::callingPidForTrace() const {
    const PreferencesAccess::CallingContext caller = mAccess->getCallingContext();
    return PreferencesAccess::isOwnProcess(caller) ? TraceData::kOwnPid
                                                   : static_cast<unsigned int>(caller.pid);
}

long long PreferencesKeyManager::microsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

template <typename DetailFn, typename>
PreferencesKeyManager::TimedLock::TimedLock(PreferencesKeyManager& keyManager,
                                            const char* operation, const DetailFn& detail)
    : mKeyManager(keyManager) {
    const Clock::time_point before = Clock::now();
    keyManager.mMutex.lock();
    // The switches only change under mMutex, so they hold still from here on.
    if (keyManager.mProfiling || keyManager.mTracing) {
        const long long wait = microsSince(before);
        if (keyManager.mProfiling) keyManager.mProfiler->recordLock(wait);
        if (keyManager.mTracing) {
            keyManager.mProfiler->recordLockTrace(
                    std::chrono::time_point_cast<std::chrono::microseconds>(before), operation,
                    detail(), wait, keyManager.mAccess->getCallingContext().pid);
        }
    }
}

PreferencesKeyManager::TimedLock::TimedLock(PreferencesKeyManager& keyManager,
                                            const char* operation, const std::string& detail)
    : TimedLock(keyManager, operation, [&detail]() -> const std::string& { return detail; }) {}

PreferencesKeyManager::TimedLock::~TimedLock() {
    mKeyManager.mMutex.unlock();
}

void PreferencesKeyManager::traceLocked(EventType type, Clock::time_point start,
                                        long long durationUs, std::string first, std::string second,
                                        unsigned int pid) {
    mProfiler->recordTrace(std::chrono::time_point_cast<std::chrono::microseconds>(start), type,
                           std::move(first), std::move(second), pid, threadId(),
                           static_cast<unsigned long>(durationUs));
}

bool PreferencesKeyManager::isPrivilegedAppId(uid_t uid) const {
    return privilegedAppIds().count(multiuser_get_app_id(uid)) != 0;
}

bool PreferencesKeyManager::refuseUnknownUser(unsigned int userId, const char* operation,
                                              const std::string& key) const {
    // A larger id would wrap around to a uid of another user.
    const unsigned int highest = multiuser_get_user_id(std::numeric_limits<uid_t>::max()) - 1;
    if (userId <= highest) {
        Mutex::Autolock lock(mUsersLock);
        if (mUsers.count(userId) != 0) return false;
    }
    ALOGE("%s, %s: %s denied, user %u does not exist on this device",
          PreferencesKeyInfo::get(getCallingUid()).c_str(), key.c_str(), operation, userId);
    return true;
}

// ---- Schema processing ----

bool PreferencesKeyManager::process(const std::unique_ptr<PreferencesSchemaList>& list,
                                    KeySourceDomain domain) {
    if (list == nullptr) return true;

    const Clock::time_point start = Clock::now();
    TimedLock lock(*this, "process", "start");

    if (list->isRestarted()) {
        std::set<std::pair<unsigned int, const std::string>> packages;
        for (const auto& schema : list->schemas()) {
            packages.emplace(schema->uid(), schema->package());
        }
        if (mDb->unregisterMissingPackages(packages, domain) != 0) {
            ALOGE("Unable to unregister missing packages; this may interfere with valid schemas");
            reportFailure("unable_to_unregister_missing_packages");
        } else {
            reportSuccess("unregister_missing_packages_success", getCallingUid());
        }
        if (mDb->clearPreferenceOwnerForNonMigrationKeys(domain) != 0) {
            ALOGE("Unable to clear existing owners for non-migration keys");
            reportFailure("unable_to_clear_existing_owners_for_non_migration_keys");
        } else {
            reportSuccess("clear_existing_owners_for_non_migration_keys_success", getCallingUid());
        }
        if (mDb->markPreferencesForExpiration(std::chrono::seconds(0), domain) != 0) {
            ALOGE("fail to mark all expired");
            reportFailure("mark_all_expired_error");
        } else {
            reportSuccess("mark_all_expired_success", getCallingUid());
        }
    }

    const bool installed = list->isInstalled();

    int code = mDb->beginBatch();
    if (code != 0) {
        ALOGE("Failed to start processing schemas in a single transaction: %d", code);
        reportFailure(fmt::format("{}:{}", "begin_transaction_error", code));
    } else {
        reportSuccess("begin_transaction_success", getCallingUid());
    }

    bool result = true;
    for (const auto& schema : list->schemas()) {
        const bool applied = installed ? addLocked(schema) : removeLocked(schema);
        result = result && applied;
    }

    code = mDb->commitBatch();
    if (code != 0) {
        ALOGE("Failed to commit processed schemas in a single transaction: %d", code);
        reportFailure(fmt::format("{}:{}", "commit_transaction_error", code));
    } else {
        reportSuccess("commit_transaction_success", getCallingUid());
    }

    mDb->unregisterExpiredPreferences();

    if (mTracing) {
        traceLocked(EventType::Process, start, microsSince(start),
                    fmt::format("list restarted: {}, installed: {}, size: {}",
                                boolText(list->isRestarted()), boolText(installed), list->size()),
                    result ? "1" : "0", TraceData::kOwnPid);
    }
    reportSuccess("schema_process_success", getCallingUid());
    mGenerations.bumpGlobal();
    return result;
}

bool PreferencesKeyManager::addLocked(const std::unique_ptr<PreferencesSchema>& schema) {
    bool result = true;
    const unsigned int uid = schema->uid();
    const std::string package = schema->package();

    if (mDb->registerPackage(uid, package) != 0) {
        ALOGE("Unable to register package");
        reportFailure("register_package_error");
        result = false;
    } else {
        reportSuccess("register_package_success", uid);
    }

    if (mDb->clearPermissionsForPackage(uid, package) != 0) {
        ALOGE("Unable to clear existing permissions for %u, %s", uid, package.c_str());
        reportFailure("clear_existing_permission_error");
        result = false;
    } else {
        reportSuccess("clear_existing_permission_success", uid);
    }

    for (const auto& info : schema->keyInfos()) {
        const std::string key = info->getKey();
        std::optional<unsigned int> ownerUid;
        std::optional<std::string> ownerPackage;
        if (info->isOwner()) {
            ownerUid = uid;
            ownerPackage = package;
        }
        if (mDb->registerPreference(uid, package, key, info->getScope(), info->getType(), ownerUid,
                                    ownerPackage, info->getDefaultValue()) != 0) {
            ALOGE("%s: Unable to register %s.", std::to_string(uid).c_str(), key.c_str());
            Telemetry::reportError("key_register_error", uid, "unable to register key");
            result = false;
            continue;
        }
        const Permission permission = info->isWritable() ? Permission::ReadWrite : Permission::Read;
        if (mDb->setPreferencePermission(key, uid, package, permission) != 0) {
            ALOGE("%s: Unable to register %s in permission.", std::to_string(uid).c_str(),
                  key.c_str());
            Telemetry::reportError("key_register_error", uid,
                                   "failed to set preference permission");
            result = false;
        }
    }

    if (result) reportSuccess("key_register_success", getCallingUid());
    return result;
}

bool PreferencesKeyManager::removeLocked(const std::unique_ptr<PreferencesSchema>& schema) {
    const int unregistered = mDb->unregisterPackage(schema->uid(), schema->package());
    const int marked = mDb->markOrphanedPreferencesForExpiration(std::chrono::seconds(0));
    const int swept = mDb->unregisterExpiredPreferences();
    if (unregistered != 0 || marked != 0 || swept != 0) {
        ALOGE("Remove schema error");
        reportFailure("remove_schema_error");
        return false;
    }
    reportSuccess("remove_schema_success", getCallingUid());
    return true;
}

// The upgrades run on the start-up thread before any client is served, so they do not take
// mMutex; the analysis cannot see that ordering.
bool PreferencesKeyManager::upgradeVersionFromV0ToV1() NO_THREAD_SAFETY_ANALYSIS {
    const int32_t upgraded = mDb->upgradeVersionFromV0ToV1();
    mGenerations.bumpGlobal();
    if (upgraded != 0) {
        ALOGE("Failed to update system tables from V0 to V1.");
        Telemetry::reportError("update_version_error", getCallingUid(),
                               "failed to update system tables from V0 to V1");
        return false;
    }
    reportSuccess("update_version_success", getCallingUid());
    return true;
}

bool PreferencesKeyManager::upgradeVersionFromV1ToV2() NO_THREAD_SAFETY_ANALYSIS {
    const int32_t upgraded = mDb->upgradeVersionFromV1ToV2();
    mGenerations.bumpGlobal();
    if (upgraded != 0) {
        ALOGE("Failed to update system tables from V1 to V2.");
        Telemetry::reportError("update_version_error", getCallingUid(),
                               "Failed to update system tables from V1 to V2");
        return false;
    }
    reportSuccess("update_version_success", getCallingUid());
    return true;
}

int PreferencesKeyManager::getDatabaseUserVersion() NO_THREAD_SAFETY_ANALYSIS {
    return mDb->getDatabaseUserVersion();
}

// ---- Access control and typed access ----

int PreferencesKeyManager::checkOsWritePermission() const {
    if (mAccess->checkPermission(mAccess->getCallingContext(), writePermissionName())) {
        reportSuccess("write_permission_success", getCallingUid());
        return 0;
    }
    ALOGE("write permission denied.");
    reportFailure("write_permission_error");
    return KeyManagerStatus::OsPermissionDenied;
}

int PreferencesKeyManager::checkOsReadPermission() const {
    if (mAccess->checkPermission(mAccess->getCallingContext(), readPermissionName())) {
        reportSuccess("read_permission_success", getCallingUid());
        return 0;
    }
    ALOGE("read permission denied.");
    reportFailure("read_permission_error");
    return KeyManagerStatus::OsPermissionDenied;
}

void PreferencesKeyManager::setLegacyKeys(std::unordered_set<std::string> keys) {
    Mutex::Autolock lock(mMutex);
    mLegacyKeys = std::move(keys);
    mGenerations.bumpGlobal();
}

bool PreferencesKeyManager::isLegacyKey(const std::string& key) const {
    Mutex::Autolock lock(mMutex);
    return mLegacyKeys.count(key) != 0;
}

bool PreferencesKeyManager::isDeclared(const std::string& key) {
    Mutex::Autolock lock(mMutex);
    PreferencesKeyInfo::PreferenceScope scope = PreferencesKeyInfo::PreferenceScope::System;
    return mDb != nullptr && mDb->getPreferenceScope(key, scope, /*quiet=*/true) == 0;
}

PreferencesKeyManager::Access PreferencesKeyManager::checkKeyAccessLocked(const std::string& key,
                                                                          uid_t uid, bool write,
                                                                          bool* rowReadFailed) {
    const uid_t caller = getCallingUid();
    Access access{0, multiuser_get_user_id(uid), std::nullopt};
    *rowReadFailed = false;
    const bool legacy = mLegacyKeys.count(key) != 0;
    if (caller == 0) {
        access.checkingUser = access.user;
        return access;
    }
    access.checkingUser =
            legacy ? access.user : std::optional<unsigned int>(multiuser_get_user_id(caller));
    Permission permission = Permission::None;
    if (mDb->getPreferencePermission(key, multiuser_get_app_id(caller), permission) != 0) {
        *rowReadFailed = true;
        access.status = write ? KeyManagerStatus::WriteRefused : KeyManagerStatus::ReadRefused;
        return access;
    }
    if (legacy) return access;
    const bool allowed =
            write ? permission == Permission::ReadWrite
                  : (permission == Permission::Read || permission == Permission::ReadWrite);
    if (!allowed) access.status = KeyManagerStatus::KeyPermissionDenied;
    return access;
}

int PreferencesKeyManager::set(const std::string& key, const std::string& value, Type type,
                               uid_t uid) {
    if (!isPrivilegedAppId(uid) && checkOsWritePermission() != 0) {
        ALOGE("%d, %s: set denied, make sure app has set permission in AndroidManifest.xml",
              static_cast<int>(uid), key.c_str());
        Telemetry::reportError("key_set_error", uid,
                               "missing preferences service write permission");
        return KeyManagerStatus::OsPermissionDenied;
    }
    if (refuseUnknownUser(multiuser_get_user_id(uid), "set", key)) {
        return KeyManagerStatus::WriteRefused;
    }
    const int result = setWithoutCallback(key, value, type, uid);
    if (result == 0) mQueue.enqueue(key);
    // Reported whatever the outcome: the event counts set requests that passed the OS check.
    Telemetry::report("key_set_success", uid, true);
    return result;
}

int PreferencesKeyManager::set(const std::string& key, const std::string& value, Type type) {
    return set(key, value, type, getCallingUid());
}

int PreferencesKeyManager::setUser(const std::string& key, const std::string& value, Type type,
                                   unsigned int userId) {
    if (refuseUnknownUser(userId, "set", key)) return KeyManagerStatus::WriteRefused;
    const uid_t uid = multiuser_get_uid(userId, multiuser_get_app_id(getCallingUid()));
    return set(key, value, type, uid);
}

int PreferencesKeyManager::setWithoutCallback(const std::string& key, const std::string& value,
                                              Type type, uid_t uid) {
    // The package name only goes into log lines, so it is looked up only for one.
    const auto package = [uid] { return PreferencesKeyInfo::get(uid); };
    IF_ALOG(LOG_VERBOSE, LOG_TAG) {
        ALOG(LOG_VERBOSE, LOG_TAG, "%s, setting key (%s) to value (%s)", package().c_str(),
             key.c_str(), value.c_str());
    }
    TimedLock lock(*this, "write", key);
    const bool timed = mProfiling || mTracing;
    const Clock::time_point start = timed ? Clock::now() : Clock::time_point();

    int result = 0;
    bool rowReadFailed = false;
    const Access access = checkKeyAccessLocked(key, uid, /*write=*/true, &rowReadFailed);
    Type declared = Type::NoType;
    if (access.status != 0) {
        result = access.status;
        if (rowReadFailed) {
            ALOGE("%s, %s: set denied, make sure app has key defined", package().c_str(),
                  key.c_str());
            Telemetry::reportError("key_set_error", uid,
                                   "set denied, make sure app has key defined");
        } else {
            ALOGE("%s, %s: set denied due to lack of permission, check app key's permission "
                  "field",
                  package().c_str(), key.c_str());
            Telemetry::reportError("key_set_error", uid, "missing permission to write preference");
        }
    } else if (getTypeLockedPermitted(key, declared) != 0 || declared != type) {
        ALOGE("%s, %s: set denied due to wrong type, check app's method of call or key type "
              "definition",
              package().c_str(), key.c_str());
        Telemetry::reportError("key_set_error", uid, "wrong type or undefined key");
        result = KeyManagerStatus::WriteRefused;
    } else if (mDb->setPreferenceValue(access.user, access.checkingUser, key, value) != 0) {
        ALOGE("%s, %s: set denied, can not be write to database", package().c_str(), key.c_str());
        Telemetry::reportError("key_set_error", uid, "can not be written to database");
        result = KeyManagerStatus::WriteRefused;
    } else {
        const long long duration = timed ? microsSince(start) : 0;
        if (key == "mic_muted") Telemetry::report("mic_muted_set", uid, true);
        if (mProfiling) mProfiler->recordWrite(key, duration);
        if (mTracing) {
            traceLocked(EventType::Write, start, duration, key, value, callingPidForTrace());
        }
        reportSuccess("set_value_success", uid);
    }
    if (access.status == 0) mGenerations.bumpKey(key);
    return result;
}

int PreferencesKeyManager::setWithoutCallback(const std::string& key, const std::string& value,
                                              Type type) {
    return setWithoutCallback(key, value, type, getCallingUid());
}

int PreferencesKeyManager::setBatch(const std::vector<BatchEntry>& entries, uid_t uid,
                                    size_t* refused) {
    if (entries.empty()) return KeyManagerStatus::Ok;
    if (entries.size() > kMaxBatchEntries) {
        ALOGE("%s: set batch denied, %zu entries where at most %zu are taken",
              PreferencesKeyInfo::get(uid).c_str(), entries.size(), kMaxBatchEntries);
        Telemetry::reportError("key_set_error", uid, "batch too large");
        return KeyManagerStatus::WriteRefused;
    }
    const std::string& first = entries.front().key;
    if (!isPrivilegedAppId(uid) && checkOsWritePermission() != KeyManagerStatus::Ok) {
        ALOGE("%d, %s: set denied, make sure app has set permission in AndroidManifest.xml",
              static_cast<int>(uid), first.c_str());
        Telemetry::reportError("key_set_error", uid,
                               "missing preferences service write permission");
        if (refused != nullptr) *refused = 0;
        return KeyManagerStatus::OsPermissionDenied;
    }
    if (refuseUnknownUser(multiuser_get_user_id(uid), "set", first)) {
        if (refused != nullptr) *refused = 0;
        return KeyManagerStatus::WriteRefused;
    }
    std::set<std::string> changed;
    int result = KeyManagerStatus::Ok;
    {
        TimedLock lock(*this, "batch", [&entries] {
            std::vector<std::string> keys;
            for (const BatchEntry& entry : entries) keys.push_back(entry.key);
            return stringJoin(keys, ",");
        });
        result = setBatchLocked(entries, uid, refused, &changed);
    }
    for (size_t i = 0; !changed.empty() && i < entries.size(); ++i) {
        if (result == KeyManagerStatus::Ok) reportSuccess("set_value_success", uid);
        Telemetry::report("key_set_success", uid, true);
    }
    if (result == KeyManagerStatus::Ok) mQueue.enqueueAll(changed);
    return result;
}

int PreferencesKeyManager::setBatchLocked(const std::vector<BatchEntry>& entries, uid_t uid,
                                          size_t* refused, std::set<std::string>* changed) {
    std::vector<Access> accesses(entries.size());
    std::vector<std::optional<std::string>> olds(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const int result = checkBatchEntryLocked(entries[i], uid, &accesses[i], &olds[i]);
        if (result != KeyManagerStatus::Ok) {
            if (refused != nullptr) *refused = i;
            return result;
        }
    }

    const int begun = mDb->beginBatch();
    if (begun != 0) {
        ALOGE("Failed to start a batch of values in a single transaction: %d", begun);
        reportFailure(fmt::format("{}:{}", "begin_transaction_error", begun));
    }
    const bool timed = mProfiling || mTracing;
    int result = KeyManagerStatus::Ok;
    size_t written = 0;
    for (; written < entries.size(); ++written) {
        const BatchEntry& entry = entries[written];
        const Access& access = accesses[written];
        const Clock::time_point start = timed ? Clock::now() : Clock::time_point();
        if (mDb->setPreferenceValue(access.user, access.checkingUser, entry.key, entry.value) !=
            0) {
            ALOGE("%s, %s: set denied, can not be write to database",
                  PreferencesKeyInfo::get(uid).c_str(), entry.key.c_str());
            Telemetry::reportError("key_set_error", uid, "can not be written to database");
            result = KeyManagerStatus::WriteRefused;
            break;
        }
        const long long duration = timed ? microsSince(start) : 0;
        if (entry.key == "mic_muted") Telemetry::report("mic_muted_set", uid, true);
        if (mProfiling) mProfiler->recordWrite(entry.key, duration);
        if (mTracing) {
            traceLocked(EventType::Write, start, duration, entry.key, entry.value,
                        callingPidForTrace());
        }
    }
    if (result != KeyManagerStatus::Ok) {
        // The entries written so far get back the values they had; a failure here leaves them
        // as written, which the log tells.
        for (size_t i = 0; i < written; ++i) {
            const int32_t restored =
                    olds[i].has_value()
                            ? mDb->setPreferenceValue(accesses[i].user, accesses[i].checkingUser,
                                                      entries[i].key, *olds[i])
                            : mDb->clearCurrentPreferenceValue(accesses[i].user, entries[i].key);
            if (restored != 0) {
                ALOGE("%s: could not restore the value it had before a failed batch",
                      entries[i].key.c_str());
            }
        }
        if (refused != nullptr) *refused = written;
    }
    if (begun == 0) {
        const int committed = mDb->commitBatch();
        if (committed != 0) {
            ALOGE("Failed to commit a batch of values in a single transaction: %d", committed);
            reportFailure(fmt::format("{}:{}", "commit_transaction_error", committed));
        }
    }
    for (const BatchEntry& entry : entries) {
        if (changed->insert(entry.key).second) mGenerations.bumpKey(entry.key);
    }
    return result;
}

int PreferencesKeyManager::setBatch(const std::vector<BatchEntry>& entries, size_t* refused) {
    return setBatch(entries, getCallingUid(), refused);
}

int PreferencesKeyManager::setBatchUser(const std::vector<BatchEntry>& entries, unsigned int userId,
                                        size_t* refused) {
    if (!entries.empty() && refuseUnknownUser(userId, "set", entries.front().key)) {
        if (refused != nullptr) *refused = 0;
        return KeyManagerStatus::WriteRefused;
    }
    const uid_t uid = multiuser_get_uid(userId, multiuser_get_app_id(getCallingUid()));
    return setBatch(entries, uid, refused);
}

int PreferencesKeyManager::checkBatchEntryLocked(const BatchEntry& entry, uid_t uid, Access* access,
                                                 std::optional<std::string>* old) {
    const std::string& key = entry.key;
    bool rowReadFailed = false;
    *access = checkKeyAccessLocked(key, uid, /*write=*/true, &rowReadFailed);
    if (access->status != KeyManagerStatus::Ok) {
        if (rowReadFailed) {
            ALOGE("%s, %s: set denied, make sure app has key defined",
                  PreferencesKeyInfo::get(uid).c_str(), key.c_str());
            Telemetry::reportError("key_set_error", uid,
                                   "set denied, make sure app has key defined");
        } else {
            ALOGE("%s, %s: set denied due to lack of permission, check app key's permission "
                  "field",
                  PreferencesKeyInfo::get(uid).c_str(), key.c_str());
            Telemetry::reportError("key_set_error", uid, "missing permission to write preference");
        }
        return access->status;
    }
    Type declared = Type::NoType;
    if (getTypeLockedPermitted(key, declared) != 0 || declared != entry.type) {
        ALOGE("%s, %s: set denied due to wrong type, check app's method of call or key type "
              "definition",
              PreferencesKeyInfo::get(uid).c_str(), key.c_str());
        Telemetry::reportError("key_set_error", uid, "wrong type or undefined key");
        return KeyManagerStatus::WriteRefused;
    }
    // The read applies the store's rule on which user a key of each scope may be reached for,
    // which the write would otherwise apply only once the batch is half written.
    // Any other failure to read (a key with neither a value nor a default) leaves `old` empty.
    const int32_t read = mDb->getPreferenceValue(access->user, access->checkingUser, key, *old);
    if (read != 0) old->reset();
    if (read == StoreStatus::UserRequired) {
        ALOGE("%s, %s: set denied, can not be write to database",
              PreferencesKeyInfo::get(uid).c_str(), key.c_str());
        Telemetry::reportError("key_set_error", uid, "can not be written to database");
        return KeyManagerStatus::WriteRefused;
    }
    return KeyManagerStatus::Ok;
}

int PreferencesKeyManager::get(const std::string& key, std::string& out, Type type, uid_t uid) {
    if (!isPrivilegedAppId(uid) && checkOsReadPermission() != 0) {
        ALOGE("%s - %d: denied, make sure app has set permission in AndroidManifest.xml",
              key.c_str(), static_cast<int>(uid));
        Telemetry::reportError("key_get_error", uid, "missing preferences service read permission");
        return KeyManagerStatus::OsPermissionDenied;
    }
    if (refuseUnknownUser(multiuser_get_user_id(uid), "get", key)) {
        return KeyManagerStatus::ReadRefused;
    }
    return getWithoutPermissionCheck(key, out, type, uid);
}

int PreferencesKeyManager::get(const std::string& key, std::string& out, Type type) {
    return get(key, out, type, getCallingUid());
}

int PreferencesKeyManager::getUser(const std::string& key, std::string& out, Type type,
                                   unsigned int userId) {
    if (refuseUnknownUser(userId, "get", key)) return KeyManagerStatus::ReadRefused;
    const uid_t uid = multiuser_get_uid(userId, multiuser_get_app_id(getCallingUid()));
    return get(key, out, type, uid);
}

int PreferencesKeyManager::getWithoutPermissionCheck(const std::string& key, std::string& out,
                                                     Type type, uid_t uid) {
    // The package name only goes into log lines, so it is looked up only for one.
    const auto package = [uid] { return PreferencesKeyInfo::get(uid); };
    TimedLock lock(*this, "read", key);
    const bool timed = mProfiling || mTracing;
    const Clock::time_point start = timed ? Clock::now() : Clock::time_point();

    int result = 0;
    bool rowReadFailed = false;
    const Access access = checkKeyAccessLocked(key, uid, /*write=*/false, &rowReadFailed);
    Type declared = Type::NoType;
    std::optional<std::string> value;
    if (access.status != 0) {
        result = access.status;
        if (rowReadFailed) {
            ALOGE("%s, %s: get denied, make sure app key is defined", package().c_str(),
                  key.c_str());
            Telemetry::reportError("key_get_error", uid,
                                   "get denied, make sure app key is defined");
        } else {
            ALOGE("%s, %s: get denied due to lack of permission, check app key's permission "
                  "field",
                  package().c_str(), key.c_str());
            Telemetry::reportError("key_get_error", uid, "missing permission to read preference");
        }
    } else if (getTypeLockedPermitted(key, declared) != 0 || declared != type) {
        ALOGE("%s, %s: get denied due to wrong type, check app's method of call or key type "
              "definition",
              package().c_str(), key.c_str());
        Telemetry::reportError("key_get_error", uid, "wrong type or undefined key");
        result = KeyManagerStatus::ReadRefused;
    } else if (mDb->getPreferenceValue(access.user, access.checkingUser, key, value) != 0) {
        ALOGE("%s, %s: get denied, can not be read from database", package().c_str(), key.c_str());
        Telemetry::reportError("key_get_error", uid, "can not be read from database");
        result = KeyManagerStatus::ReadRefused;
    } else {
        if (value.has_value()) {
            out = std::move(*value);
        } else {
            out.clear();
        }
        if (timed) {
            const long long duration = microsSince(start);
            if (mProfiling) mProfiler->recordRead(key, duration);
            if (mTracing) {
                traceLocked(EventType::Read, start, duration, key, out, callingPidForTrace());
            }
        }
    }
    return result;
}

int PreferencesKeyManager::getWithoutPermissionCheck(const std::string& key, std::string& out,
                                                     Type type) {
    return getWithoutPermissionCheck(key, out, type, getCallingUid());
}

int PreferencesKeyManager::getTypeLockedPermitted(const std::string& key, Type& out) const {
    if (mDb->getPreferenceType(key, out) != 0) {
        reportFailure("get_type_from_db_error");
        return KeyManagerStatus::ReadRefused;
    }
    reportSuccess("get_type_from_db_success", getCallingUid());
    return 0;
}

int PreferencesKeyManager::getType(const std::string& key, Type& out) {
    const uid_t uid = getCallingUid();
    TimedLock lock(*this, "getType", key);
    const Clock::time_point start = Clock::now();
    bool rowReadFailed = false;
    const Access access = checkKeyAccessLocked(key, uid, /*write=*/false, &rowReadFailed);
    int result = access.status;
    if (result != 0) {
        if (rowReadFailed) {
            ALOGE("Error reading preference permission from the DB");
            Telemetry::reportError("key_get_type_error", uid,
                                   "get denied, make sure app key is defined");
        } else {
            ALOGE("Caller cannot access %s to get its type", key.c_str());
            Telemetry::reportError("key_get_type_error", uid,
                                   "missing permission to read preference");
        }
    } else {
        result = getTypeLockedPermitted(key, out);
    }
    if (mTracing) {
        traceLocked(EventType::GetType, start, microsSince(start), key,
                    fmt::format("type: {}, return {}", static_cast<uint32_t>(out), result),
                    callingPidForTrace());
    }
    return result;
}

int PreferencesKeyManager::reset(const std::string& key) {
    return resetAs(key, getCallingUid());
}

int PreferencesKeyManager::resetUser(const std::string& key, unsigned int userId) {
    if (refuseUnknownUser(userId, "reset", key)) return KeyManagerStatus::WriteRefused;
    return resetAs(key, multiuser_get_uid(userId, multiuser_get_app_id(getCallingUid())));
}

bool PreferencesKeyManager::mayWriteForUserLocked(const Access& access, const std::string& key) {
    std::optional<std::string> value;
    return mDb->getPreferenceValue(access.user, access.checkingUser, key, value) !=
           StoreStatus::UserRequired;
}

int PreferencesKeyManager::resetAs(const std::string& key, uid_t uid) {
    const std::string package = PreferencesKeyInfo::get(uid);
    if (!isPrivilegedAppId(uid) && checkOsWritePermission() != 0) {
        ALOGE("%s, key reset: make sure app has set permission in AndroidManifest.xml",
              key.c_str());
        Telemetry::reportError("key_reset_error", uid,
                               "missing preferences service write permission");
        return KeyManagerStatus::OsPermissionDenied;
    }
    if (refuseUnknownUser(multiuser_get_user_id(uid), "reset", key)) {
        return KeyManagerStatus::WriteRefused;
    }
    int result = KeyManagerStatus::Ok;
    {
        TimedLock lock(*this, "reset", key);
        const Clock::time_point start = Clock::now();
        bool rowReadFailed = false;
        const Access access = checkKeyAccessLocked(key, uid, /*write=*/true, &rowReadFailed);
        result = access.status;
        if (result != 0) {
            if (rowReadFailed) {
                ALOGE("%s, %s: get denied, make sure app key is defined", package.c_str(),
                      key.c_str());
                Telemetry::reportError("key_reset_error", uid,
                                       "reset denied, make sure app has key defined");
            } else {
                ALOGE("%s, %s: reset denied due to lack of permission, check app key's permission "
                      "field",
                      package.c_str(), key.c_str());
                Telemetry::reportError("key_reset_error", uid,
                                       "missing permission to write preference");
            }
        } else if (uid != getCallingUid() && !mayWriteForUserLocked(access, key)) {
            ALOGE("%s, %s: reset denied, a user key of another user", package.c_str(), key.c_str());
            Telemetry::reportError("key_reset_error", uid, "user key of another user");
            result = KeyManagerStatus::WriteRefused;
        } else if (mDb->clearCurrentPreferenceValue(access.user, key) != 0) {
            ALOGE("unable to clear key value %d, %s", static_cast<int>(uid), key.c_str());
            Telemetry::reportError("key_reset_error", uid, "can not be cleared in database");
            result = KeyManagerStatus::WriteRefused;
        } else if (mTracing) {
            traceLocked(EventType::Reset, start, microsSince(start), key, package,
                        callingPidForTrace());
        }
        if (access.status == 0) mGenerations.bumpKey(key);
    }
    // Queued once mMutex is released, like a write.
    if (result == 0) mQueue.enqueue(key);
    return result;
}

// ---- Listing and describing keys ----

bool PreferencesKeyManager::mayWriteAsOs(uid_t uid) const {
    return isPrivilegedAppId(uid) ||
           mAccess->checkPermission(mAccess->getCallingContext(), writePermissionName());
}

int PreferencesKeyManager::checkReadCall(uid_t uid, const char* operation,
                                         const std::string& detail) const {
    if (!isPrivilegedAppId(uid) && checkOsReadPermission() != KeyManagerStatus::Ok) {
        ALOGE("%s - %d: %s denied, make sure app has set permission in AndroidManifest.xml",
              detail.c_str(), static_cast<int>(uid), operation);
        return KeyManagerStatus::OsPermissionDenied;
    }
    if (refuseUnknownUser(multiuser_get_user_id(uid), operation, detail)) {
        return KeyManagerStatus::ReadRefused;
    }
    return KeyManagerStatus::Ok;
}

int PreferencesKeyManager::describeLocked(const IPreferencesDb::PreferenceDefinition& definition,
                                          uid_t uid, bool osWrite, KeyDescription& out) {
    bool rowReadFailed = false;
    const Access read = checkKeyAccessLocked(definition.key, uid, /*write=*/false, &rowReadFailed);
    if (read.status != KeyManagerStatus::Ok) return read.status;
    // A declared type outside the value types fails every typed get.
    if (definition.type >= Type::NoType) return KeyManagerStatus::ReadRefused;
    const Access write = checkKeyAccessLocked(definition.key, uid, /*write=*/true, &rowReadFailed);
    const bool writable = osWrite && write.status == KeyManagerStatus::Ok;
    out = KeyDescription{definition.key,          definition.type,         definition.scope,
                         definition.defaultValue, definition.ownerPackage, writable};
    return KeyManagerStatus::Ok;
}

int PreferencesKeyManager::listKeys(const std::string& ownerPackage,
                                    std::vector<KeyDescription>& out) {
    const uid_t uid = getCallingUid();
    if (const int refused = checkReadCall(uid, "listKeys", ownerPackage);
        refused != KeyManagerStatus::Ok) {
        return refused;
    }
    const bool osWrite = mayWriteAsOs(uid);
    std::vector<KeyDescription> described;
    {
        TimedLock lock(*this, "listKeys", ownerPackage);
        std::vector<IPreferencesDb::PreferenceDefinition> definitions;
        if (mDb->getPreferenceDefinitions(std::nullopt, definitions) != 0) {
            return KeyManagerStatus::ReadRefused;
        }
        for (const IPreferencesDb::PreferenceDefinition& definition : definitions) {
            if (!ownerPackage.empty() && definition.ownerPackage != ownerPackage) continue;
            KeyDescription description;
            if (describeLocked(definition, uid, osWrite, description) == KeyManagerStatus::Ok) {
                described.push_back(std::move(description));
            }
        }
    }
    out = std::move(described);
    return KeyManagerStatus::Ok;
}

int PreferencesKeyManager::describeKey(const std::string& key, KeyDescription& out) {
    const uid_t uid = getCallingUid();
    if (const int refused = checkReadCall(uid, "describeKey", key);
        refused != KeyManagerStatus::Ok) {
        return refused;
    }
    const bool osWrite = mayWriteAsOs(uid);
    TimedLock lock(*this, "describeKey", key);
    bool rowReadFailed = false;
    // The key permission first, as in a get: an app learns nothing about a key it may not read,
    // not even whether it is declared.
    const Access access = checkKeyAccessLocked(key, uid, /*write=*/false, &rowReadFailed);
    if (access.status != KeyManagerStatus::Ok) return access.status;
    std::vector<IPreferencesDb::PreferenceDefinition> definitions;
    if (mDb->getPreferenceDefinitions(key, definitions) != 0) return KeyManagerStatus::ReadRefused;
    return describeLocked(definitions.front(), uid, osWrite, out);
}

// ---- Change notification ----

std::string PreferencesKeyManager::stringJoin(const std::vector<std::string>& items,
                                              const std::string& separator) {
    std::string joined;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i != 0) joined += separator;
        joined += items[i];
    }
    return joined;
}

void PreferencesKeyManager::callback() {
    // The thread keeps its fair share of the CPU but does not preempt the thread that woke it:
    // a set wakes it before its reply is sent, and on a busy or single CPU it would otherwise run
    // first and hold up the caller for a delivery that is one-way anyway. Best effort: on failure
    // the thread keeps the default policy.
    sched_param batch{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &batch);
    pthread_setname_np(pthread_self(), "prefs:callback");
    while (mRunning && !mQueue.isTerminated()) {
        std::string name;
        if (!mQueue.dequeue(name)) continue;

        // Everything queued so far is handled in this pass, each key once, in ascending order.
        std::set<std::string> changed{std::move(name)};
        while (mQueue.size() != 0) {
            if (!mQueue.dequeue(name)) break;
            changed.insert(std::move(name));
        }

        TimedLock lock(*this, "callback", [&changed] {
            return stringJoin({changed.begin(), changed.end()}, ",");
        });
        std::map<uint32_t, std::set<std::string>> keysByListener;
        for (const std::string& key : changed) {
            std::vector<std::pair<unsigned int, unsigned int>> rows;
            if (mDb->getPreferenceListenersForKey(key, rows) != 0) {
                ALOGE("get listeners has error, ignore callback on listeners");
                reportFailure("get_listener_error");
                continue;
            }
            for (const auto& [uid, uuid] : rows) keysByListener[uuid].insert(key);
        }
        for (const auto& [uuid, keys] : keysByListener) {
            auto it = mListeners.find(uuid);
            if (it == mListeners.end()) continue;
            const android::sp<PreferencesListener>& record = it->second;
            std::vector<android::String16> keys16;
            keys16.reserve(keys.size());
            for (const std::string& key : keys) keys16.emplace_back(key.c_str(), key.size());
            const Clock::time_point start = Clock::now();
            // One-way: a slow or dead client cannot hold up the pass.
            record->getListener()->onChanged(keys16);
            if (mTracing) {
                traceLocked(EventType::Callback, start, microsSince(start),
                            stringJoin({keys.begin(), keys.end()}, ","),
                            fmt::format("{}:{}", record->getUid(), record->getUuid()),
                            record->getPid());
            }
        }
        reportSuccess("callback_success", getCallingUid());
    }
}

int PreferencesKeyManager::registerListener(
        const android::sp<lumen::preferences::IPreferencesListener>& listener,
        const std::vector<std::string>& keys, bool /*flag*/) {
    const PreferencesAccess::CallingContext caller = mAccess->getCallingContext();
    const pid_t pid = caller.pid;
    const uid_t uid = caller.uid;
    const std::string package = PreferencesKeyInfo::get(uid);
    if (listener == nullptr) return KeyManagerStatus::ListenerNotStored;
    // Another process can only hand in an object of this process by handing back one of ours
    // (the service itself, for one), which never dies with that process.
    if (!PreferencesAccess::isOwnProcess(caller) &&
        android::IInterface::asBinder(listener)->localBinder() != nullptr) {
        ALOGE("%s, register listener denied, the listener is an object of this service",
              package.c_str());
        return KeyManagerStatus::ListenerNotStored;
    }
    if (!isPrivilegedAppId(uid) && checkOsReadPermission() != 0) {
        ALOGE("%s, register listener denied, make sure app has set permission in "
              "AndroidManifest.xml",
              package.c_str());
        Telemetry::reportError("register_listener_error", uid, "missing read permission");
        return KeyManagerStatus::OsPermissionDenied;
    }
    if (refuseUnknownUser(multiuser_get_user_id(uid), "register listener", stringJoin(keys, ","))) {
        return KeyManagerStatus::ReadRefused;
    }
    TimedLock lock(*this, "register", package);
    const Clock::time_point start = Clock::now();
    int result = 0;
    for (const std::string& key : keys) {
        Permission permission = Permission::None;
        if (mDb->getPreferencePermission(key, multiuser_get_app_id(uid), permission) != 0) {
            ALOGE("%s, %s: register listener denied, make sure app key is defined", package.c_str(),
                  key.c_str());
            result = KeyManagerStatus::ReadRefused;
            break;
        }
        if (uid != 0 && permission != Permission::Read && permission != Permission::ReadWrite) {
            ALOGE("%s, %s: register listener denied due to lack of permission, check app key's "
                  "permission field",
                  package.c_str(), key.c_str());
            result = KeyManagerStatus::KeyPermissionDenied;
            break;
        }
    }
    unsigned int uuid = 0;
    if (result == 0 &&
        (mDb->registerPreferenceListener(uid, keys, uuid) != 0 || mListeners.count(uuid) != 0)) {
        ALOGE("%s, register listener denied, unable to register in database", package.c_str());
        result = KeyManagerStatus::ListenerNotStored;
        // Rows stored before the failure would outlive the refused listener; its id is released.
        // An id held by a live record was not handed out by this call and stays as it is.
        if (uuid != 0 && mListeners.count(uuid) == 0) mDb->unregisterPreferenceListener(uid, uuid);
    }
    if (result == 0) {
        mListeners[uuid] = new PreferencesListener(this, listener, keys, pid, uid, uuid);
        if (mTracing) {
            traceLocked(EventType::Register, start, microsSince(start), stringJoin(keys, ","),
                        fmt::format("{}:{}:{}", uid, uuid, pid), static_cast<unsigned int>(pid));
        }
        reportSuccess("register_listener_success", uid);
    }
    return result;
}

int PreferencesKeyManager::unregisterListener(
        uid_t uid, const android::sp<lumen::preferences::IPreferencesListener>& listener) {
    const std::string package = PreferencesKeyInfo::get(uid);
    if (!isPrivilegedAppId(uid) && checkOsReadPermission() != 0) {
        ALOGE("%s, unregister listener, make sure app has set permission in AndroidManifest.xml",
              package.c_str());
        return KeyManagerStatus::OsPermissionDenied;
    }
    // Released after mMutex so that the record's unlink from its binder runs unlocked.
    android::sp<PreferencesListener> removed;
    TimedLock lock(*this, "unregister", package);
    const Clock::time_point start = Clock::now();
    int result = 0;
    std::vector<unsigned int> uuids;
    const android::sp<android::IBinder> binder = android::IInterface::asBinder(listener);
    if (mDb->getPreferenceListenersIdsForPackage(uid, uuids) != 0 || uuids.empty()) {
        ALOGE("unregister listener, can not find in database, %d", static_cast<int>(uid));
        reportFailure("unregister_listener_not_found");
        result = KeyManagerStatus::ListenerNotFound;
    } else {
        for (unsigned int uuid : uuids) {
            auto it = mListeners.find(uuid);
            if (it == mListeners.end()) continue;
            if (android::IInterface::asBinder(it->second->getListener()) != binder) continue;
            removed = it->second;
            mListeners.erase(it);
            break;
        }
        if (removed == nullptr) {
            ALOGE("%s, unregister listener, can not find in database", package.c_str());
            reportFailure("unregister_listener_not_found");
            result = KeyManagerStatus::ListenerNotFound;
        } else {
            mDb->unregisterPreferenceListener(uid, removed->getUuid());
            if (mTracing) {
                traceLocked(EventType::Unregister, start, microsSince(start),
                            stringJoin(removed->getKeys(), ","),
                            fmt::format("{}:{}", uid, removed->getUuid()), removed->getPid());
            }
            reportSuccess("unregister_listener_success", uid);
        }
    }
    if (removed == nullptr) {
        // A record without rows (registered without keys, or whose keys have expired) cannot be
        // found through the store. The caller is told ListenerNotFound as for any unknown
        // listener, but the record goes all the same, so that it does not outlive its client.
        for (auto it = mListeners.begin(); it != mListeners.end(); ++it) {
            if (it->second->getUid() == uid &&
                android::IInterface::asBinder(it->second->getListener()) == binder) {
                removed = it->second;
                mListeners.erase(it);
                break;
            }
        }
    }
    return result;
}

int PreferencesKeyManager::unregisterListener(
        const android::sp<lumen::preferences::IPreferencesListener>& listener) {
    return unregisterListener(getCallingUid(), listener);
}

// ---- Users and diagnostics ----

int PreferencesKeyManager::currentUser(unsigned int userId) {
    mCurrentUser.store(userId, std::memory_order_relaxed);
    invalidateAllReads();
    return set(kCurrentUserKey, std::to_string(userId), Type::Integer, getCallingUid());
}

int PreferencesKeyManager::userList(const std::vector<int>& users) {
    const int permission = checkOsWritePermission();
    if (permission != 0) return permission;
    Mutex::Autolock lock(mMutex);
    const int result = mDb->updateUserList(users) != 0 ? KeyManagerStatus::UserOperationFailed
                                                       : KeyManagerStatus::Ok;
    Mutex::Autolock usersLock(mUsersLock);
    mUsers = {0};
    for (int user : users) {
        if (user >= 0) mUsers.insert(static_cast<unsigned int>(user));
    }
    mGenerations.bumpGlobal();
    return result;
}

int PreferencesKeyManager::deleteUserData(unsigned int userId) {
    const int permission = checkOsWritePermission();
    if (permission != 0) return permission;
    Mutex::Autolock lock(mMutex);
    const int result = mDb->deleteUserData(userId) != 0 ? KeyManagerStatus::UserOperationFailed
                                                        : KeyManagerStatus::Ok;
    mGenerations.bumpGlobal();
    return result;
}

bool PreferencesKeyManager::dump(int callerFd) {
    // The text goes to the caller's descriptor once mMutex is released: a reader that does not
    // read holds up nobody but itself, and only for the dump timeout.
    DumpBuffer text;
    const int fd = text.fd();
    dprintf(fd, "  PreferencesKeyManager properties:\n");
    // The store pointer is only reset by the destructor, which no dump can overlap.
    dprintf(fd, "      Database Exists:             %s\n", trueFalse(mDb != nullptr));
    dprintf(fd, "      Schema Queue Terminated:     %s\n", trueFalse(mQueue.isTerminated()));
    {
        Mutex::Autolock lock(mMutex);
        dprintf(fd, "      Schema Thread Running:       %s\n", trueFalse(mRunning));
        dprintf(fd, "      Listener Info:\n");
        for (const auto& [uuid, record] : mListeners) {
            dprintf(fd, "        uuid: %u\n", uuid);
            dprintf(fd, "          pid: %u, uid: %u, uuid: %u\n", record->getPid(),
                    record->getUid(), record->getUuid());
            dprintf(fd, "          keys: \n");
            if (record->getKeys().empty()) {
                dprintf(fd, "            no keys\n");
            }
            for (const std::string& key : record->getKeys()) {
                dprintf(fd, "            %s\n", key.c_str());
            }
        }
    }
    text.copyTo(callerFd, dumpTimeout());
    return true;
}

bool PreferencesKeyManager::dumpDb(int callerFd) {
    DumpBuffer text;
    {
        Mutex::Autolock lock(mMutex);
        if (mDb != nullptr) mDb->dumpDatabases(text.fd());
    }
    text.copyTo(callerFd, dumpTimeout());
    return true;
}

bool PreferencesKeyManager::dumpPreferences(int callerFd) {
    DumpBuffer text;
    {
        Mutex::Autolock lock(mMutex);
        if (mDb != nullptr) mDb->dumpPreferencesTable(text.fd());
    }
    text.copyTo(callerFd, dumpTimeout());
    return true;
}

bool PreferencesKeyManager::dumpProfile(int callerFd) {
    DumpBuffer text;
    bool on = false;
    {
        Mutex::Autolock lock(mMutex);
        on = mProfiling;
        if (on) mProfiler->dumpProfile(text.fd());
    }
    if (on) text.copyTo(callerFd, dumpTimeout());
    return on;
}

bool PreferencesKeyManager::dumpTrace(int callerFd) {
    DumpBuffer text;
    bool on = false;
    {
        Mutex::Autolock lock(mMutex);
        on = mTracing;
        if (on) mProfiler->dumpTrace(text.fd());
    }
    if (on) text.copyTo(callerFd, dumpTimeout());
    return on;
}

void PreferencesKeyManager::invalidateAllReads() {
    Mutex::Autolock lock(mMutex);
    mGenerations.bumpGlobal();
}

void PreferencesKeyManager::setProfiling(bool on) {
    Mutex::Autolock lock(mMutex);
    mProfiling = on;
}

void PreferencesKeyManager::resetProfile() {
    Mutex::Autolock lock(mMutex);
    mProfiler->resetProfile();
}

void PreferencesKeyManager::setTracing(bool on) {
    Mutex::Autolock lock(mMutex);
    mTracing = on;
}

void PreferencesKeyManager::resetTrace() {
    Mutex::Autolock lock(mMutex);
    mProfiler->resetTrace();
}

}  // namespace Halo::OS
