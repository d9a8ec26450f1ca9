#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/PreferenceValue.h"
#include "client/PreferencesTarget.h"

namespace Halo::OS {

// The command line of `prefs`:
//
// Options before the command: [--binder-dir DIR] [--trusted-uid UID]...
//
//   prefs [--binder-dir DIR] get KEY [--type TYPE] [--user N | --current] [--json]
//   prefs [--binder-dir DIR] set KEY VALUE [--type TYPE] [--user N | --current]
//   prefs [--binder-dir DIR] set KEY VALUE KEY VALUE... [--user N | --current]
//   prefs [--binder-dir DIR] restore FILE [--dry-run]
//   prefs [--binder-dir DIR] type KEY
//   prefs [--binder-dir DIR] reset KEY [--user N | --current]
//   prefs [--binder-dir DIR] watch KEY... [--values] [--count N] [--timeout SECONDS]
//   prefs [--binder-dir DIR] dump [ARG]
//   prefs [--binder-dir DIR] profile WORD
//   prefs [--binder-dir DIR] list [--package P] [--values] [--json]
//   prefs [--binder-dir DIR] describe KEY [--json]
//   prefs [--binder-dir DIR] backup [--user N]
//   prefs --help | prefs help [COMMAND] | prefs COMMAND --help | prefs --version
//
// Every form that talks to the service also takes --wait SECONDS before the command.
//
// Options take their value as the next word or after '='. A word that does not start with "--"
// (such as "-5") is a positional argument, and so is every word after "--". The words after
// `dump` are passed to the service as they are (its arguments start with "--").
class PrefsCommandLine {
public:
    enum class Command {
        Help,
        Version,
        Get,
        Set,
        Type,
        Reset,
        Watch,
        Dump,
        Profile,
        List,
        Describe,
        Backup,
        Restore,
    };

    struct Request {
        Command command = Command::Help;
        // Empty: the environment's BINDER_DIR (or the runtime's default) stays in force.
        std::string binderDir;
        // --trusted-uid: uids trusted to serve PreferencesService besides the defaults.
        std::vector<uint32_t> trustedUids;
        // How long to wait for the service to be published.
        double waitSeconds = 5;
        // Help: the command whose help is asked for; nothing for the overview.
        std::optional<Command> helpTopic;
        // get, set, type, reset, describe: the key; set: the value text; profile: the word.
        std::string key;
        std::string value;
        // set of several pairs: every KEY VALUE pair in order (then `key` and `value` are empty).
        std::vector<std::pair<std::string, std::string>> pairs;
        // restore: the file (in `key`) and --dry-run.
        bool dryRun = false;
        // get, set: the --type given, if any.
        std::optional<PreferenceValue::Type> type;
        // get, set: whose value; backup: a User target with --user, else the caller's.
        PreferencesTarget target = PreferencesTarget::caller();
        // watch: the keys, --count and --timeout.
        std::vector<std::string> keys;
        std::optional<int> count;
        std::optional<double> timeoutSeconds;
        // watch: print KEY=VALUE lines (--values); list: print each key's value as well.
        bool values = false;
        // get, list, describe: print JSON (--json).
        bool json = false;
        // list: only the keys this package owns (--package); empty for every key.
        std::string package;
        // dump: the arguments passed to the service.
        std::vector<std::string> dumpArgs;
    };

    // Parses the words after the program name. On a usage error returns false and sets `error`
    // to one line naming what is wrong (without the "prefs: " prefix).
    static bool parse(const std::vector<std::string>& words, Request* request, std::string* error);

    // True when the service's dump knows `args`: nothing, or one of all, -a, nodb, db, --list,
    // --profile, --trace. The service answers other arguments with a list of the known ones.
    static bool isDumpArgument(const std::vector<std::string>& args);

    // The overview printed by `prefs --help`.
    static std::string overview();
    // The help of one command, printed by `prefs COMMAND --help`.
    static std::string commandHelp(Command command);
    // The name of a command as typed ("get", ...); "help" for Help.
    static const char* commandName(Command command);
};

}  // namespace Halo::OS
