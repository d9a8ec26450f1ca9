#pragma once

#include <string>

namespace Halo::OS {

// Facts about running processes, read from /proc.
class Process {
public:
    // The name of process `pid`: the first word of its command line (/proc/<pid>/cmdline, up to
    // the first NUL), which is the program path or the name the process gave itself.
    // With `baseNameOnly` true the directories are dropped ("/system/bin/foo" gives "foo"); with
    // false the word is returned as it stands.
    // Returns an empty string when the name cannot be read: `pid` is not positive (so the
    // all-bits-set pid that stands for "this service" has no name here), no such process exists,
    // it is not readable by the caller, or its command line is empty (kernel threads, zombies).
    // Thread-safe; never blocks for longer than one read of a small /proc file.
    static std::string getProcessName(int pid, bool baseNameOnly);
};

}  // namespace Halo::OS
