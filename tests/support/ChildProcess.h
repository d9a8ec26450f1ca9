#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Halo::OS::testing {

// A child process started from an executable, with its standard output readable line by line.
// Killed (SIGKILL) and reaped on destruction if still running.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return mPid; }
    // The next line of output without its newline, or nothing when none arrives within
    // `timeout` or the output ends.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    void kill(int signal = SIGKILL);
    // Waits for the child to end; returns its wait status.
    int wait();

private:
    pid_t mPid = -1;
    int mOutput = -1;
    std::string mBuffer;
    bool mReaped = false;
};

// The arguments that run `argv` as `uid` and its group, without supplementary groups, through
// setpriv (the test must run as root); `argv` itself for uid 0.
std::vector<std::string> asUid(uid_t uid, std::vector<std::string> argv);
// Runs `argv` to its end; its output lines. Expects exit status 0.
std::vector<std::string> runToEnd(const std::vector<std::string>& argv);
// Polls `condition` every 10 ms until it holds; false when it still does not after `timeout`.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::minutes(2));

}  // namespace Halo::OS::testing
