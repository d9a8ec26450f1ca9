#include "prefs-attack/AttackOptions.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "prefs-attack/Attack.h"

namespace Halo::OS {

const char* AttackOptions::usage() {
    return "usage: prefs-attack --preferencesd PATH --appinfo PATH --config DIR [--seconds S]\n"
           "                    [--work DIR] [--only NAME]... | --list | --help\n"
           "\n"
           "Starts prefs-appinfo and preferencesd on a work directory of their own (a new one\n"
           "under /tmp unless --work is given) and attacks them as an app would, one attack at a\n"
           "time for S seconds each (default 10), while a probe app keeps reading and writing.\n"
           "Prints one line per attack: calls made and refused, the daemon's resident size and\n"
           "descriptors before>after, the probe's p50 and p99 in microseconds and its failed\n"
           "calls, whether its acknowledged writes were kept, whether a package installed\n"
           "afterwards arrives, whether both services still run, and what the attack left.\n"
           "Run as root (the apps switch to their own uids). Exit status 0 when every attack\n"
           "was withstood, 1 otherwise, 2 for a wrong command line.\n"
           "\n"
           "  --only NAME   run this attack (repeatable); without it every attack runs but the\n"
           "                large-device ones (see --list)\n"
           "  --list        print the attacks\n";
}

AttackOptions::Parse AttackOptions::parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") return Parse::Help;
        if (flag == "--list") return Parse::List;
        static const char* const kWithValue[] = {"--preferencesd", "--appinfo", "--config",
                                                 "--work",         "--seconds", "--only"};
        if (std::find(std::begin(kWithValue), std::end(kWithValue), flag) == std::end(kWithValue)) {
            mError = "unknown option " + flag;
            return Parse::Usage;
        }
        if (i + 1 >= argc) {
            mError = flag + " needs a value";
            return Parse::Usage;
        }
        const std::string value = argv[++i];
        if (flag == "--preferencesd") {
            programs.preferencesd = value;
        } else if (flag == "--appinfo") {
            programs.appinfo = value;
        } else if (flag == "--config") {
            programs.config = value;
        } else if (flag == "--work") {
            work = value;
        } else if (flag == "--seconds") {
            char* end = nullptr;
            settings.seconds = std::strtod(value.c_str(), &end);
            if (*end != '\0' || !(settings.seconds > 0) || settings.seconds > 3600) {
                mError = "--seconds takes a number of seconds from 0 to 3600";
                return Parse::Usage;
            }
        } else {
            bool known = false;
            for (const Attack& attack : attackCatalog()) known = known || value == attack.name;
            if (!known) {
                mError = "no attack named " + value + " (see --list)";
                return Parse::Usage;
            }
            settings.only.push_back(value);
        }
    }
    if (programs.preferencesd.empty() || programs.appinfo.empty() || programs.config.empty()) {
        mError = "--preferencesd, --appinfo and --config are required";
        return Parse::Usage;
    }
    return Parse::Run;
}

}  // namespace Halo::OS
