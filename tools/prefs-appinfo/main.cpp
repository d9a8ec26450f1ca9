// prefs-appinfo: the device simulator that serves the preferences service its packages, users and
// permissions from a folder of package files.
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "binder/BinderServiceManager.h"
#include "binder/DirectoryTrust.h"
#include "prefs-appinfo/AppInfoCommandLine.h"
#include "prefs-appinfo/AppInfoSimulator.h"
#include "process/ProcessSignals.h"

int main(int argc, char** argv) {
    using Halo::OS::AppInfoCommandLine;
    AppInfoCommandLine::Options options;
    std::string error;
    if (!AppInfoCommandLine::parse(std::vector<std::string>(argv + 1, argv + argc), &options,
                                   &error)) {
        fprintf(stderr, "prefs-appinfo: %s (see 'prefs-appinfo --help')\n", error.c_str());
        return 2;
    }
    if (options.help) {
        fputs(AppInfoCommandLine::usage().c_str(), stdout);
        return 0;
    }
    if (!options.binderDir.empty()) setenv("BINDER_DIR", options.binderDir.c_str(), 1);
    // Whoever may write the service directory could take the names this process publishes.
    const std::string binderDir = Halo::OS::BinderServiceManager::directory();
    std::string problem;
    switch (Halo::OS::DirectoryTrust::check(binderDir, &problem)) {
        case Halo::OS::DirectoryTrust::Verdict::Trusted:
        case Halo::OS::DirectoryTrust::Verdict::Missing:  // created with a safe mode on publish
            break;
        case Halo::OS::DirectoryTrust::Verdict::Warn:
            fprintf(stderr,
                    "prefs-appinfo: warning: socket directory %s %s; accepted because it belongs "
                    "to the uid running prefs-appinfo\n",
                    binderDir.c_str(), problem.c_str());
            break;
        case Halo::OS::DirectoryTrust::Verdict::Refused:
            fprintf(stderr, "prefs-appinfo: socket directory %s %s\n", binderDir.c_str(),
                    problem.c_str());
            return 1;
    }

    // Taken before any thread starts, whatever disposition was inherited (a background job
    // starts with SIGINT ignored), so every thread inherits the mask and sigwait below is the one
    // place the stop signals arrive.
    const sigset_t stopSignals = Halo::OS::ProcessSignals::takeStopSignals();

    int status = 0;
    {
        Halo::OS::AppInfoSimulator simulator(options.packagesDir, options.systemUids);
        android::ProcessState::self()->startThreadPool();
        if (!simulator.start(&error)) {
            fprintf(stderr, "prefs-appinfo: %s\n", error.c_str());
            status = 1;
        } else {
            int signal = 0;
            sigwait(&stopSignals, &signal);
        }
        android::IPCThreadState::self()->stopProcess();
    }
    return status;
}
