#pragma once

#include <sys/types.h>

#include <string>

namespace Halo::OS {

// Whether a directory that names things others rely on (the service directory, a data directory)
// can be trusted: nobody but its owner may create, rename or remove entries in it.
class DirectoryTrust {
public:
    enum class Verdict {
        Trusted,  // group and others may not write it
        // Others may write it, but it belongs to the unprivileged uid that runs this process (a
        // host where one user runs everything): usable, with a warning.
        Warn,
        Refused,  // others may write it and it belongs to root or another uid
        Missing,  // it does not exist (or cannot be examined: `*problem` says why)
    };

    // Examines `path` (symbolic links followed). For Warn and Refused, `*problem` is one line
    // without a leading subject, such as "may be written by users other than its owner (uid 0,
    // mode 1777)"; for Missing, the system's reason.
    static Verdict check(const std::string& path, std::string* problem);
};

}  // namespace Halo::OS
