#pragma once

#include <android-base/thread_annotations.h>
#include <binder/IBinder.h>
#include <lumen/preferences/IPreferencesListener.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <string>
#include <vector>

#include "threads/Mutex.h"

namespace Halo::OS {

class PreferencesKeyManager;

// A registered change listener: the client's callback object, who registered it, the listener id
// the store allocated, and the keys it watches (sorted ascending). Held by the key manager's
// listener map; linked to the client's binder so that the registration is dropped when the
// client process dies.
class PreferencesListener : public android::RefBase {
public:
    // Unregisters the listener from its key manager when the client's binder dies.
    class DeathNotifier : public android::IBinder::DeathRecipient {
    public:
        // `id` and `name` identify the client in the telemetry report of its death.
        DeathNotifier(PreferencesListener* listener, unsigned int id, const std::string& name);

        void binderDied(const android::wp<android::IBinder>& who) override;

    private:
        android::wp<PreferencesListener> mListener;
        unsigned int mId;
        std::string mName;
    };

    // Copies and sorts `keys` and links a DeathNotifier to the listener's binder. `manager` must
    // stay valid until detach() has returned (the key manager detaches every record it holds
    // before it goes away).
    PreferencesListener(PreferencesKeyManager* manager,
                        const android::sp<lumen::preferences::IPreferencesListener>& listener,
                        const std::vector<std::string>& keys, unsigned int pid, unsigned int uid,
                        unsigned int uuid);
    ~PreferencesListener() override;

    android::sp<lumen::preferences::IPreferencesListener> getListener() const { return mListener; }
    unsigned int getPid() const { return mPid; }
    unsigned int getUid() const { return mUid; }
    unsigned int getUuid() const { return mUuid; }
    const std::vector<std::string>& getKeys() const { return mKeys; }

    // Cuts the link to the key manager: a death notice that comes later does nothing, and one
    // being forwarded to the manager has finished when this returns. Must not be called with the
    // key manager's mutex held (a notice being forwarded waits for it).
    void detach() EXCLUDES(mManagerLock);

private:
    // Unregisters this listener from its key manager, unless detached.
    void onClientDied() EXCLUDES(mManagerLock);

    Mutex mManagerLock;
    PreferencesKeyManager* mManager GUARDED_BY(mManagerLock);
    const android::sp<lumen::preferences::IPreferencesListener> mListener;
    const unsigned int mPid;
    const unsigned int mUid;
    const unsigned int mUuid;
    std::vector<std::string> mKeys;
    android::sp<DeathNotifier> mDeathNotifier;
};

}  // namespace Halo::OS
