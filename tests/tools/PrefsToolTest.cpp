#include "prefs/PrefsTool.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace Halo::OS {
namespace {

// Commands that need no service: output that cannot be written, usage errors.
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
            {{"reset", "k", "--user", "-3"},
             "/dev/null",
             2,
             "prefs: reset: --user needs a user id (0 or more), not '-3' "
             "(see 'prefs reset --help')\n"},
    };
    for (const auto& c : kCases) {
        FILE* out = fopen(c.out, "w");
        FILE* err = tmpfile();
        ASSERT_TRUE(out != nullptr && err != nullptr);
        EXPECT_EQ(c.status, PrefsTool(out, err).run(c.words)) << c.words[0] << " > " << c.out;
        rewind(err);
        char text[256] = {};
        EXPECT_EQ(c.err, std::string(text, fread(text, 1, sizeof(text) - 1, err)));
        fclose(err);
        fclose(out);
    }
}

}  // namespace
}  // namespace Halo::OS
