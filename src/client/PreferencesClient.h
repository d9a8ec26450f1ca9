#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/PreferenceValue.h"
#include "client/PreferencesKeyDescription.h"
#include "client/PreferencesStatus.h"
#include "client/PreferencesTarget.h"
#include "client/PreferencesWatch.h"

namespace Halo::OS {

class PreferencesConnection;

// A client of the preferences service, for C++ programs and the `prefs` tool.
//
//     auto client = PreferencesClient::connect();
//     int32_t columns = 0;
//     PreferencesStatus status = client->getInteger("launcher_grid_columns", &columns);
//     if (!status.isOk()) fprintf(stderr, "%s\n", status.toString().c_str());
//
// Every call is one synchronous Binder call made as the calling process (its uid decides what
// the service allows), except typed gets answered from the client's read cache. The service's
// refusals come back unchanged in the PreferencesStatus; a failing get leaves its out-value
// untouched. Calls may be made from any number of threads.
//
// The read cache keeps successful typed gets (never refusals) and checks each one against the
// service's shared table of generations, which the service bumps before any change that could
// alter the answer returns: a cached answer is the one the service would give at that moment.
// A service that offers no generation table is read through plain calls.
class PreferencesClient {
public:
    // The name under which the daemon publishes the service.
    static constexpr const char* kServiceName = "PreferencesService";

    using ChangeCallback = std::function<void(const std::vector<std::string>& keys)>;

    static constexpr size_t kDefaultCacheEntries = 4096;

    struct CacheStatistics {
        uint64_t hits = 0;
        uint64_t misses = 0;
        size_t entries = 0;
        size_t capacity = 0;
    };

    // The size of the read cache of every client connected from now on in this process
    // (kDefaultCacheEntries until set); 0 makes them use plain calls only.
    static void setCacheEntries(size_t entries);
    static size_t cacheEntries();

    // Makes every later Binder look-up of this process use the services in `directory` (the
    // process-wide BINDER_DIR; by default /run/binder).
    static void useBinderDirectory(const std::string& directory);

    // Also trusts a service served by `uid` in later connect and tryConnect calls of this
    // process. Always trusted: root, this process's effective uid and the uids listed in the
    // environment variable PREFS_TRUSTED_UIDS (decimal, separated by commas). A service served
    // by any other uid (the kernel's credentials of its socket) is treated as not published, and
    // the Binder runtime logs one line naming it and the uid.
    static void trustServerUid(uint32_t uid);

    // Connects to the service published under `name` by a trusted uid (see trustServerUid),
    // waiting up to about five seconds for it to appear. Null when it does not; then `status`
    // (if given) is Unreachable.
    static std::unique_ptr<PreferencesClient> connect(const std::string& name = kServiceName,
                                                      PreferencesStatus* status = nullptr);
    // As connect, without waiting.
    static std::unique_ptr<PreferencesClient> tryConnect(const std::string& name = kServiceName,
                                                         PreferencesStatus* status = nullptr);

    ~PreferencesClient();
    PreferencesClient(const PreferencesClient&) = delete;
    PreferencesClient& operator=(const PreferencesClient&) = delete;

    // The declared type of `key`, for a caller that may read it. Failed with BAD_TYPE when the
    // service answers a code that names no value type.
    PreferencesStatus getType(const std::string& key, PreferenceValue::Type* type);

    // Reads `key` as `type` for `target`'s user into `out`.
    PreferencesStatus get(const std::string& key, PreferenceValue::Type type,
                          const PreferencesTarget& target, PreferenceValue* out);
    // Writes `value` (with its own type) to `key` for `target`'s user.
    PreferencesStatus set(const std::string& key, const PreferenceValue& value,
                          const PreferencesTarget& target);

