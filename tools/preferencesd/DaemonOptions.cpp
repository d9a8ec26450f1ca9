#include "DaemonOptions.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace Halo::OS {
namespace {

constexpr std::string_view kUsage = R"(Usage: preferencesd [OPTION]...
Runs the preferences service: opens the preference store, declares the device's native-service
keys, migrates legacy settings once, upgrades the store, and publishes the Binder service
"PreferencesService". The service socket appears only when every start-up step has run.
SIGTERM or SIGINT stops the daemon cleanly (exit status 0).

Options:
  --binder-dir DIR       directory of published Binder services (default: $BINDER_DIR, else
                         /run/binder); created if missing
  --data-dir DIR         the preference store: system.db and userN.db (default
                         /data/nimbus/preferences/); created if missing. It also holds
                         persist.properties, the "persist." properties the service writes
  --legacy-dir DIR       legacy settings databases to migrate once (default
                         /data/nimbus/settings/)
  --config-dir DIR       device configuration: native/*.json and legacy-keys.json (default
                         /etc/nimbus/preferences/); a missing directory is a device without
                         native-service schemas or legacy keys
  --property KEY=VALUE   sets a system property before start-up; may be repeated
  --property-file FILE   sets the system properties of FILE ("key=value" lines, '#' comments)
                         before start-up; --property values are applied after it
  --telemetry-lib PATH   loads the platform's telemetry library from PATH
  --threads N            the most Binder threads serving calls at once, 1 to 256 (default 15)
  --trusted-uid UID      also trusts the services "permission" and "PreferencesAppInfoInquirer"
                         when served by UID (always trusted: root and the daemon's own uid); a
                         service served by any other uid is ignored and logged; may be repeated
  -h, --help             prints this text and exits

Properties given with --property or --property-file are defaults: a "persist." property that the
service wrote before (kept in DATA-DIR/persist.properties) overrides them, as on a device.

Exit status: 0 after a clean shutdown or --help; 1 when the daemon cannot start (data or socket
directory not usable, another daemon already serving, an unreadable property file or telemetry
library, a socket or data directory that users other than its owner may write); 2 for a wrong
command line. Such a directory is only accepted, with a warning, when it belongs to the
unprivileged uid that runs the daemon.
)";

// Options that take a value, and where each value goes.
enum class Option {
    BinderDir,
    DataDir,
    LegacyDir,
    ConfigDir,
    Property,
    PropertyFile,
    Telemetry,
    Threads,
    TrustedUid
};

bool lookup(std::string_view name, Option* option) {
    static constexpr std::pair<std::string_view, Option> kOptions[] = {
            {"--binder-dir", Option::BinderDir},    {"--data-dir", Option::DataDir},
            {"--legacy-dir", Option::LegacyDir},    {"--config-dir", Option::ConfigDir},
            {"--property", Option::Property},       {"--property-file", Option::PropertyFile},
            {"--telemetry-lib", Option::Telemetry}, {"--threads", Option::Threads},
            {"--trusted-uid", Option::TrustedUid},
    };
    for (const auto& [text, value] : kOptions) {
        if (text == name) {
            *option = value;
            return true;
        }
    }
    return false;
}

}  // namespace

DaemonOptions::Outcome DaemonOptions::parse(int argc, const char* const* argv, std::string* error) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") return Outcome::Help;
        if (arg.substr(0, 2) != "--") {
            *error = "unexpected argument '" + std::string(arg) + "'";
            return Outcome::Error;
        }
        const size_t equals = arg.find('=');
        const std::string_view name = arg.substr(0, equals);
        Option option;
        if (!lookup(name, &option)) {
            *error = "unknown option '" + std::string(name) + "'";
            return Outcome::Error;
        }
        std::string value;
        if (equals != std::string_view::npos) {
            value = arg.substr(equals + 1);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            *error = "option '" + std::string(name) + "' needs a value";
            return Outcome::Error;
        }
        if (value.empty()) {
            *error = "option '" + std::string(name) + "' needs a non-empty value";
            return Outcome::Error;
        }
        switch (option) {
            case Option::BinderDir:
                binderDir = value;
                break;
            case Option::DataDir:
                dataDir = value;
                break;
            case Option::LegacyDir:
                legacyDir = value;
                break;
            case Option::ConfigDir:
                configDir = value;
                break;
            case Option::Property: {
                const size_t split = value.find('=');
                if (split == 0 || split == std::string::npos) {
                    *error = "option '--property' needs KEY=VALUE, got '" + value + "'";
                    return Outcome::Error;
                }
                properties.emplace_back(value.substr(0, split), value.substr(split + 1));
                break;
            }
            case Option::PropertyFile:
                propertyFile = value;
                break;
            case Option::Telemetry:
                telemetryLib = value;
                break;
            case Option::Threads: {
                char* end = nullptr;
                errno = 0;
                const unsigned long long count = std::strtoull(value.c_str(), &end, 10);
                if (errno != 0 || *end != '\0' || value[0] == '-' || count < 1 ||
                    count > kMaxThreads) {
                    *error = "option '--threads' needs a number from 1 to " +
                             std::to_string(kMaxThreads) + ", got '" + value + "'";
                    return Outcome::Error;
                }
                threads = static_cast<size_t>(count);
                break;
            }
            case Option::TrustedUid: {
                char* end = nullptr;
                errno = 0;
                const unsigned long long uid = std::strtoull(value.c_str(), &end, 10);
                // (uid_t)-1 means "no uid" to the kernel.
                if (errno != 0 || *end != '\0' || value[0] == '-' || uid >= UINT32_MAX) {
                    *error = "option '--trusted-uid' needs a uid, got '" + value + "'";
                    return Outcome::Error;
                }
                trustedUids.push_back(static_cast<uid_t>(uid));
                break;
            }
        }
    }
    return Outcome::Run;
}

std::string DaemonOptions::usage() {
    return std::string(kUsage);
}

}  // namespace Halo::OS
