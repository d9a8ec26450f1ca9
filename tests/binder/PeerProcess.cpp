#include "PeerProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace Halo::OS::testing {

PeerProcess::PeerProcess(const std::vector<std::string>& args, int uid) {
    std::vector<std::string> argv;
    if (uid >= 0) {
        argv = {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid),
                "--regid=" + std::to_string(uid), "--clear-groups"};
    }
    argv.push_back(BINDER_TEST_PEER);
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (std::string& arg : argv) raw.push_back(arg.data());
    raw.push_back(nullptr);

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed";
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    const int rc = posix_spawn(&mPid, raw[0], &actions, nullptr, raw.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    mOutput = pipeFds[0];
    if (rc != 0) {
        ADD_FAILURE() << "cannot start " << raw[0] << ": " << strerror(rc);
        mPid = -1;
    }
}

PeerProcess::~PeerProcess() {
    if (mPid > 0 && !mReaped) {
        ::kill(mPid, SIGKILL);
        wait();
    }
    if (mOutput >= 0) close(mOutput);
}

std::string PeerProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const size_t newline = mBuffered.find('\n');
        if (newline != std::string::npos) {
            std::string line = mBuffered.substr(0, newline);
            mBuffered.erase(0, newline + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || mOutput < 0) return "";
        pollfd pfd{mOutput, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) return "";
        char chunk[256];
        const ssize_t n = read(mOutput, chunk, sizeof(chunk));
        if (n <= 0) return "";
        mBuffered.append(chunk, static_cast<size_t>(n));
    }
}

void PeerProcess::kill(int signal) {
    if (mPid > 0 && !mReaped) ::kill(mPid, signal);
}

int PeerProcess::wait() {
    if (mPid <= 0 || mReaped) return -1;
    int status = 0;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
    mReaped = true;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace Halo::OS::testing
