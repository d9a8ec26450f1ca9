#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace Halo::OS {

// A function run in a child process under an app's uid, as an app of the device would run: the
// child drops to `uid` (user and group), starts its own Binder thread pool and runs `body`, which
// writes its report to the descriptor it is given. Start children before this process uses
// Binder itself.
class AppProcess {
public:
    using Body = std::function<void(int report)>;

    // Forks and runs `body` as `uid`. The child exits 0 after `body` returns, 3 when it cannot
    // take the uid.
    AppProcess(uid_t uid, const Body& body);
    ~AppProcess();
    AppProcess(const AppProcess&) = delete;
    AppProcess& operator=(const AppProcess&) = delete;

    // Waits for the child and returns everything it reported. `*exitedCleanly` (optional) tells
    // whether it exited 0.
    std::string finish(bool* exitedCleanly = nullptr);

private:
    pid_t mPid = -1;
    int mReport = -1;
};

}  // namespace Halo::OS
