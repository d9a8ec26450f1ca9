#pragma once

#include <android-base/thread_annotations.h>
#include <lumen/preferences/IPreferencesListener.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <mutex>
#include <thread>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "keymanager/BlockingQueue.h"
#include "keymanager/KeyManagerStatus.h"
#include "keymanager/PreferencesAccess.h"
#include "keymanager/PreferencesGenerationTable.h"
#include "keymanager/PreferencesListener.h"
#include "model/KeySourceDomain.h"
#include "model/PreferencesKeyInfo.h"
#include "model/PreferencesSchema.h"
#include "model/PreferencesSchemaList.h"
#include "profiler/PreferencesProfiler.h"
#include "store/IPreferencesDb.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// The core of the service. Owns the preference store, the access profiler, the queue of changed
// keys with the callback thread that notifies listeners, and the map of registered listeners.
// Applies schema lists, checks who may read and write which key in which user, reads and writes
// value text, follows the device's users and prints its state for dumps.
//
// The int operations return a KeyManagerStatus code: Ok (0), or the refusal.
//
// Threads: Binder threads call every public operation concurrently. mMutex guards the store, the
// listener map, the profiler and the writes of the profiling and tracing flags. The callback
// thread never holds the change queue's mutex and mMutex together. The destructor must not run
// while other threads still call in.
class PreferencesKeyManager {
public:
    using Type = PreferencesKeyInfo::Type;
    using Clock = std::chrono::system_clock;

    static constexpr const char* kReadPermission = "com.nimbus.permission.READ_SETTINGS";
    static constexpr const char* kWritePermission = "com.nimbus.permission.WRITE_SETTINGS";
    static constexpr const char* kCurrentUserKey = "current_user";
    // Wakes the callback thread at destruction; handled like any key name.
    static constexpr const char* kSentinelKey = "SentinelNode";

    // Builds the default store (Sqlite3PreferencesDb under /data/nimbus/preferences/).
    PreferencesKeyManager();
    // Takes ownership of `db`, starts the callback thread, creates the profiler and initialises
    // the store (its result is not checked: a store that failed to open fails every operation).
    // Every caller identity and OS permission comes from `access`, which must not be null.
    explicit PreferencesKeyManager(
            std::unique_ptr<IPreferencesDb> db,
            std::shared_ptr<PreferencesAccess> access = std::make_shared<PreferencesAccess>());
    virtual ~PreferencesKeyManager();

    PreferencesKeyManager(const PreferencesKeyManager&) = delete;
    PreferencesKeyManager& operator=(const PreferencesKeyManager&) = delete;

    // The caller's uid, as the access seam answers it.
    uid_t getCallingUid() const { return mAccess->getCallingContext().uid; }
    // The seam every identity and OS permission check of the key manager goes through.
    const std::shared_ptr<PreferencesAccess>& access() const { return mAccess; }

    // Detaches every listener from its client's death and stops the callback thread (waits for
    // a pass in progress). Later calls do nothing; the destructor calls it.
    void stopCallbacks() EXCLUDES(mMutex);

    // ---- Schema processing ----

    // Applies a schema list from `domain` in one store batch under mMutex: adds (or, when the
    // list is not "installed", removes) every schema; a restarted list first drops the domain's
    // packages that it no longer names and expires the domain's keys that it does not declare
    // again. Returns true when every schema was applied; an empty pointer returns true at once.
    bool process(const std::unique_ptr<PreferencesSchemaList>& list, KeySourceDomain domain)
            EXCLUDES(mMutex);
    // Register / remove one schema. Only called by process().
    bool addLocked(const std::unique_ptr<PreferencesSchema>& schema) REQUIRES(mMutex);
    bool removeLocked(const std::unique_ptr<PreferencesSchema>& schema) REQUIRES(mMutex);

    // Store schema upgrades and version. They do not take mMutex: they run at start-up, before
    // any client is served.
    bool upgradeVersionFromV0ToV1();
    bool upgradeVersionFromV1ToV2();
    int getDatabaseUserVersion();

