#pragma once

#include <string>
#include <vector>

namespace Halo::OS::testing {

// What a command that ran to its end left: its exit status and everything it wrote.
class CommandResult {
public:
    // Runs argv[0] (a path) with `argv` and waits for it to end, reading its standard output
    // and error. A command that runs longer than two minutes is killed (exit status -1).
    static CommandResult run(const std::vector<std::string>& argv);

    // The exit status; -1 when the command did not exit normally.
    int status = -1;
    std::string out;
    std::string err;
};

}  // namespace Halo::OS::testing
