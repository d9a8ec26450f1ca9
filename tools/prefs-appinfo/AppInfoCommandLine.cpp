#include "prefs-appinfo/AppInfoCommandLine.h"

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
        if (name == "--packages") {
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
            *error = name + " needs a directory";
            return false;
        }
        if (target->empty()) {
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
    return "usage: prefs-appinfo --packages DIR [--binder-dir DIR]\n"
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
           "                    else /run/binder)\n";
}

}  // namespace Halo::OS
