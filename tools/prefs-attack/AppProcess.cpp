#include "prefs-attack/AppProcess.h"

#include <binder/ProcessState.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Halo::OS {

AppProcess::AppProcess(uid_t uid, const Body& body) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return;
    mPid = fork();
    if (mPid == 0) {
        close(pipeFds[0]);
        // What the runtime logs in an attacking app (for example that the service stopped
        // reading it) is not the tool's output.
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) dup2(null, STDERR_FILENO);
        if (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0) _exit(3);
        android::ProcessState::self()->startThreadPool();
        body(pipeFds[1]);
        _exit(0);
    }
    close(pipeFds[1]);
    mReport = pipeFds[0];
    if (mPid < 0) {
        close(mReport);
        mReport = -1;
    }
}

AppProcess::~AppProcess() {
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    if (mReport >= 0) close(mReport);
}

std::string AppProcess::finish(bool* exitedCleanly) {
    if (exitedCleanly != nullptr) *exitedCleanly = false;
    if (mPid <= 0) return "";
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(mReport, buffer, sizeof buffer)) > 0) text.append(buffer, n);
    int status = 0;
    waitpid(mPid, &status, 0);
    mPid = -1;
    if (exitedCleanly != nullptr) *exitedCleanly = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return text;
}

}  // namespace Halo::OS
