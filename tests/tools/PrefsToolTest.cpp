#include "prefs/PrefsTool.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace Halo::OS {
namespace {

// What `prefs WORDS` wrote to a standard output of `outPath` and to its standard error.
struct ToolRun {
    int status = -1;
    std::string err;
};

ToolRun runTool(const std::vector<std::string>& words, const char* outPath) {
    FILE* out = fopen(outPath, "w");
    FILE* err = tmpfile();
    EXPECT_NE(nullptr, out);
    EXPECT_NE(nullptr, err);
    ToolRun run;
    run.status = PrefsTool(out, err).run(words);
    rewind(err);
    char buffer[512];
    while (fgets(buffer, sizeof(buffer), err) != nullptr) run.err += buffer;
    fclose(err);
    fclose(out);
    return run;
}

// Commands that need no service: their output, their usage errors.
TEST(PrefsToolTest, OutputThatCannotBeWrittenAndUsageErrorsExitWithTheirStatus) {
    const struct {
        std::vector<std::string> words;
        const char* out;
        int status;
        const char* err;
    } kCases[] = {
            {{"--version"}, "/dev/null", 0, ""},
            {{"--version"},
             "/dev/full",
             1,
             "prefs: --version: cannot write the output: No space left on device\n"},
            {{"help", "get"},
             "/dev/full",
             1,
             "prefs: help: cannot write the output: No space left on device\n"},
            {{"reset", "k", "--user", "3"},
             "/dev/null",
             2,
             "prefs: reset: the service restores defaults only for the caller's own user; "
             "--user is not available (see 'prefs reset --help')\n"},
    };
    for (const auto& c : kCases) {
        const ToolRun run = runTool(c.words, c.out);
        EXPECT_EQ(c.status, run.status) << c.words[0] << " > " << c.out;
        EXPECT_EQ(c.err, run.err);
    }
}

TEST(PrefsToolTest, VersionIsTheProjectVersion) {
    FILE* out = tmpfile();
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(0, PrefsTool(out, stderr).run({"--version"}));
    rewind(out);
    char line[64] = {};
    ASSERT_NE(nullptr, fgets(line, sizeof(line), out));
    fclose(out);
    EXPECT_EQ(std::string("prefs ") + PREFS_VERSION + "\n", line);
}

}  // namespace
}  // namespace Halo::OS
