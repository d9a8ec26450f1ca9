#include "support/ChildProcess.h"

#include <fcntl.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "process/ProcessSignals.h"

namespace Halo::OS::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe failed";
        return;
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    mPid = fork();
    if (mPid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        ProcessSignals::resetForExec();
        execv(args[0], args.data());
        _exit(127);
    }
    close(fds[1]);
    mOutput = fds[0];
}

ChildProcess::~ChildProcess() {
    if (mPid > 0 && !mReaped) {
        ::kill(mPid, SIGKILL);
        wait();
    }
    if (mOutput >= 0) close(mOutput);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        size_t newline = mBuffer.find('\n');
        if (newline != std::string::npos) {
            std::string line = mBuffer.substr(0, newline);
            mBuffer.erase(0, newline + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd pfd{mOutput, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[1024];
        ssize_t n = read(mOutput, buffer, sizeof(buffer));
        if (n <= 0) return std::nullopt;
        mBuffer.append(buffer, n);
    }
}

void ChildProcess::kill(int signal) {
    if (mPid > 0 && !mReaped) ::kill(mPid, signal);
}

int ChildProcess::wait() {
    int status = 0;
    if (mPid > 0 && !mReaped) {
        waitpid(mPid, &status, 0);
        mReaped = true;
    }
    return status;
}

std::vector<std::string> asUid(uid_t uid, std::vector<std::string> argv) {
    if (uid == 0) return argv;
    std::vector<std::string> wrapped = {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid),
                                        "--regid=" + std::to_string(uid), "--clear-groups"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return wrapped;
}

std::vector<std::string> runToEnd(const std::vector<std::string>& argv) {
    ChildProcess process(argv);
    std::vector<std::string> lines;
    while (auto line = process.readLine(std::chrono::minutes(2))) lines.push_back(*line);
    const int status = process.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << argv[0] << " status " << status;
    return lines;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

}  // namespace Halo::OS::testing
