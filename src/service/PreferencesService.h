#pragma once

#include <binder/Status.h>
#include <lumen/preferences/BnPreferencesService.h>
#include <lumen/preferences/IPreferencesListener.h>
#include <utils/Errors.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "intake/PreferencesPackageManager.h"
#include "keymanager/PreferencesKeyManager.h"
#include "model/PreferencesKeyInfo.h"
#include "service/PreferencesOverrides.h"
#include "service/ServiceStatus.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// The Binder object that clients call: "lumen.preferences.IPreferencesService".
//
// Every typed operation is a fixed translation: the UTF-16 key becomes UTF-8 (cut at its first
// NUL), a value becomes the text in which the store keeps it (or the text becomes a value), one
// key manager operation is called, and its result becomes the Binder status: 0 is ok, any other
// code r is returned unchanged as a service-specific error r. The service checks no permission of
// its own; the key manager does (its codes: KeyManagerStatus). A getter, or getType, given a null
// out-pointer fails with the service-specific error ServiceStatus::NullOutValue without calling
// the key manager.
// A failing getter leaves its out-value untouched.
//
// Stored text of a value:
//   Integer, Long  decimal ("-12"); read back with strtol, an Integer truncated to 32 bits
//   Double, Float  printf "%f", six decimals ("0.123457"); read back with strtod / strtof
//   Boolean        "1" or "0"; reads true exactly for the texts "1" and "true"
//   String         the UTF-8 text, cut at the first NUL
// Text that does not parse as a number reads as its parsed prefix, or 0, with success.
//
// Three flavours choose the user: the plain operations act for the caller's own user, the
// ...Current ones for the device's current user (asked of the key manager just before each call)
// and the ...User ones for the user id given. Only plain setInteger and getInteger, getType and
// reset consult PreferencesOverrides.
//
// Life of a host: construct (the package manager starts connecting to the app-info service at
// once), run the start-up steps migrateLegacyKeys, injectNativeServiceKeys,
// upgradeToLatestVersion and handleProfileAndTraceOnBoot on one thread, call startupFinished(),
// publish, serve. The constructors run none of the steps. App-info events (users, schema lists)
// that arrive before startupFinished() wait for it, so they are applied to a store that the steps
// have prepared ("current_user" declared, versions upgraded) whatever the timing. Destruction
// stops the package manager and releases the key manager; no Binder thread may still be inside
// the service then.
//
// Threads: Binder threads call in concurrently; the service adds no lock around calls (the key
// manager serialises; mNoticeMutex guards only the store-recovery note). The start-up steps run
// on the host's thread.
class PreferencesService : public lumen::preferences::BnPreferencesService {
public:
    using Status = android::binder::Status;
    using String16 = android::String16;
    using IPreferencesListener = lumen::preferences::IPreferencesListener;

    static constexpr const char* kProfileOnBootKey = "preferences_profile_on_boot_one_shot";
    static constexpr const char* kTraceOnBootKey = "preferences_trace_on_boot_one_shot";

    // Dump section bits: the arguments select a set of them.
    static constexpr int kDumpSummary = 1;
    static constexpr int kDumpKeyManager = 2;
    static constexpr int kDumpPackageManager = 4;
    static constexpr int kDumpDatabases = 8;
    static constexpr int kDumpPreferences = 16;
    static constexpr int kDumpProfile = 32;
    static constexpr int kDumpTrace = 64;

    // Creates the key manager with its default store (the device's preference databases), then
    // creates the package manager, which starts connecting to the app-info service and holds its
    // events until startupFinished().
    PreferencesService();
    // Shares `keyManager`, which must not be null, then creates and starts the package manager
    // as above.
    explicit PreferencesService(std::shared_ptr<PreferencesKeyManager> keyManager);
    // Destroys the package manager (which stops it), then releases the key manager.
    ~PreferencesService() override;

    PreferencesService(const PreferencesService&) = delete;
    PreferencesService& operator=(const PreferencesService&) = delete;

