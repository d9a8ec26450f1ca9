// preferencesd: the host daemon of the preferences service. See DaemonOptions::usage() and
// docs/daemon.md.
#define LOG_TAG "PreferencesService"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <utility>

#include "DaemonOptions.h"
#include "PreferencesDaemon.h"
#include "process/ProcessSignals.h"

namespace {

// True when a stop signal is already waiting.
bool stopRequested(const sigset_t& stopSignals) {
    sigset_t pending;
    sigemptyset(&pending);
    if (sigpending(&pending) != 0) return false;
    for (int signal : {SIGTERM, SIGINT}) {
        if (sigismember(&stopSignals, signal) == 1 && sigismember(&pending, signal) == 1)
            return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    using Halo::OS::DaemonOptions;
    using Halo::OS::PreferencesDaemon;

    DaemonOptions options;
    std::string error;
    switch (options.parse(argc, argv, &error)) {
        case DaemonOptions::Outcome::Run:
            break;
        case DaemonOptions::Outcome::Help:
            fputs(DaemonOptions::usage().c_str(), stdout);
            return 0;
        case DaemonOptions::Outcome::Error:
            fprintf(stderr, "preferencesd: %s (see preferencesd --help)\n", error.c_str());
            return 2;
    }

    // The store, its journals, the persisted properties and the lock files are the daemon's
    // alone, whatever the mode of a data directory that existed before; what must be open to
    // others (the service socket, the socket directory) is given its mode explicitly.
    umask(077);

    // SIGTERM and SIGINT are taken by this thread with sigwait, whatever disposition the daemon
    // inherited (a background job starts with SIGINT ignored); every thread started later
    // inherits the mask, so no Binder or worker thread is interrupted by them. A client that
    // closes its end of a dump pipe must not kill the daemon.
    const sigset_t stopSignals = Halo::OS::ProcessSignals::takeStopSignals();
    signal(SIGPIPE, SIG_IGN);

    const size_t threads = options.threads;
    PreferencesDaemon daemon(std::move(options));
    if (!daemon.prepare(&error)) {
        fprintf(stderr, "preferencesd: %s\n", error.c_str());
        return 1;
    }

    // The thread startThreadPool starts is not counted by the maximum (as on a device).
    android::ProcessState::self()->setThreadPoolMaxThreadCount(threads - 1);
    android::ProcessState::self()->startThreadPool();

    if (!daemon.start(&error)) {
        fprintf(stderr, "preferencesd: %s\n", error.c_str());
        daemon.shutdown();
        android::IPCThreadState::self()->stopProcess();
        return 1;
    }
    if (!stopRequested(stopSignals)) {
        if (!daemon.publish(&error)) {
            fprintf(stderr, "preferencesd: %s\n", error.c_str());
            daemon.shutdown();
            android::IPCThreadState::self()->stopProcess();
            return 1;
        }
    }
    int received = 0;
    sigwait(&stopSignals, &received);
    ALOGD("preferencesd: stopping on signal %d", received);

    daemon.shutdown();
    android::IPCThreadState::self()->stopProcess();
    return 0;
}
