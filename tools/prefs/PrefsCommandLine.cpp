#include "prefs/PrefsCommandLine.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

namespace Halo::OS {

namespace {

using Command = PrefsCommandLine::Command;

// The most KEY VALUE pairs of one set: what one batch of the service takes.
constexpr size_t kMaxPairs = 256;

struct CommandInfo {
    Command command;
    const char* name;
    const char* help;
};

const CommandInfo kCommands[] = {
        {Command::Get, "get",
         "usage: prefs get KEY [--type TYPE] [--user N | --current] [--json]\n"
         "\n"
         "Prints the value of KEY on one line: integers and longs in decimal, floats and doubles\n"
         "with six decimals, booleans as true or false, strings as they are.\n"
         "\n"
         "  --type TYPE  read the key as TYPE (integer, long, float, double, boolean, string)\n"
         "               instead of asking the service for its type first\n"
         "  --user N     the value of user N (a user-scoped key of another user needs root)\n"
         "  --current    the value of the device's current user\n"
         "  --json       print {\"key\": KEY, \"type\": TYPE, \"value\": VALUE} (a long's value\n"
         "               as a decimal string)\n"
         "Without --user or --current the caller's own user is meant.\n"},
        {Command::Set, "set",
         "usage: prefs set KEY VALUE [--type TYPE] [--user N | --current]\n"
         "       prefs set KEY VALUE KEY VALUE... [--user N | --current]\n"
         "\n"
         "Writes VALUE to KEY. Integers and longs are decimal, floats and doubles decimal\n"
         "numbers, booleans true, false, 1 or 0, strings any text (put \"--\" before a value\n"
         "that starts with \"--\").\n"
         "\n"
         "  --type TYPE  write the key as TYPE instead of asking the service for its type first\n"
         "               (one KEY VALUE pair only)\n"
         "  --user N     write the value of user N\n"
         "  --current    write the value of the device's current user\n"
         "\n"
         "With several KEY VALUE pairs, all of them are written in one step or none is: a key\n"
         "that the service refuses leaves every value as it was, and each listener hears of the\n"
         "change once. At most 256 pairs.\n"},
        {Command::Restore, "restore",
         "usage: prefs restore FILE [--dry-run]\n"
         "\n"
         "Writes back the values of a backup that 'prefs backup' wrote: the values of each user\n"
         "in one step (in steps of 256 values when there are more), through the same checks as\n"
         "'prefs set --user N'. A user whose values are refused keeps all of them as they were;\n"
         "the other users are restored all the same (exit status 1).\n"
         "\n"
         "  --dry-run  print what would change, one line KEY (user N): OLD -> NEW per value\n"
         "             that differs, and write nothing\n"},
        {Command::Type, "type",
         "usage: prefs type KEY\n"
         "\n"
         "Prints the declared type of KEY: integer, long, float, double, boolean or string.\n"},
        {Command::Reset, "reset",
         "usage: prefs reset KEY [--user N | --current]\n"
         "\n"
         "Restores the default value of KEY for the caller's own user, or with --user N for\n"
         "user N, with --current for the current user. Another user's value may be reset when\n"
         "it could be set: a user key only by root, a cross-user key by whoever may write it.\n"},
        {Command::Watch, "watch",
         "usage: prefs watch KEY... [--values] [--count N] [--timeout SECONDS]\n"
         "\n"
         "Registers a listener for the keys and prints one line per change notification, the\n"
         "changed keys separated by single blanks. Every key must be readable by the caller\n"
         "(an unknown key is refused). Runs until Ctrl-C, or:\n"
         "\n"
         "  --values           print one line KEY=VALUE per changed key instead, with the\n"
         "                     value read after the notification\n"
         "  --count N          end after N notifications (exit status 0)\n"
         "  --timeout SECONDS  end after SECONDS without reaching the count (exit status 1)\n"},
        {Command::Dump, "dump",
         "usage: prefs dump [ARG]\n"
         "\n"
         "Prints the service's dump. ARG selects what is printed:\n"
         "  all, -a (or nothing)  summary, package manager, key manager and store\n"
         "  nodb                  summary, package manager and key manager\n"
         "  db                    the store's tables\n"
         "  --list                the preference list\n"
         "  --profile             access counts and times (while profiling is on)\n"
         "  --trace               the event trace (while tracing is on)\n"
         "The caller needs the permission to read settings. For any other ARG the service\n"
         "prints its list of arguments, and prefs exits with status 2.\n"},
        {Command::Profile, "profile",
         "usage: prefs profile WORD\n"
         "\n"
         "Runs a profiling command (root only); any other word is a usage error (exit\n"
         "status 2). WORD is one of:\n"
         "  start-profiling, stop-profiling, reset-profile,\n"
         "  enable-profile-on-boot, disable-profile-on-boot,\n"
         "  start-tracing, stop-tracing, reset-trace,\n"
         "  enable-trace-on-boot, disable-trace-on-boot\n"},
        {Command::List, "list",
         "usage: prefs list [--package PACKAGE] [--values] [--json]\n"
         "\n"
         "Prints the keys the caller may read, one line each: KEY TYPE SCOPE, in key order.\n"
         "A key the caller could not read with get is not listed.\n"
         "\n"
         "  --package PACKAGE  only the keys PACKAGE owns\n"
         "  --values           add each key's value (the caller's own user) at the end of its\n"
         "                     line; a key whose value cannot be read gets none\n"
         "  --json             print a JSON array of objects with key, type, scope, default,\n"
         "                     owner, writable (and value)\n"},
        {Command::Describe, "describe",
         "usage: prefs describe KEY [--json]\n"
         "\n"
         "Prints what the service tells about KEY: its type, scope (system, user or\n"
         "crossUser), default, owner package and whether the caller may write it. A key the\n"
         "caller may not read is refused with the code a get of it would give.\n"
         "\n"
         "  --json  print one JSON object instead\n"},
        {Command::Backup, "backup",
         "usage: prefs backup [--user N]\n"
         "\n"
         "Prints, as JSON, every value the caller may read:\n"
         "  {\"format\": \"prefs-backup\", \"version\": 1, \"entries\": [\n"
         "    {\"key\": K, \"type\": T, \"scope\": S, \"user\": U, \"value\": V}, ...]}\n"
         "Values are JSON numbers, strings and booleans; longs are decimal strings. Keys whose\n"
         "value cannot be read are left out. `prefs restore` reads the document back.\n"
         "\n"
         "  --user N  read the values of user N (default: the caller's own user); U is the\n"
         "            user whose value was read, for system keys as well\n"},
};

const CommandInfo* findCommand(const std::string& name) {
    for (const CommandInfo& info : kCommands) {
        if (name == info.name) return &info;
    }
    return nullptr;
}

const CommandInfo* findCommand(Command command) {
    for (const CommandInfo& info : kCommands) {
        if (command == info.command) return &info;
    }
    return nullptr;
}

bool parseInt(const std::string& text, long min, long max, int* out) {
    if (text.empty() || (!isdigit(static_cast<unsigned char>(text[0])) && text[0] != '-')) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long value = strtol(text.c_str(), &end, 10);
    if (errno != 0 || end != text.c_str() + text.size() || value < min || value > max) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

bool parseSeconds(const std::string& text, double* out) {
    if (text.empty() || !(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '.')) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(value) || value < 0) {
        return false;
    }
    *out = value;
    return true;
}

// Splits "--name=value" into its parts; a word without '=' has no inline value.
void splitOption(const std::string& word, std::string* name, std::optional<std::string>* value) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
        *name = word;
        value->reset();
    } else {
        *name = word.substr(0, equals);
        *value = word.substr(equals + 1);
    }
}