    // Plain flavour: the caller's own user. setInteger also writes the key's override property
    // when the key has one (the result of that write is ignored); getInteger answers from a
    // non-empty override property without asking the key manager, and so without any
    // permission check.
    Status setInteger(const String16& key, int32_t value) override;
    Status setDouble(const String16& key, double value) override;
    Status setString(const String16& key, const String16& value) override;
    Status setLong(const String16& key, int64_t value) override;
    Status setBoolean(const String16& key, bool value) override;
    Status setFloat(const String16& key, float value) override;
    Status getInteger(const String16& key, int32_t* out) override;
    Status getDouble(const String16& key, double* out) override;
    Status getString(const String16& key, String16* out) override;
    Status getLong(const String16& key, int64_t* out) override;
    Status getBoolean(const String16& key, bool* out) override;
    Status getFloat(const String16& key, float* out) override;

    // Current flavour: the device's current user. Overrides are never consulted.
    Status setIntegerCurrent(const String16& key, int32_t value) override;
    Status setDoubleCurrent(const String16& key, double value) override;
    Status setStringCurrent(const String16& key, const String16& value) override;
    Status setLongCurrent(const String16& key, int64_t value) override;
    Status setBooleanCurrent(const String16& key, bool value) override;
    Status setFloatCurrent(const String16& key, float value) override;
    Status getIntegerCurrent(const String16& key, int32_t* out) override;
    Status getDoubleCurrent(const String16& key, double* out) override;
    Status getStringCurrent(const String16& key, String16* out) override;
    Status getLongCurrent(const String16& key, int64_t* out) override;
    Status getBooleanCurrent(const String16& key, bool* out) override;
    Status getFloatCurrent(const String16& key, float* out) override;

    // The key's PreferencesKeyInfo::Type code: the override's type while the key's override
    // property is non-empty (whether or not the store knows the key), else the declared type.
    Status getType(const String16& key, int32_t* out) override;

    // User flavour: the user `userId`. Overrides are never consulted.
    Status setIntegerUser(const String16& key, int32_t value, int32_t userId) override;
    Status setDoubleUser(const String16& key, double value, int32_t userId) override;
    Status setStringUser(const String16& key, const String16& value, int32_t userId) override;
    Status setLongUser(const String16& key, int64_t value, int32_t userId) override;
    Status setBooleanUser(const String16& key, bool value, int32_t userId) override;
    Status setFloatUser(const String16& key, float value, int32_t userId) override;
    Status getIntegerUser(const String16& key, int32_t userId, int32_t* out) override;
    Status getDoubleUser(const String16& key, int32_t userId, double* out) override;
    Status getStringUser(const String16& key, int32_t userId, String16* out) override;
    Status getLongUser(const String16& key, int32_t userId, int64_t* out) override;
    Status getBooleanUser(const String16& key, int32_t userId, bool* out) override;
    Status getFloatUser(const String16& key, int32_t userId, float* out) override;

    // Empties the key's override property (result ignored), then clears the stored current value
    // so that the default applies again.
    Status reset(const String16& key) override;

    // Registers `listener` for `keys` (converted in order); `flag` passes through unchanged.
    Status registerListener(const android::sp<IPreferencesListener>& listener,
                            const std::vector<String16>& keys, bool flag) override;
    Status unregisterListener(const android::sp<IPreferencesListener>& listener) override;

    // ---- Start-up steps (the host's thread, before or after publishing) ----

    // Migrates the legacy settings databases of the device's default directory
    // (LegacySettingsDbHelper::kDefaultDirectory) once; see PreferencesLegacyKeysMigrationManager.
    // False when the migration must be tried again at the next start.
    bool migrateLegacyKeys();
    // The same with the legacy databases in `legacyDirectory`.
    bool migrateLegacyKeys(const std::string& legacyDirectory);
    // Declares the native-service keys of the process-wide device configuration
    // (PreferencesDeviceConfig::instance()); false when the key manager refused them.
    bool injectNativeServiceKeys();
    // Takes the store to PreferencesVersionManager::kLatestVersion; false when a step failed.
    bool upgradeToLatestVersion();
    // Reads the one-shot switches kProfileOnBootKey and kTraceOnBootKey: a switch that is on
    // turns profiling (tracing) on and is written back to false; a switch that is off, or that
    // cannot be read, turns it off. Failures are logged only.
    void handleProfileAndTraceOnBoot();
    // Lets the app-info events through: those that waited, then every later one. Call once the
    // start-up steps have run.
    void startupFinished();
    // Records what the host did to a store it found damaged at start (for example "system.db was
    // damaged (file is not a database); moved to ..."). The dump's summary then shows it on a line
    // "      Store recovered at start:    <text>"; without it the summary is unchanged.
    void setStoreRecovery(std::string text) EXCLUDES(mNoticeMutex);

