#include "client/PreferencesDeathRecipient.h"

#include <utility>

namespace Halo::OS {

void PreferencesDeathRecipient::binderDied(const android::wp<android::IBinder>& /*who*/) {
    std::function<void()> callback;
    {
        Mutex::Autolock lock(mMutex);
        mDied = true;
        callback = std::move(mCallback);
        mCallback = nullptr;
    }
    if (callback) callback();
}

void PreferencesDeathRecipient::setCallback(std::function<void()> callback) {
    bool alreadyDied = false;
    {
        Mutex::Autolock lock(mMutex);
        alreadyDied = mDied;
        if (!alreadyDied) mCallback = std::move(callback);
    }
    if (alreadyDied && callback) callback();
}

bool PreferencesDeathRecipient::died() {
    Mutex::Autolock lock(mMutex);
    return mDied;
}

}  // namespace Halo::OS
