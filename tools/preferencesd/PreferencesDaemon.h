#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/StrongPointer.h>

#include <string>

#include "DaemonOptions.h"
#include "GatedBinder.h"
#include "LockFile.h"
#include "service/PreferencesService.h"

namespace Halo::OS {

// The life of the host daemon, in the steps that main() calls in this order:
//
//   prepare()   the environment: the service directory and the data directory (created when
//               missing, checked and locked), system properties, telemetry library, device
//               configuration
//   (main starts the Binder thread pool)
//   start()     checks the store, constructs the service on it and runs its start-up
//               steps: migrateLegacyKeys, injectNativeServiceKeys, upgradeToLatestVersion,
//               handleProfileAndTraceOnBoot; then lets the app-info events through
//   publish()   makes the service reachable as "PreferencesService": from then on its socket
//               exists
//   shutdown()  removes the socket, refuses new calls, waits for the calls under way, and
//               destroys the service (package manager stopped, key manager and store closed)
//
// One object per process; every call comes from the daemon's main thread.
class PreferencesDaemon {
public:
    static constexpr const char* kServiceName = "PreferencesService";
    // In the data directory: the "persist." properties the service wrote, and the lock that keeps
    // a second daemon off the same store.
    static constexpr const char* kPersistFile = "persist.properties";
    static constexpr const char* kDataLockFile = "preferencesd.lock";
    // In the service directory: held by the daemon that serves kServiceName there. The leading
    // dot keeps it out of the list of services.
    static constexpr const char* kServiceLockFile = ".PreferencesService.lock";

    explicit PreferencesDaemon(DaemonOptions options);
    // Shuts down if that has not happened yet.
    ~PreferencesDaemon();

    PreferencesDaemon(const PreferencesDaemon&) = delete;
    PreferencesDaemon& operator=(const PreferencesDaemon&) = delete;

    // False, with one line in `*error` that says what to fix, when the daemon cannot run: a
    // directory that cannot be created or written, or that users other than its owner may write
    // (accepted with a warning when it belongs to the unprivileged uid running the daemon), a
    // data directory of another uid, another daemon serving in the service
    // directory or using the data directory, an unreadable property file, persisted property
    // file or telemetry library. Sets BINDER_DIR when --binder-dir was given, so it must run
    // before any other thread starts. Restricts "permission" and "PreferencesAppInfoInquirer" to
    // servers running as root, the daemon's uid or a --trusted-uid.
    bool prepare(std::string* error);

    // Checks the store (a damaged system database is moved aside, see StoreRecovery), constructs
    // the service and runs its start-up steps. A step that fails is logged and the daemon carries
    // on (a failed legacy migration resumes at the next start). False, with one line in `*error`,
    // when the store can neither be opened nor moved aside. After prepare().
    bool start(std::string* error);

    // Publishes the service. False, with the reason in `*error`, when the socket cannot be made.
    // After start().
    bool publish(std::string* error);

    // Stops serving and destroys the service; every write answered before is in the store's
    // files. Safe to call more than once and without publish().
    void shutdown();

    // The service directory in use; set by prepare().
    const std::string& binderDir() const { return mBinderDir; }
    // The data directory without a trailing slash; set by prepare().
    const std::string& dataDir() const { return mDataDir; }

private:
    bool prepareBinderDir(std::string* error);
    bool prepareDataDir(std::string* error);
    bool prepareProperties(std::string* error);
    std::string socketPath() const;

    const DaemonOptions mOptions;
    std::string mBinderDir;
    std::string mDataDir;
    LockFile mServiceLock;
    LockFile mDataLock;
    android::sp<PreferencesService> mService;
    android::sp<GatedBinder> mGate;
    // The socket as published, so that shutdown removes this daemon's socket and no other.
    bool mPublished = false;
    dev_t mSocketDevice = 0;
    ino_t mSocketInode = 0;
};

}  // namespace Halo::OS
