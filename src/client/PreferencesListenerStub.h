#pragma once

#include <binder/Status.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <utils/String16.h>

#include <functional>
#include <string>
#include <vector>

#include "threads/Mutex.h"

namespace Halo::OS {

// The Binder listener object behind a PreferencesWatch: forwards every onChanged call (on a
// Binder thread) to a callback, with the keys converted to UTF-8, until disable() is called.
class PreferencesListenerStub : public lumen::preferences::BnPreferencesListener {
public:
    using Callback = std::function<void(const std::vector<std::string>& keys)>;

    explicit PreferencesListenerStub(Callback callback);

    android::binder::Status onChanged(const std::vector<android::String16>& keys) override;

    // Stops the forwarding. Waits for a callback that is running now to return, so it must not
    // be called from inside the callback.
    void disable() EXCLUDES(mMutex);

private:
    Mutex mMutex;
    Callback mCallback GUARDED_BY(mMutex);
};

}  // namespace Halo::OS
