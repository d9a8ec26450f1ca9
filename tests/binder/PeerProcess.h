#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace Halo::OS::testing {

// A child process running the Binder test peer (BinderTestPeer.cpp) with `args`, its standard
// output readable line by line. With `uid` >= 0 it runs under that uid and gid without
// supplementary groups (through setpriv; the test must run as root). The child inherits the
// environment, BINDER_DIR included. Killed (SIGKILL) and reaped on destruction if still running.
class PeerProcess {
public:
    explicit PeerProcess(const std::vector<std::string>& args, int uid = -1);
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    pid_t pid() const { return mPid; }

    // The next line of output without its newline; empty at the end of the output or when no
    // line arrives within `timeout`.
    std::string readLine(std::chrono::milliseconds timeout = std::chrono::seconds(20));

    void kill(int signal);
    // Waits for the child to end; its exit status, or 128 + the signal that ended it.
    int wait();

private:
    pid_t mPid = -1;
    int mOutput = -1;
    std::string mBuffered;
    bool mReaped = false;
};

}  // namespace Halo::OS::testing
