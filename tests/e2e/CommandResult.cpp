#include "e2e/CommandResult.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "process/ProcessSignals.h"

namespace Halo::OS::testing {

CommandResult CommandResult::run(const std::vector<std::string>& argv) {
    CommandResult result;
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return result;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return result;
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        ProcessSignals::resetForExec();
        execv(args[0], args.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    bool outOpen = true;
    bool errOpen = true;
    while ((outOpen || errOpen) && std::chrono::steady_clock::now() < deadline) {
        pollfd fds[2] = {{outOpen ? out[0] : -1, POLLIN, 0}, {errOpen ? err[0] : -1, POLLIN, 0}};
        if (poll(fds, 2, 1000) <= 0) continue;
        char buffer[4096];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) continue;
            const ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
            } else {
                (i == 0 ? outOpen : errOpen) = false;
            }
        }
    }
    if (outOpen || errOpen) kill(pid, SIGKILL);
    close(out[0]);
    close(err[0]);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    result.status = WIFEXITED(wstatus) && !(outOpen || errOpen) ? WEXITSTATUS(wstatus) : -1;
    return result;
}

}  // namespace Halo::OS::testing
