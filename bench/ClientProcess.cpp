#include "ClientProcess.h"

#include <sched.h>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "process/ProcessSignals.h"

extern char** environ;

namespace Halo::OS {

ClientProcess::ClientProcess(const Options& options) {
    int output[2];
    int input[2];
    if (pipe2(output, O_CLOEXEC) != 0) return;
    if (pipe2(input, O_CLOEXEC) != 0) {
        close(output[0]);
        close(output[1]);
        return;
    }
    std::vector<char*> argv;
    for (const std::string& arg : options.argv) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) envStrings.emplace_back(*e);
    for (const std::string& e : options.env) envStrings.push_back(e);
    std::vector<char*> envp;
    for (std::string& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);
    int logFd = -1;
    if (options.logFile.has_value()) {
        logFd = open(options.logFile->c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    }

    const pid_t pid = fork();
    if (pid == 0) {
        dup2(input[0], STDIN_FILENO);
        dup2(logFd >= 0 ? logFd : output[1], STDOUT_FILENO);
        if (logFd >= 0) dup2(logFd, STDERR_FILENO);
        if (options.passFd >= 0) dup2(options.passFd, 3);
        if (options.cpu >= 0) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(options.cpu, &one);
            if (sched_setaffinity(0, sizeof(one), &one) != 0) _exit(125);
        }
        if (options.uid.has_value()) {
            const uid_t uid = *options.uid;
            if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 ||
                setresuid(uid, uid, uid) != 0) {
                _exit(126);
            }
        }
        ProcessSignals::resetForExec();
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(output[1]);
    close(input[0]);
    if (logFd >= 0) close(logFd);
    if (pid < 0) {
        close(output[0]);
        close(input[1]);
        return;
    }
    mPid = pid;
    mOutput = output[0];
    mInput = input[1];
}

ClientProcess::~ClientProcess() {
    if (mPid > 0 && !mReaped) {
        ::kill(mPid, SIGKILL);
        int status;
        while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (mOutput >= 0) close(mOutput);
    if (mInput >= 0) close(mInput);
}

std::optional<std::string> ClientProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const size_t newline = mBuffer.find('\n');
        if (newline != std::string::npos) {
            std::string line = mBuffer.substr(0, newline);
            mBuffer.erase(0, newline + 1);
            return line;
        }
        if (mOutput < 0) return std::nullopt;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd pfd{mOutput, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char chunk[4096];
        const ssize_t n = read(mOutput, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            close(mOutput);
            mOutput = -1;
            continue;
        }
        mBuffer.append(chunk, static_cast<size_t>(n));
    }
}

void ClientProcess::closeInput() {
    if (mInput >= 0) close(mInput);
    mInput = -1;
}

void ClientProcess::kill(int signal) {
    if (mPid > 0 && !mReaped) ::kill(mPid, signal);
}

int ClientProcess::wait(std::chrono::milliseconds timeout) {
    if (mPid <= 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(mPid, &status, WNOHANG);
        if (done == mPid) break;
        if (done < 0 && errno != EINTR) return -1;
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(mPid, SIGKILL);
            while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
            }
            break;
        }
        usleep(10000);
    }
    mReaped = true;
    return status;
}

}  // namespace Halo::OS
