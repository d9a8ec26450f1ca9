#include "prefs/PrefsCommandLine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Halo::OS {
namespace {

using Command = PrefsCommandLine::Command;
using Request = PrefsCommandLine::Request;

Request parsed(const std::vector<std::string>& words) {
    Request request;
    std::string error;
    EXPECT_TRUE(PrefsCommandLine::parse(words, &request, &error)) << error;
    return request;
}

std::string refused(const std::vector<std::string>& words) {
    Request request;
    std::string error;
    EXPECT_FALSE(PrefsCommandLine::parse(words, &request, &error));
    EXPECT_EQ(std::string::npos, error.find('\n')) << error;
    return error;
}

TEST(PrefsCommandLineTest, CommandsTakeTheirArgumentsFlavoursAndTypes) {
    Request get =
            parsed({"--binder-dir", "/tmp/b", "get", "k1", "--type", "float", "--user", "10"});
    EXPECT_EQ(Command::Get, get.command);
    EXPECT_EQ("/tmp/b", get.binderDir);
    EXPECT_EQ("k1", get.key);
    ASSERT_TRUE(get.type.has_value());
    EXPECT_EQ(PreferenceValue::Type::Float, *get.type);
    EXPECT_EQ(PreferencesTarget::Flavour::User, get.target.flavour());
    EXPECT_EQ(10, get.target.userId());

    Request trusting = parsed({"--trusted-uid", "1000", "--trusted-uid=10123", "type", "k1"});
    EXPECT_EQ((std::vector<uint32_t>{1000, 10123}), trusting.trustedUids);

    Request plain = parsed({"get", "k1"});
    EXPECT_TRUE(plain.binderDir.empty());
    EXPECT_TRUE(plain.trustedUids.empty());
    EXPECT_FALSE(plain.type.has_value());
    EXPECT_EQ(PreferencesTarget::Flavour::Caller, plain.target.flavour());

    // Options before the positional words, '=' forms, and a negative value as a positional word.
    Request set = parsed({"--binder-dir=/b", "set", "--current", "--type=integer", "k2", "-5"});
    EXPECT_EQ(Command::Set, set.command);
    EXPECT_EQ("/b", set.binderDir);
    EXPECT_EQ("k2", set.key);
    EXPECT_EQ("-5", set.value);
    EXPECT_EQ(PreferencesTarget::Flavour::Current, set.target.flavour());
    EXPECT_EQ(PreferenceValue::Type::Integer, *set.type);

    // After "--" even a word that looks like an option is the value.
    Request dashes = parsed({"set", "k", "--", "--not-an-option"});
    EXPECT_EQ("--not-an-option", dashes.value);

    Request watch = parsed({"watch", "a", "b", "--count", "3", "--timeout", "1.5"});
    EXPECT_EQ(Command::Watch, watch.command);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), watch.keys);
    EXPECT_EQ(3, *watch.count);
    EXPECT_DOUBLE_EQ(1.5, *watch.timeoutSeconds);
    Request forever = parsed({"watch", "a"});
    EXPECT_FALSE(forever.count.has_value());
    EXPECT_FALSE(forever.timeoutSeconds.has_value());

    // The words after dump go to the service as they are, options included.
    EXPECT_EQ((std::vector<std::string>{"--profile"}), parsed({"dump", "--profile"}).dumpArgs);
    EXPECT_EQ((std::vector<std::string>{"-a"}), parsed({"dump", "-a"}).dumpArgs);
    EXPECT_TRUE(parsed({"dump"}).dumpArgs.empty());

    Request profile = parsed({"profile", "start-profiling"});
    EXPECT_EQ(Command::Profile, profile.command);
    EXPECT_EQ("start-profiling", profile.key);
    EXPECT_EQ(Command::Type, parsed({"type", "k"}).command);
    EXPECT_EQ(Command::Reset, parsed({"reset", "k"}).command);
}

TEST(PrefsCommandLineTest, HelpInEveryForm) {
    for (const auto& words : std::vector<std::vector<std::string>>{{"--help"}, {"-h"}, {"help"}}) {
        Request help = parsed(words);
        EXPECT_EQ(Command::Help, help.command);
        EXPECT_FALSE(help.helpTopic.has_value());
    }
    for (const auto& words : std::vector<std::vector<std::string>>{{"help", "watch"},
                                                                   {"watch", "--help"},
                                                                   {"watch", "k", "-h"},
                                                                   {"--help", "watch"}}) {
        Request help = parsed(words);
        EXPECT_EQ(Command::Help, help.command);
        ASSERT_TRUE(help.helpTopic.has_value());
        EXPECT_EQ(Command::Watch, *help.helpTopic);
    }
    EXPECT_EQ(Command::Dump, *parsed({"dump", "--help"}).helpTopic);
    // Every command's help starts with its usage line; the overview names every command.
    const std::string overview = PrefsCommandLine::overview();
    for (Command command : {Command::Get, Command::Set, Command::Type, Command::Reset,
                            Command::Watch, Command::Dump, Command::Profile}) {
        const std::string name = PrefsCommandLine::commandName(command);
        EXPECT_EQ(0u, PrefsCommandLine::commandHelp(command).find("usage: prefs " + name)) << name;
        EXPECT_NE(std::string::npos, overview.find("  " + name + " ")) << name;
    }
}