    // ---- Typed access ----

    // OS write-permission check (unless the uid's application id is privileged), then
    // setWithoutCallback; a successful write queues the key for listeners.
    int set(const std::string& key, const std::string& value, Type type, uid_t uid)
            EXCLUDES(mMutex);
    int set(const std::string& key, const std::string& value, Type type) EXCLUDES(mMutex);
    // set() for the caller's application in `userId`.
    int setUser(const std::string& key, const std::string& value, Type type, unsigned int userId)
            EXCLUDES(mMutex);
    // Key permission, type check and store write, for the user of `uid`; never notifies.
    int setWithoutCallback(const std::string& key, const std::string& value, Type type, uid_t uid)
            EXCLUDES(mMutex);
    int setWithoutCallback(const std::string& key, const std::string& value, Type type)
            EXCLUDES(mMutex);

    // ---- Batches ----

    // One key of a batch: the key, its value text and the type it is written as.
    struct BatchEntry {
        std::string key;
        std::string value;
        Type type;
    };
    // The most entries that one batch takes. A batch holds mMutex while it checks and writes all
    // of its entries, so this also bounds that hold (a few milliseconds of store writes).
    static constexpr size_t kMaxBatchEntries = 256;

    // Writes every entry for the user of `uid`, all or nothing. The OS write permission (unless
    // the uid's application id is privileged) and the user are checked once, as set() checks
    // them; then, under mMutex and before anything is written, every entry gets the checks of
    // setWithoutCallback (key permission, declared type) and its current value is read, which
    // also applies the store's user rule of the key's scope. The first entry refused ends the
    // call with the code that set() would return for it (with its log line and telemetry),
    // `*refused` (when not null) set to its index, and nothing written. Otherwise the values are
    // written in one store transaction, each distinct key's generation is bumped once, and the
    // keys are queued together, so that each listener gets one onChanged with all of its
    // changed keys. A store failure while writing returns WriteRefused after writing back, best
    // effort, the values read before for the entries already written (a key that had a default
    // and no value of its own keeps that default as its value). More than kMaxBatchEntries
    // entries: WriteRefused with nothing checked. An empty batch returns Ok and changes nothing.
    int setBatch(const std::vector<BatchEntry>& entries, uid_t uid, size_t* refused)
            EXCLUDES(mMutex);
    // setBatch() for the calling uid.
    int setBatch(const std::vector<BatchEntry>& entries, size_t* refused) EXCLUDES(mMutex);
    // setBatch() for the caller's application in `userId`.
    int setBatchUser(const std::vector<BatchEntry>& entries, unsigned int userId, size_t* refused)
            EXCLUDES(mMutex);

    // OS read-permission check (unless privileged), then getWithoutPermissionCheck.
    int get(const std::string& key, std::string& out, Type type, uid_t uid) EXCLUDES(mMutex);
    int get(const std::string& key, std::string& out, Type type) EXCLUDES(mMutex);
    int getUser(const std::string& key, std::string& out, Type type, unsigned int userId)
            EXCLUDES(mMutex);
    // Key permission, type check and store read (current value, else the default) for the user
    // of `uid`. On success `out` holds the value text.
    int getWithoutPermissionCheck(const std::string& key, std::string& out, Type type, uid_t uid)
            EXCLUDES(mMutex);
    int getWithoutPermissionCheck(const std::string& key, std::string& out, Type type)
            EXCLUDES(mMutex);

    // The declared type of a key the caller may read. On failure `out` keeps the value it came
    // with, which is also the type the trace records.
    int getType(const std::string& key, Type& out) EXCLUDES(mMutex);
    int getTypeLockedPermitted(const std::string& key, Type& out) const REQUIRES(mMutex);

    // Clears the current value so that the default applies again; notifies like a write.
    int reset(const std::string& key) EXCLUDES(mMutex);
    // reset() for the caller's application in `userId`, with the checks of setUser: WriteRefused
    // for a user the device does not have, and for a user key of a user other than the caller's
    // (unless the caller is root), as a write of it would be.
    int resetUser(const std::string& key, unsigned int userId) EXCLUDES(mMutex);

