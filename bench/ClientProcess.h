#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Halo::OS {

// A process started from an executable, optionally under another uid (as root), with its
// standard output read line by line (or both outputs appended to a log file) and an optional
// descriptor handed down as its descriptor 3. Killed (SIGKILL) and reaped on destruction if still
// running.
class ClientProcess {
public:
    struct Options {
        std::vector<std::string> argv;
        std::vector<std::string> env;  // "NAME=value" entries added to the environment
        std::optional<uid_t> uid;      // run as this uid and gid, without groups
        int cpu = -1;                  // run on this CPU only, when not negative
        int passFd = -1;               // becomes descriptor 3 of the child
        // Standard output and error appended to this file instead of standard output read by
        // readLine() and standard error shared with the parent.
        std::optional<std::string> logFile;
    };

    explicit ClientProcess(const Options& options);
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // False when the process could not be started.
    bool started() const { return mPid > 0; }
    pid_t pid() const { return mPid; }
    // The next line of output without its newline; nothing when none arrives within `timeout`
    // or the output ends.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    // Closes the child's standard input, which asks the client roles that wait on it to end.
    void closeInput();
    void kill(int signal);
    // Waits up to `timeout` for the child to end and returns its wait status; kills it
    // (SIGKILL) when it does not end in time.
    int wait(std::chrono::milliseconds timeout);

private:
    pid_t mPid = -1;
    int mOutput = -1;
    int mInput = -1;
    std::string mBuffer;
    bool mReaped = false;
};

}  // namespace Halo::OS
