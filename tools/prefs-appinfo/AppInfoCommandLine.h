#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Halo::OS {

// The command line of the device simulator:
//
//   prefs-appinfo --packages DIR [--binder-dir DIR] [--system-uid UID]...
//   prefs-appinfo --help
//
// Options take their value as the next word or after '='; --system-uid may be repeated.
class AppInfoCommandLine {
public:
    struct Options {
        bool help = false;
        std::string packagesDir;
        // Empty: the environment's BINDER_DIR (or the runtime's default) stays in force.
        std::string binderDir;
        // Uids that may register the listener besides root and application id 1000.
        std::vector<uid_t> systemUids;
    };

    // Parses the words after the program name. On a usage error returns false and sets `error`
    // to one line naming what is wrong.
    static bool parse(const std::vector<std::string>& words, Options* options, std::string* error);

    static std::string usage();
};

}  // namespace Halo::OS