    // Ok when the caller holds the OS permission, else OsPermissionDenied.
    int checkOsReadPermission() const;
    int checkOsWritePermission() const;

    // Names of the legacy settings keys, which follow their own access rules. Set at start-up
    // from the device configuration (under mMutex, so Binder threads that are already checking
    // access see either the old set or the new one); empty until then.
    void setLegacyKeys(std::unordered_set<std::string> keys) EXCLUDES(mMutex);
    bool isLegacyKey(const std::string& key) const EXCLUDES(mMutex);

    // True when the store declares `key`. Logs nothing when it does not: callers use it to tell
    // "not declared yet" (a fresh store) from a refused read.
    bool isDeclared(const std::string& key) EXCLUDES(mMutex);

    // ---- Listing and describing keys ----

    // What listKeys and describeKey tell about one key: its definition, and whether the caller
    // may write it (the OS write permission, unless privileged, and the key permission of a
    // write in the caller's own user).
    struct KeyDescription {
        std::string key;
        Type type = Type::NoType;
        PreferencesKeyInfo::PreferenceScope scope = PreferencesKeyInfo::PreferenceScope::System;
        std::optional<std::string> defaultValue;
        std::optional<std::string> ownerPackage;
        bool writable = false;
    };

    // Replaces `out` with the keys that the caller could read one at a time with get in its own
    // user, in key order; with a non-empty `ownerPackage`, only the keys that package owns.
    // Refused as a get is before it looks at any key: OsPermissionDenied without the OS read
    // permission (unless privileged), ReadRefused when the caller's user is not a user of the
    // device or the store cannot list its keys.
    int listKeys(const std::string& ownerPackage, std::vector<KeyDescription>& out)
            EXCLUDES(mMutex);
    // Describes `key` for a caller that get would let read it, else refuses with get's code for
    // the same key: OsPermissionDenied; ReadRefused (unknown user; key not declared, for callers
    // that pass the key permission step; permission row unreadable); KeyPermissionDenied (no
    // read permission on the key, including an undeclared key for an app). `out` is only
    // written on success.
    int describeKey(const std::string& key, KeyDescription& out) EXCLUDES(mMutex);

    // ---- Change notification ----

    // Registers `listener` for `keys` for the calling app. OsPermissionDenied without the OS read
    // permission, ReadRefused when a key's permission row cannot be read, KeyPermissionDenied when
    // the caller may not read a key, ListenerNotStored when the store refuses the rows (for
    // example the same listener registered twice; no row of the refused listener stays) or when
    // another process hands in an object of this process.
    int registerListener(const android::sp<lumen::preferences::IPreferencesListener>& listener,
                         const std::vector<std::string>& keys, bool flag) EXCLUDES(mMutex);
    // Removes the listener that `uid` registered with this binder, also one without rows (no
    // keys, or keys that have expired). OsPermissionDenied without the OS read permission,
    // ListenerNotFound when `uid` has no such listener.
    int unregisterListener(uid_t uid,
                           const android::sp<lumen::preferences::IPreferencesListener>& listener)
            EXCLUDES(mMutex);
    int unregisterListener(const android::sp<lumen::preferences::IPreferencesListener>& listener)
            EXCLUDES(mMutex);

    // ---- Users and diagnostics ----

    // Records the foreground user (even when the caller may not write it) and publishes it as the
    // value of "current_user"; returns the result of that set().
    int currentUser(unsigned int userId) EXCLUDES(mMutex);
    unsigned int getCurrentUser() const { return mCurrentUser.load(std::memory_order_relaxed); }
    // Deletes the databases of users not in `users`. OsPermissionDenied without the OS write
    // permission, UserOperationFailed when the store fails. From then on the device's users are 0
    // and the ids in `users` (negative ones ignored); before the first list, 0 and the users that
    // have a database. Reads, writes and listener registrations for any other user are refused
    // (ReadRefused, WriteRefused) and open no database.
    int userList(const std::vector<int>& users) EXCLUDES(mMutex);
    int deleteUserData(unsigned int userId) EXCLUDES(mMutex);

