#define LOG_TAG "PreferencesService"

#include "keymanager/PreferencesListener.h"

#include <binder/IInterface.h>
#include <log/log.h>

#include <algorithm>

#include "keymanager/PreferencesKeyManager.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {

PreferencesListener::DeathNotifier::DeathNotifier(PreferencesListener* listener, unsigned int id,
                                                  const std::string& name)
    : mListener(listener), mId(id), mName(name) {}

void PreferencesListener::DeathNotifier::binderDied(const android::wp<android::IBinder>& /*who*/) {
    Telemetry::reportError("connection_to_preferences_manager_lost", mId, mName);
    android::sp<PreferencesListener> listener = mListener.promote();
    if (listener == nullptr) {
        Telemetry::report("listener_promotion_failure", 0, false);
        ALOGW("Failed to promote client on binder death");
        return;
    }
    listener->onClientDied();
}

PreferencesListener::PreferencesListener(
        PreferencesKeyManager* manager,
        const android::sp<lumen::preferences::IPreferencesListener>& listener,
        const std::vector<std::string>& keys, unsigned int pid, unsigned int uid, unsigned int uuid)
    : mManager(manager), mListener(listener), mPid(pid), mUid(uid), mUuid(uuid), mKeys(keys) {
    std::sort(mKeys.begin(), mKeys.end());
    mDeathNotifier = new DeathNotifier(this, uuid, PreferencesKeyInfo::get(uid));
    android::sp<android::IBinder> binder = android::IInterface::asBinder(mListener);
    if (binder != nullptr) binder->linkToDeath(mDeathNotifier);
}

void PreferencesListener::detach() {
    Mutex::Autolock lock(mManagerLock);
    mManager = nullptr;
}

void PreferencesListener::onClientDied() {
    Mutex::Autolock lock(mManagerLock);
    if (mManager != nullptr) mManager->unregisterListener(mUid, mListener);
}

PreferencesListener::~PreferencesListener() {
    android::sp<android::IBinder> binder = android::IInterface::asBinder(mListener);
    if (binder != nullptr) binder->unlinkToDeath(mDeathNotifier);
}

}  // namespace Halo::OS
