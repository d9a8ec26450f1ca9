#pragma once

#include <signal.h>

namespace Halo::OS {

// Signal set-up that does not depend on how a process was started. A shell starts its
// background jobs with SIGINT and SIGQUIT ignored, and an ignored disposition survives exec; a
// service manager or a job runner may leave other dispositions or a blocked mask behind.
// Header-only so that every program and test helper can use it without another library.
class ProcessSignals {
public:
    // SIGINT and SIGTERM: the signals that stop a long-running program cleanly.
    static sigset_t stopSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        return signals;
    }

    // Gives the stop signals their default disposition, whatever was inherited, and blocks them
    // in the calling thread, so that they stay pending until sigwait() or a signalfd takes them.
    // Call before any thread starts: threads inherit the mask, and a thread that did not block
    // them would end the process on the default action. Returns stopSignals().
    static sigset_t takeStopSignals() {
        const sigset_t signals = stopSignals();
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
        for (int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
        return signals;
    }

    // For a child between fork() and exec(): every signal gets its default disposition and the
    // mask is emptied, so that the program started behaves the same however its parent was
    // started. Async-signal-safe; errors (SIGKILL, SIGSTOP, signals the C library reserves) are
    // ignored.
    static void resetForExec() {
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
        for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &action, nullptr);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
};

}  // namespace Halo::OS