TEST(PrefsCommandLineTest, UsageErrorsAreOneLineAndNameTheProblem) {
    EXPECT_EQ("missing command (see 'prefs --help')", refused({}));
    EXPECT_NE(std::string::npos, refused({"--binder-dir"}).find("--binder-dir needs"));
    EXPECT_NE(std::string::npos, refused({"--binder-dir="}).find("--binder-dir needs"));
    for (const char* uid : {"--trusted-uid=-1", "--trusted-uid=4294967295", "--trusted-uid=x"}) {
        EXPECT_NE(std::string::npos, refused({uid, "get", "k"}).find("--trusted-uid needs a uid"));
    }
    EXPECT_NE(std::string::npos, refused({"--verbose", "get", "k"}).find("unknown option"));
    EXPECT_NE(std::string::npos, refused({"fetch", "k"}).find("unknown command 'fetch'"));
    EXPECT_NE(std::string::npos, refused({"help", "fetch"}).find("unknown command 'fetch'"));
    EXPECT_EQ("get: missing KEY (see 'prefs get --help')", refused({"get"}));
    EXPECT_NE(std::string::npos, refused({"get", "a", "b"}).find("unexpected argument 'b'"));
    EXPECT_NE(std::string::npos, refused({"set", "k"}).find("set: missing VALUE"));
    EXPECT_NE(std::string::npos, refused({"set"}).find("missing KEY and VALUE"));
    EXPECT_NE(std::string::npos, refused({"get", "k", "--type", "int"}).find("unknown type 'int'"));
    EXPECT_NE(std::string::npos, refused({"get", "k", "--type"}).find("--type needs a value"));
    EXPECT_NE(std::string::npos, refused({"get", "k", "--user", "-1"}).find("--user needs"));
    EXPECT_NE(std::string::npos, refused({"get", "k", "--user", "1x"}).find("--user needs"));
    EXPECT_NE(std::string::npos,
              refused({"get", "k", "--user", "1", "--current"}).find("exclude each other"));
    EXPECT_NE(std::string::npos, refused({"get", "k", "--current=1"}).find("takes no value"));
    // Options belong to their commands.
    EXPECT_NE(std::string::npos, refused({"get", "k", "--count", "1"}).find("unknown option"));
    EXPECT_NE(std::string::npos, refused({"watch", "k", "--user", "1"}).find("unknown option"));
    EXPECT_NE(std::string::npos, refused({"type", "k", "--type", "long"}).find("unknown option"));
    EXPECT_NE(std::string::npos, refused({"watch"}).find("watch: missing KEY"));
    EXPECT_NE(std::string::npos, refused({"watch", "k", "--count", "0"}).find("--count needs"));
    EXPECT_NE(std::string::npos,
              refused({"watch", "k", "--timeout", "-1"}).find("--timeout needs"));
    EXPECT_NE(std::string::npos, refused({"profile"}).find("profile: missing WORD"));
    EXPECT_NE(std::string::npos, refused({"reset", "a", "b"}).find("unexpected argument"));
    EXPECT_NE(std::string::npos, refused({"reset", "k", "--type", "long"}).find("unknown option"));
    EXPECT_NE(std::string::npos,
              refused({"reset", "k", "--user", "1", "--current"}).find("exclude each other"));
    EXPECT_EQ(PreferencesTarget::Flavour::User,
              parsed({"reset", "k", "--user", "1"}).target.flavour());
    EXPECT_EQ(1, parsed({"reset", "k", "--user", "1"}).target.userId());
    EXPECT_EQ(PreferencesTarget::Flavour::Current,
              parsed({"reset", "k", "--current"}).target.flavour());
    EXPECT_NE(std::string::npos, refused({"--wait", "soon", "get", "k"}).find("--wait needs"));
    EXPECT_NE(std::string::npos, refused({"--wait"}).find("--wait needs"));
    EXPECT_NE(std::string::npos, refused({"watch", "k", "--values=1"}).find("takes no value"));
}

TEST(PrefsCommandLineTest, WaitVersionAndWatchValues) {
    EXPECT_DOUBLE_EQ(5, parsed({"get", "k"}).waitSeconds);
    EXPECT_DOUBLE_EQ(0.5, parsed({"--wait", "0.5", "get", "k"}).waitSeconds);
    EXPECT_DOUBLE_EQ(0, parsed({"--wait=0", "--binder-dir", "/b", "get", "k"}).waitSeconds);
    EXPECT_EQ(Command::Version, parsed({"--version"}).command);
    EXPECT_TRUE(parsed({"watch", "a", "--values"}).values);
    EXPECT_FALSE(parsed({"watch", "a"}).values);
}

TEST(PrefsCommandLineTest, ListDescribeBackupAndJson) {
    const Request list = parsed({"list", "--package=com.a", "--values", "--json"});
    EXPECT_TRUE(list.command == Command::List && list.package == "com.a" && list.values);
    EXPECT_TRUE(list.json && parsed({"get", "k", "--json"}).json);
    EXPECT_EQ("k", parsed({"describe", "k", "--json"}).key);
    EXPECT_EQ(10, parsed({"backup", "--user", "10"}).target.userId());
    // Each option only where it means something.
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"set", "k", "1", "--json"},
                                               {"get", "k", "--package", "p"},
                                               {"backup", "--current"},
                                               {"describe", "k", "--values"},
                                               {"list", "k"}}) {
        refused(words);
    }
}

TEST(PrefsCommandLineTest, DumpArgumentsThatTheServiceKnows) {
    for (const char* known : {"all", "-a", "nodb", "db", "--list", "--profile", "--trace"}) {
        EXPECT_TRUE(PrefsCommandLine::isDumpArgument({known})) << known;
    }
    EXPECT_TRUE(PrefsCommandLine::isDumpArgument({}));
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"bogus"}, {"DB"}, {""}, {"db", "nodb"}}) {
        EXPECT_FALSE(PrefsCommandLine::isDumpArgument(args)) << args[0];
    }
}

}  // namespace
}  // namespace Halo::OS
