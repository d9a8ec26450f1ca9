#include <binder/ProcessState.h>
#include <pthread.h>

#include "binder/BinderRuntime.h"

namespace android {

sp<ProcessState> ProcessState::self() {
    // One façade for the life of the process; the state itself is the runtime's.
    static sp<ProcessState>* const gSelf = new sp<ProcessState>(new ProcessState());
    return *gSelf;
}

sp<ProcessState> ProcessState::selfOrNull() {
    return self();
}

ProcessState::ProcessState() = default;

ProcessState::~ProcessState() = default;

void ProcessState::startThreadPool() {
    Halo::OS::BinderRuntime::instance().startPool();
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    return Halo::OS::BinderRuntime::instance().setMaxThreads(maxThreads);
}

size_t ProcessState::getThreadPoolMaxThreadCount() const {
    return Halo::OS::BinderRuntime::instance().maxThreads();
}

void ProcessState::giveThreadPoolName() {
    const String8 name = makeBinderThreadName();
    pthread_setname_np(pthread_self(), std::string(name.string()).substr(0, 15).c_str());
}

String8 ProcessState::makeBinderThreadName() {
    return String8(Halo::OS::BinderRuntime::instance().makeThreadName().c_str());
}

void ProcessState::spawnPooledThread(bool isMain) {
    Halo::OS::BinderRuntime::instance().spawnPooledThread(isMain);
}

}  // namespace android
