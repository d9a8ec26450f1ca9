#include "process/Process.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Halo::OS {
namespace {

TEST(ProcessTest, NameOfThisProcess) {
    // ctest starts the test binary by its full path.
    std::string full = program_invocation_name;
    ASSERT_NE(std::string::npos, full.find('/'));
    EXPECT_EQ(full, Process::getProcessName(getpid(), false));
    EXPECT_EQ("profiler_tests", Process::getProcessName(getpid(), true));
}

TEST(ProcessTest, UnknownProcessesHaveNoName) {
    EXPECT_EQ("", Process::getProcessName(0, true));
    EXPECT_EQ("", Process::getProcessName(-1, true));
    EXPECT_EQ("", Process::getProcessName(INT_MAX, false));

    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) _exit(0);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ("", Process::getProcessName(child, true));
}

}  // namespace
}  // namespace Halo::OS