// Parses the words that follow a command name (except for dump) into `request`.
class CommandWords {
public:
    CommandWords(const CommandInfo& info, Command command) : mInfo(info), mCommand(command) {}

    bool parse(const std::vector<std::string>& words, size_t first,
               PrefsCommandLine::Request* request, std::string* error) {
        bool userSeen = false;
        bool currentSeen = false;
        bool endOfOptions = false;
        for (size_t i = first; i < words.size(); ++i) {
            const std::string& word = words[i];
            if (endOfOptions || word.compare(0, 2, "--") != 0) {
                if (!endOfOptions && word == "-h") {
                    request->command = Command::Help;
                    request->helpTopic = mCommand;
                    return true;
                }
                mPositional.push_back(word);
                continue;
            }
            if (word == "--") {
                endOfOptions = true;
                continue;
            }
            std::string name;
            std::optional<std::string> inlineValue;
            splitOption(word, &name, &inlineValue);
            if (name == "--help" && !inlineValue) {
                request->command = Command::Help;
                request->helpTopic = mCommand;
                return true;
            }
            const bool typed = mCommand == Command::Get || mCommand == Command::Set;
            // --user and --current choose whose value, as for get and set.
            const bool targeted = typed || mCommand == Command::Reset;
            const bool watching = mCommand == Command::Watch;
            const bool listing = mCommand == Command::List;
            if (name == "--json" &&
                (mCommand == Command::Get || listing || mCommand == Command::Describe)) {
                if (inlineValue) return fail(error, "--json takes no value");
                request->json = true;
                continue;
            }
            if (listing && name == "--values") {
                if (inlineValue) return fail(error, "--values takes no value");
                request->values = true;
                continue;
            }
            if (mCommand == Command::Restore && name == "--dry-run") {
                if (inlineValue) return fail(error, "--dry-run takes no value");
                request->dryRun = true;
                continue;
            }
            if (watching && name == "--values") {
                if (inlineValue) return fail(error, "--values takes no value");
                request->values = true;
                continue;
            }
            const bool takesValue = (typed && name == "--type") || (targeted && name == "--user") ||
                                    (watching && (name == "--count" || name == "--timeout")) ||
                                    (listing && name == "--package") ||
                                    (mCommand == Command::Backup && name == "--user");
            if (targeted && name == "--current") {
                if (inlineValue) return fail(error, "--current takes no value");
                currentSeen = true;
                continue;
            }
            if (!takesValue) return fail(error, "unknown option " + name);
            std::string value;
            if (inlineValue) {
                value = *inlineValue;
            } else if (i + 1 < words.size()) {
                value = words[++i];
            } else {
                return fail(error, name + " needs a value");
            }
            if (name == "--type") {
                PreferenceValue::Type type;
                if (!PreferenceValue::typeFromName(value, &type)) {
                    return fail(error,
                                "unknown type '" + value +
                                        "' (integer, long, float, double, boolean or string)");
                }
                request->type = type;
            } else if (name == "--user") {
                int user = 0;
                if (!parseInt(value, 0, std::numeric_limits<int32_t>::max(), &user)) {
                    return fail(error, "--user needs a user id (0 or more), not '" + value + "'");
                }
                request->target = PreferencesTarget::user(user);
                userSeen = true;
            } else if (name == "--package") {
                if (value.empty()) return fail(error, "--package needs a package name");
                request->package = value;
            } else if (name == "--count") {
                int count = 0;
                if (!parseInt(value, 1, std::numeric_limits<int>::max(), &count)) {
                    return fail(error, "--count needs a number of 1 or more, not '" + value + "'");
                }
                request->count = count;
            } else {
                double seconds = 0;
                if (!parseSeconds(value, &seconds)) {
                    return fail(error, "--timeout needs a number of seconds, not '" + value + "'");
                }
                request->timeoutSeconds = seconds;
            }
        }
        if (userSeen && currentSeen) return fail(error, "--user and --current exclude each other");
        if (currentSeen) request->target = PreferencesTarget::current();
        return takePositional(request, error);
    }

private:
    bool takePositional(PrefsCommandLine::Request* request, std::string* error) {
        switch (mCommand) {
            case Command::Get:
            case Command::Type:
            case Command::Reset:
            case Command::Describe:
                if (!expect(1, "KEY", error)) return false;
                request->key = mPositional[0];
                return true;
            case Command::Set:
                if (mPositional.size() > 2) return takePairs(request, error);
                if (!expect(2, mPositional.empty() ? "KEY and VALUE" : "VALUE", error)) {
                    return false;
                }
                request->key = mPositional[0];
                request->value = mPositional[1];
                return true;
            case Command::Restore:
                if (!expect(1, "FILE", error)) return false;
                request->key = mPositional[0];
                return true;
            case Command::Profile:
                if (!expect(1, "WORD", error)) return false;
                request->key = mPositional[0];
                return true;
            case Command::Watch:
                if (mPositional.empty()) return fail(error, "missing KEY");
                request->keys = mPositional;
                return true;
            case Command::List:
            case Command::Backup:
                return expect(0, "", error);
            case Command::Help:
            case Command::Version:
            case Command::Dump:
                break;
        }
        return true;
    }

