#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String8.h>

#include <cstddef>

namespace android {

// The process's Binder state: its connections and its thread pool. Incoming transactions that
// are not nested in a call of a waiting thread, one-way calls and death notifications are served
// by pool threads, so a process that publishes a service or expects callbacks starts the pool
// (startThreadPool) and/or makes a thread join it (IPCThreadState::joinThreadPool).
class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();
    static sp<ProcessState> selfOrNull();

    // Starts the pool: one thread now, more on demand (while every pool thread is busy) up to
    // the maximum. Later calls do nothing.
    void startThreadPool();

    // The most threads the pool starts on demand, as libbinder's: neither the thread of
    // startThreadPool nor threads that join (IPCThreadState::joinThreadPool) count, so a
    // maximum of 0 leaves the pool to those. Default 15. Always OK.
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    size_t getThreadPoolMaxThreadCount() const;

    // Names the calling thread like a pool thread ("binder:<pid>_<n>").
    void giveThreadPoolName();
    String8 makeBinderThreadName();

    // Starts one more pool thread.
    void spawnPooledThread(bool isMain);

private:
    friend class sp<ProcessState>;
    ProcessState();
    ~ProcessState() override;
};

}  // namespace android
