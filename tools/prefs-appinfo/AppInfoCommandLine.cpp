#include "prefs-appinfo/AppInfoCommandLine.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace Halo::OS {

bool AppInfoCommandLine::parse(const std::vector<std::string>& words, Options* options,
                               std::string* error) {
    *options = Options();
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--help" || word == "-h") {
            options->help = true;
            return true;
        }
        const size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        std::string* target = nullptr;
        std::string uid;
        if (name == "--system-uid") {
            target = &uid;
        } else if (name == "--packages") {
            target = &options->packagesDir;
        } else if (name == "--binder-dir") {
            target = &options->binderDir;
        } else {
            *error = (word.compare(0, 1, "-") == 0 ? "unknown option " : "unexpected argument ") +
                     word;
            return false;
        }
        if (equals != std::string::npos) {
            *target = word.substr(equals + 1);
        } else if (i + 1 < words.size()) {
            *target = words[++i];
        } else {
            *error = name + (target == &uid ? " needs a uid" : " needs a directory");
            return false;
        }
        if (target == &uid) {
            char* end = nullptr;
            errno = 0;
            const unsigned long long value = std::strtoull(uid.c_str(), &end, 10);
            if (uid.empty() || uid[0] == '-' || *end != '\0' || errno != 0 || value >= UINT32_MAX) {
                *error = "--system-uid needs a uid, got '" + uid + "'";
                return false;
            }
            options->systemUids.push_back(static_cast<uid_t>(value));
        } else if (target->empty()) {
            *error = name + " needs a directory";
            return false;
        }
    }
    if (options->packagesDir.empty()) {
        *error = "missing --packages DIR";
        return false;
    }
    return true;
}

std::string AppInfoCommandLine::usage() {
    return "usage: prefs-appinfo --packages DIR [--binder-dir DIR] [--system-uid UID]...\n"
           "\n"
           "Plays the device's app-info service (\"PreferencesAppInfoInquirer\") and permission\n"
           "controller (\"permission\") for the preferences service, from a folder of package\n"
           "files, until it gets SIGINT or SIGTERM.\n"
           "\n"
           "  --packages DIR    the installed packages: every DIR/*.json except users.json is\n"
           "                    a schema document with \"uid\", \"packageName\", \"version\",\n"
           "                    \"date\", \"contents\" and a \"permissions\" array; users.json\n"
           "                    is {\"users\": [0, 10], \"current\": 0} (without it: user 0).\n"
           "                    Files added, changed or removed later install, update or\n"
           "                    uninstall their package at once.\n"
           "  --binder-dir DIR  the directory of the Binder services (default: $BINDER_DIR,\n"
           "                    else /run/binder); refused when users other than its\n"
           "                    owner may write it, unless it belongs to the (non-root) uid\n"
           "                    running prefs-appinfo, which is only warned about\n"
           "  --system-uid UID  a uid that may register the package listener, unregister it\n"
           "                    or ask for the full package list, besides root and\n"
           "                    application id 1000 (for a preferences daemon that does not\n"
           "                    run as root); may be repeated. Other callers get a security\n"
           "                    exception.\n";
}

}  // namespace Halo::OS