    // Several KEY VALUE pairs of a set.
    bool takePairs(PrefsCommandLine::Request* request, std::string* error) {
        if (mPositional.size() % 2 != 0) {
            return fail(error, "missing VALUE for '" + mPositional.back() + "'");
        }
        if (request->type) return fail(error, "--type takes one KEY VALUE pair only");
        if (mPositional.size() / 2 > kMaxPairs) {
            return fail(error, "at most " + std::to_string(kMaxPairs) + " KEY VALUE pairs");
        }
        for (size_t i = 0; i < mPositional.size(); i += 2) {
            request->pairs.emplace_back(mPositional[i], mPositional[i + 1]);
        }
        return true;
    }

    bool expect(size_t count, const char* missing, std::string* error) {
        if (mPositional.size() < count) return fail(error, std::string("missing ") + missing);
        if (mPositional.size() > count) {
            return fail(error, "unexpected argument '" + mPositional[count] + "'");
        }
        return true;
    }

    bool fail(std::string* error, const std::string& what) {
        *error = std::string(mInfo.name) + ": " + what + " (see 'prefs " + mInfo.name + " --help')";
        return false;
    }

    const CommandInfo& mInfo;
    Command mCommand;
    std::vector<std::string> mPositional;
};

}  // namespace

bool PrefsCommandLine::parse(const std::vector<std::string>& words, Request* request,
                             std::string* error) {
    *request = Request();
    size_t i = 0;
    for (; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.compare(0, 1, "-") != 0) break;
        std::string name;
        std::optional<std::string> inlineValue;
        splitOption(word, &name, &inlineValue);
        if ((name == "--help" || name == "-h") && !inlineValue) {
            request->command = Command::Help;
            if (i + 1 < words.size()) {
                const CommandInfo* topic = findCommand(words[i + 1]);
                if (topic == nullptr) {
                    *error = "unknown command '" + words[i + 1] + "' (see 'prefs --help')";
                    return false;
                }
                request->helpTopic = topic->command;
            }
            return true;
        }
        if (name == "--version" && !inlineValue) {
            request->command = Command::Version;
            return true;
        }
        if (name == "--wait") {
            std::string value;
            if (inlineValue) {
                value = *inlineValue;
            } else if (i + 1 < words.size()) {
                value = words[++i];
            }
            double seconds = 0;
            if (!parseSeconds(value, &seconds)) {
                *error = "--wait needs a number of seconds, not '" + value + "'";
                return false;
            }
            request->waitSeconds = seconds;
            continue;
        }
        if (name != "--binder-dir" && name != "--trusted-uid") {
            *error = "unknown option " + name + " (see 'prefs --help')";
            return false;
        }
        std::string value;
        if (inlineValue) {
            value = *inlineValue;
        } else if (i + 1 < words.size()) {
            value = words[++i];
        }
        if (name == "--binder-dir") {
            if (value.empty()) {
                *error = "--binder-dir needs a directory (see 'prefs --help')";
                return false;
            }
            request->binderDir = value;
            continue;
        }
        char* end = nullptr;
        errno = 0;
        const unsigned long long uid = std::strtoull(value.c_str(), &end, 10);
        if (value.empty() || value[0] == '-' || *end != '\0' || errno != 0 || uid >= UINT32_MAX) {
            *error = "--trusted-uid needs a uid, got '" + value + "' (see 'prefs --help')";
            return false;
        }
        request->trustedUids.push_back(static_cast<uint32_t>(uid));
    }
    if (i == words.size()) {
        *error = "missing command (see 'prefs --help')";
        return false;
    }
    const std::string& name = words[i];
    if (name == "help") {
        request->command = Command::Help;
        if (i + 2 < words.size()) {
            *error = "help: unexpected argument '" + words[i + 2] + "'";
            return false;
        }
        if (i + 1 < words.size()) {
            const CommandInfo* topic = findCommand(words[i + 1]);
            if (topic == nullptr) {
                *error = "unknown command '" + words[i + 1] + "' (see 'prefs --help')";
                return false;
            }
            request->helpTopic = topic->command;
        }
        return true;
    }
    const CommandInfo* info = findCommand(name);
    if (info == nullptr) {
        *error = "unknown command '" + name + "' (see 'prefs --help')";
        return false;
    }
    request->command = info->command;
    if (info->command == Command::Dump) {
        for (size_t j = i + 1; j < words.size(); ++j) {
            if (words[j] == "--help" || words[j] == "-h") {
                request->command = Command::Help;
                request->helpTopic = Command::Dump;
                request->dumpArgs.clear();
                return true;
            }
            request->dumpArgs.push_back(words[j]);
        }
        return true;
    }
    return CommandWords(*info, info->command).parse(words, i + 1, request, error);
}

