#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Halo::OS {

// The command line of preferencesd:
//
//   preferencesd [--binder-dir DIR] [--data-dir DIR] [--legacy-dir DIR] [--config-dir DIR]
//                [--property KEY=VALUE]... [--property-file FILE] [--telemetry-lib PATH]
//                [--threads N] [--trusted-uid UID]... [--help]
//
// Every option also takes the form --option=VALUE. An option given twice keeps its last value,
// except --property and --trusted-uid, which add one entry each time.
struct DaemonOptions {
    static constexpr const char* kDefaultDataDir = "/data/nimbus/preferences/";
    static constexpr const char* kDefaultLegacyDir = "/data/nimbus/settings/";
    static constexpr const char* kDefaultConfigDir = "/etc/nimbus/preferences/";
    static constexpr size_t kDefaultThreads = 15;
    static constexpr size_t kMaxThreads = 256;

    enum class Outcome {
        Run,    // the options are complete: start the daemon
        Help,   // --help was given: print usage() and exit 0
        Error,  // the command line is wrong: `error` says why in one line
    };

    // Parses argv[1] to argv[argc - 1] into this object. On Error, `*error` names the option or
    // argument at fault; the fields are then partly filled and must not be used.
    Outcome parse(int argc, const char* const* argv, std::string* error);

    // The text of --help: synopsis, every option with its default, exit statuses.
    static std::string usage();

    // Empty: the service directory of the environment ($BINDER_DIR, else /run/binder).
    std::string binderDir;
    std::string dataDir = kDefaultDataDir;
    std::string legacyDir = kDefaultLegacyDir;
    std::string configDir = kDefaultConfigDir;
    // --property KEY=VALUE, in the order given; a later one wins.
    std::vector<std::pair<std::string, std::string>> properties;
    // Empty: none.
    std::string propertyFile;
    // Empty: reports are only counted and logged.
    std::string telemetryLib;
    // The most Binder threads that serve calls at once.
    size_t threads = kDefaultThreads;
    // Uids trusted to serve "permission" and "PreferencesAppInfoInquirer" besides root and the
    // daemon's own uid, in the order given.
    std::vector<uid_t> trustedUids;
};

}  // namespace Halo::OS