    PreferencesStatus getInteger(const std::string& key, int32_t* out,
                                 const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus getLong(const std::string& key, int64_t* out,
                              const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus getFloat(const std::string& key, float* out,
                               const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus getDouble(const std::string& key, double* out,
                                const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus getBoolean(const std::string& key, bool* out,
                                 const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus getString(const std::string& key, std::string* out,
                                const PreferencesTarget& target = PreferencesTarget::caller());

    PreferencesStatus setInteger(const std::string& key, int32_t value,
                                 const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus setLong(const std::string& key, int64_t value,
                              const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus setFloat(const std::string& key, float value,
                               const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus setDouble(const std::string& key, double value,
                                const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus setBoolean(const std::string& key, bool value,
                                 const PreferencesTarget& target = PreferencesTarget::caller());
    PreferencesStatus setString(const std::string& key, const std::string& value,
                                const PreferencesTarget& target = PreferencesTarget::caller());

    // The keys this caller could read one at a time with the typed gets (in its own user), in
    // key order; with a non-empty `ownerPackage`, only the keys that package owns. Keys of a
    // type this client does not know are left out. The service refuses as a get would (for
    // example OsPermissionDenied without the OS read permission); UNKNOWN_TRANSACTION from a
    // service without the extension. `out` is only written on success.
    PreferencesStatus listKeys(const std::string& ownerPackage,
                               std::vector<PreferencesKeyDescription>* out);
    // The description of `key`, or the service-specific error a get of it would give
    // (KeyPermissionDenied when an app may not read it, whether or not it is declared).
    // BAD_TYPE when its type code names no value type this client knows.
    PreferencesStatus describeKey(const std::string& key, PreferencesKeyDescription* out);

    // One key of a batch and the value (with its own type) to write to it.
    struct BatchEntry {
        std::string key;
        PreferenceValue value;
    };
    // The most entries that one setBatch takes.
    static constexpr size_t kMaxBatchEntries = 256;

    // Writes every entry for `target`'s user, all or nothing: each entry is checked as the set
    // of its type would be, and the first one refused fails the call with that set's status and
    // nothing written; its index goes to `refused` (when not null). On success each listener of
    // the keys gets one notification with all of its keys that changed, and reads (cached ones
    // too) answer the new values. An empty batch succeeds at once. More than kMaxBatchEntries
    // entries fail with the exception EX_ILLEGAL_ARGUMENT; a service without the extension with
    // UNKNOWN_TRANSACTION.
    PreferencesStatus setBatch(const std::vector<BatchEntry>& entries,
                               const PreferencesTarget& target = PreferencesTarget::caller(),
                               size_t* refused = nullptr);

    // Restores the default of `key` for `target`'s user. The caller's own user goes through the
    // service's reset; other targets through the extension (UNKNOWN_TRANSACTION without it),
    // with the checks of a set for that user.
    PreferencesStatus reset(const std::string& key,
                            const PreferencesTarget& target = PreferencesTarget::caller());

    // Registers `onChanged` for `keys`. It is called on a Binder thread, one call at a time,
    // with the watched keys that changed (sorted). Null when the service refuses; then `status`
    // (if given) says why. The watch may outlive this client object.
    std::unique_ptr<PreferencesWatch> watch(const std::vector<std::string>& keys,
                                            ChangeCallback onChanged,
                                            PreferencesStatus* status = nullptr);

    // Writes the service's dump for `args` to `fd` (the service writes to it directly).
    PreferencesStatus dump(int fd, const std::vector<std::string>& args = {});

    // Runs a profile command ("start-profiling", "reset-trace", ...); only root may.
    PreferencesStatus profile(const std::string& command,
                              const std::vector<std::string>& args = {});

    // Calls `onDied` once, on a Binder thread, when the service's process goes away (at once if
    // it already has). Replaces an earlier function.
    void setOnServiceDied(std::function<void()> onDied);
    // False once the service's process is known to have gone away.
    bool isAlive() const;

    // The read cache's counters (a hit is a get answered without a call, a miss one that was
    // looked up and not found); all 0 when this client does not cache.
    CacheStatistics cacheStatistics() const;

private:
    explicit PreferencesClient(std::shared_ptr<PreferencesConnection> connection);

    std::shared_ptr<PreferencesConnection> mConnection;
};

}  // namespace Halo::OS