    // The dumps take their text under mMutex and write it to `fd` after releasing it, giving up
    // (logged) when `fd` does not take it all within dumpTimeout().
    bool dump(int fd) EXCLUDES(mMutex);
    bool dumpDb(int fd) EXCLUDES(mMutex);
    bool dumpPreferences(int fd) EXCLUDES(mMutex);
    // Print the profiler's statistics or trace; print nothing and return false when the
    // corresponding switch is off.
    bool dumpProfile(int fd) EXCLUDES(mMutex);
    bool dumpTrace(int fd) EXCLUDES(mMutex);
    // How long a dump waits in all for its reader (default kDefaultDumpTimeout).
    static constexpr std::chrono::milliseconds kDefaultDumpTimeout{5000};
    void setDumpTimeout(std::chrono::milliseconds timeout) { mDumpTimeoutMs = timeout.count(); }
    std::chrono::milliseconds dumpTimeout() const {
        return std::chrono::milliseconds(mDumpTimeoutMs.load(std::memory_order_relaxed));
    }

    void setProfiling(bool on) EXCLUDES(mMutex);
    bool profiling() const { return mProfiling.load(std::memory_order_relaxed); }
    void resetProfile() EXCLUDES(mMutex);
    void setTracing(bool on) EXCLUDES(mMutex);
    bool tracing() const { return mTracing.load(std::memory_order_relaxed); }
    void resetTrace() EXCLUDES(mMutex);

    // ---- Read generations ----

    // The generation table that clients check their cached reads against. Every operation here
    // that can change a read's answer bumps it under mMutex before returning: a value write or
    // reset bumps the key's slot; schema lists, user switches, user list changes and deletions,
    // legacy key names and store upgrades bump the global generation.
    const PreferencesGenerationTable& generations() const { return mGenerations; }
    // Bumps the global generation, for a change made outside the key manager that can alter the
    // answer of many reads (the OS permissions it asks for, override properties). Call it after
    // the change is made and before the call that made it returns.
    void invalidateAllReads() EXCLUDES(mMutex);

    // Joins `items` with `separator` between them.
    static std::string stringJoin(const std::vector<std::string>& items,
                                  const std::string& separator);

private:
    // Lets tests hold the main mutex and queue key names directly, to pause the callback thread
    // at a known point.
    friend class PreferencesKeyManagerTestPeer;

    // What a read or a write may do after the key-permission step.
    struct Access {
        int status;                                // a KeyManagerStatus: Ok, or the refusal
        std::optional<unsigned int> user;          // the target user: the user of the uid argument
        std::optional<unsigned int> checkingUser;  // passed to the store as the current user
    };

    // Holds the key manager's mMutex for its lifetime. Taking it records the wait when profiling
    // (recordLock) or tracing (recordLockTrace with `operation` and `detail`); the clock is read a
    // second time only when the wait is recorded.
    class SCOPED_CAPABILITY TimedLock {
    public:
        TimedLock(PreferencesKeyManager& keyManager, const char* operation,
                  const std::string& detail) ACQUIRE(keyManager.mMutex);
        // For a trace detail that costs something to build: `detail()` is only called when the
        // wait goes into the trace.
        template <typename DetailFn,
                  typename = std::enable_if_t<std::is_invocable_v<const DetailFn&>>>
        TimedLock(PreferencesKeyManager& keyManager, const char* operation, const DetailFn& detail)
                ACQUIRE(keyManager.mMutex);
        ~TimedLock() RELEASE();
        TimedLock(const TimedLock&) = delete;
        TimedLock& operator=(const TimedLock&) = delete;

    private:
        PreferencesKeyManager& mKeyManager;
    };