bool PrefsCommandLine::isDumpArgument(const std::vector<std::string>& args) {
    static const char* const kArguments[] = {"all",    "-a",        "nodb",   "db",
                                             "--list", "--profile", "--trace"};
    if (args.empty()) return true;
    if (args.size() > 1) return false;
    for (const char* argument : kArguments) {
        if (args[0] == argument) return true;
    }
    return false;
}

std::string PrefsCommandLine::overview() {
    return "usage: prefs [--binder-dir DIR] [--trusted-uid UID]... [--wait SECONDS]\n"
           "             COMMAND [ARGS]\n"
           "\n"
           "Reads and writes preferences through the preferences service, as the user that runs\n"
           "it (run it with setpriv --reuid=UID --regid=UID --clear-groups to act as an app).\n"
           "\n"
           "commands:\n"
           "  get KEY [--type TYPE] [--user N | --current]        print a value (--json)\n"
           "  set KEY VALUE [--type TYPE] [--user N | --current]  write a value\n"
           "  set KEY VALUE KEY VALUE... [--user N | --current]   write values in one step\n"
           "  type KEY                                            print the declared type\n"
           "  reset KEY [--user N | --current]                    restore the default\n"
           "  watch KEY... [--values] [--count N] [--timeout S]   print change notifications\n"
           "  dump [ARG]                                          print the service's state\n"
           "  profile WORD                                        profiling commands (root)\n"
           "  list [--package P] [--values] [--json]              list the readable keys\n"
           "  describe KEY [--json]                               type, scope, default, owner\n"
           "  backup [--user N]                                   every readable value, as JSON\n"
           "  restore FILE [--dry-run]                            write back a backup\n"
           "  help [COMMAND]                                      this text, or a command's\n"
           "\n"
           "options:\n"
           "  --binder-dir DIR   the directory of the Binder services (default: $BINDER_DIR,\n"
           "                     else /run/binder). Refused when users other than its owner\n"
           "                     may write it (anyone could then pose as the service), unless\n"
           "                     it belongs to the non-root uid running prefs (a warning)\n"
           "  --trusted-uid UID  also trust a PreferencesService served by UID; may be\n"
           "                     repeated. Trusted without it: root, the uid running prefs\n"
           "                     and the uids in $PREFS_TRUSTED_UIDS (separated by commas).\n"
           "                     A service served by any other uid counts as not reachable.\n"
           "  --wait SECONDS     how long to wait for the service to appear (default 5)\n"
           "  --version          print the version and exit\n"
           "\n"
           "exit status: 0 ok, 1 the service refused (or the output could not be written),\n"
           "2 usage error, 3 service not reachable\n";
}

std::string PrefsCommandLine::commandHelp(Command command) {
    const CommandInfo* info = findCommand(command);
    return info != nullptr ? info->help : overview();
}

const char* PrefsCommandLine::commandName(Command command) {
    const CommandInfo* info = findCommand(command);
    return info != nullptr ? info->name : "help";
}

}  // namespace Halo::OS