    // ---- Profiling and tracing ----

    // Forward to the key manager; without one they only log. The getters return false without
    // a key manager.
    void setProfiling(bool on);
    void setTracing(bool on);
    bool profiling() const;
    bool tracing() const;
    // Write the one-shot switches through the plain setBoolean (as the caller); a refusal is
    // logged only. Without a key manager they log an error and write nothing.
    void setProfileOnBoot(bool on);
    void setTraceOnBoot(bool on);

    // The profile command, for uid 0 only (any other caller gets the exception
    // EX_UNSUPPORTED_OPERATION, -7). `command` is one of, exactly, "start-profiling",
    // "stop-profiling", "enable-profile-on-boot", "disable-profile-on-boot", "reset-profile",
    // "start-tracing", "stop-tracing", "enable-trace-on-boot", "disable-trace-on-boot",
    // "reset-trace"; any other word is the exception EX_ILLEGAL_ARGUMENT (-3). A known command
    // returns ok even when it could not act. `args` is not used.
    Status profile(const std::string& command, const std::vector<std::string>& args) override;

    // The answer to the platform's dump request, written to `fd`. A caller without
    // READ_SETTINGS gets one refusal line and PERMISSION_DENIED. Arguments: none, "all" or "-a"
    // (summary, package manager, key manager, databases), "nodb" (the same without databases),
    // "db", "--list" (preference table), "--profile", "--trace"; any other word, or more than one
    // argument, prints a usage line. Returns OK otherwise. The whole text is made first and then
    // written, waiting at most the key manager's dump timeout for `fd` to take it; the system
    // property kDumpTimeoutProperty (milliseconds), when set at construction, sets that timeout.
    android::status_t dump(int fd, const android::Vector<String16>& args) override;
    static constexpr const char* kDumpTimeoutProperty = "halo.prefs.dump_timeout_ms";

private:
    using Type = PreferencesKeyInfo::Type;

    enum class Flavour { Plain, Current, User };

    // Writes `text` as the key's value through the key manager operation of `flavour`; `userId`
    // is used by the User flavour only. Returns the key manager's code.
    int writeText(Flavour flavour, const std::string& key, const std::string& text, Type type,
                  int32_t userId);
    // Reads the key's value text into `text`; otherwise as writeText.
    int readText(Flavour flavour, const std::string& key, Type type, int32_t userId,
                 std::string& text);

    // Encodes `value` and writes it; the status carries the key manager's code.
    template <typename T>
    Status setTyped(Flavour flavour, const String16& key, const T& value, int32_t userId);
    // Reads and decodes into `*out`; NullOutValue when `out` is null; `*out` unchanged on
    // failure.
    template <typename T>
    Status getTyped(Flavour flavour, const String16& key, int32_t userId, T* out);

    // Turns profiling (tracing) on or off as setProfiling does and, when the switch `key` was on,
    // writes it back to false.
    void applyOnBootSwitch(const char* key, void (PreferencesService::*apply)(bool));
    // Writes the one-shot switch `key`; a refusal is logged.
    void setOnBoot(const char* key, bool on);
    // The section set for the dump arguments; 0 for arguments that select nothing known.
    static int dumpSections(const android::Vector<String16>& args);
    // The text of dump(), written to `fd`; dump()'s result.
    android::status_t writeDump(int fd, const android::Vector<String16>& args);

    std::shared_ptr<PreferencesKeyManager> mKeyManager;
    std::unique_ptr<PreferencesPackageManager> mPackageManager;
    // Stays empty: the override operations are process-wide and need no instance.
    std::unique_ptr<PreferencesOverrides> mOverrides;
    // Set by the host before publishing; read by dumps on Binder threads.
    Mutex mNoticeMutex;
    std::string mStoreRecovery GUARDED_BY(mNoticeMutex);
};

}  // namespace Halo::OS
