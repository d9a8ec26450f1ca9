#pragma once

#include <binder/IBinder.h>
#include <utils/RefBase.h>

#include <functional>

#include "threads/Mutex.h"

namespace Halo::OS {

// Calls a function once when the linked binder's process goes away (on a Binder thread).
class PreferencesDeathRecipient : public android::IBinder::DeathRecipient {
public:
    void binderDied(const android::wp<android::IBinder>& who) override EXCLUDES(mMutex);

    // Replaces the function called on death; an empty function calls nothing.
    void setCallback(std::function<void()> callback) EXCLUDES(mMutex);
    // True once binderDied has run.
    bool died() EXCLUDES(mMutex);

private:
    Mutex mMutex;
    std::function<void()> mCallback GUARDED_BY(mMutex);
    bool mDied GUARDED_BY(mMutex) = false;
};

}  // namespace Halo::OS