    // Appends a trace entry of `type` for an operation of the current thread that began at
    // `start` and took `durationUs`; `pid` is the process it was done for. Callers check
    // mTracing first, so that the texts are only built for a trace.
    void traceLocked(PreferencesProfiler::EventType type, Clock::time_point start,
                     long long durationUs, std::string first, std::string second, unsigned int pid)
            REQUIRES(mMutex);
    Access checkKeyAccessLocked(const std::string& key, uid_t uid, bool write, bool* rowReadFailed)
            REQUIRES(mMutex);
    // setBatch's work under mMutex: checks every entry, then writes them all. `changed` receives
    // the distinct keys whose generations were bumped (none when an entry was refused).
    // False when the store refuses `access` to the key's value for its user: a user key of a
    // user other than the checking user. Reads the value to ask; other read failures are true.
    bool mayWriteForUserLocked(const Access& access, const std::string& key) REQUIRES(mMutex);
    // reset() as `uid`, which may be the caller's application in another user.
    int resetAs(const std::string& key, uid_t uid) EXCLUDES(mMutex);
    int setBatchLocked(const std::vector<BatchEntry>& entries, uid_t uid, size_t* refused,
                       std::set<std::string>* changed) REQUIRES(mMutex);
    // The checks of setBatch for one entry, under mMutex; on success `access` is filled in and
    // `old` holds the value read now (empty when none could be read). Returns Ok or the
    // refusal, logged and reported.
    int checkBatchEntryLocked(const BatchEntry& entry, uid_t uid, Access* access,
                              std::optional<std::string>* old) REQUIRES(mMutex);
    bool isPrivilegedAppId(uid_t uid) const;
    // The caller's pid as trace entries record it (TraceData::kOwnPid for this process).
    unsigned int callingPidForTrace() const;
    // The checks of a get that do not depend on the key, for `uid` calling `operation`: Ok,
    // OsPermissionDenied or ReadRefused.
    int checkReadCall(uid_t uid, const char* operation, const std::string& detail) const;
    // Describes `definition` for `uid` when get would let it read the key; otherwise returns
    // get's refusal code and leaves `out` alone. `osWrite`: the caller may write as far as the
    // OS permission goes.
    int describeLocked(const IPreferencesDb::PreferenceDefinition& definition, uid_t uid,
                       bool osWrite, KeyDescription& out) REQUIRES(mMutex);
    // The OS write-permission check, without the log line and telemetry of a refused write.
    bool mayWriteAsOs(uid_t uid) const;
    // True, with a log line naming `operation` and `key`, when `userId` is not a user of the
    // device (see userList).
    bool refuseUnknownUser(unsigned int userId, const char* operation, const std::string& key) const
            EXCLUDES(mUsersLock);
    void callback() EXCLUDES(mMutex);
    static long long microsSince(Clock::time_point start);

    const std::shared_ptr<PreferencesAccess> mAccess;
    mutable Mutex mMutex;
    BlockingQueue<std::string> mQueue;
    std::map<uint32_t, android::sp<PreferencesListener>> mListeners GUARDED_BY(mMutex);
    std::atomic<bool> mRunning{true};
    std::once_flag mStopOnce;
    std::thread mThread;
    std::unique_ptr<IPreferencesDb> mDb PT_GUARDED_BY(mMutex);
    std::atomic<unsigned int> mCurrentUser{0};
    // The device's users (see userList). Taken after mMutex when both are held.
    mutable Mutex mUsersLock;
    std::set<unsigned int> mUsers GUARDED_BY(mUsersLock);
    std::unique_ptr<PreferencesProfiler> mProfiler PT_GUARDED_BY(mMutex);
    std::atomic<bool> mProfiling{false};
    std::atomic<bool> mTracing{false};
    std::atomic<int64_t> mDumpTimeoutMs{kDefaultDumpTimeout.count()};
    std::unordered_set<std::string> mLegacyKeys GUARDED_BY(mMutex);
    PreferencesGenerationTable mGenerations;
};

}  // namespace Halo::OS
