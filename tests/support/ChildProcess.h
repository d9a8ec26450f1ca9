#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
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

}  // namespace Halo::OS::testing
