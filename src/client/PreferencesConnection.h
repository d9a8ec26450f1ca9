#pragma once

#include <binder/IBinder.h>
#include <halo/preferences/IPreferencesExtension.h>
#include <lumen/preferences/IPreferencesService.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/PreferencesDeathRecipient.h"
#include "client/PreferencesListenerStub.h"
#include "client/PreferencesReadCache.h"
#include "client/PreferencesStatus.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// One client's connection to the preferences service: the service proxy, its death watch and the
// listeners the client registered. Shared by a PreferencesClient and its PreferencesWatch objects,
// so a watch can unregister after the client object is gone.
class PreferencesConnection {
public:
    // `binder` is the service's binder (not null). Links a death recipient to it and asks the
    // service for its extension. With `cacheEntries` above 0, also asks for its generation table
    // and keeps a read cache of that many entries; a service without them is read through plain
    // calls.
    PreferencesConnection(const android::sp<android::IBinder>& binder, size_t cacheEntries);
    ~PreferencesConnection();
    PreferencesConnection(const PreferencesConnection&) = delete;
    PreferencesConnection& operator=(const PreferencesConnection&) = delete;

    const android::sp<lumen::preferences::IPreferencesService>& service() const { return mService; }
    const android::sp<android::IBinder>& binder() const { return mBinder; }
    const android::sp<PreferencesDeathRecipient>& deathRecipient() const { return mDeathRecipient; }
    // The service's extension (null when it offers none) and the process's read cache for it
    // (shared by every connection of this process to the same service; null when not caching).
    const android::sp<halo::preferences::IPreferencesExtension>& extension() const {
        return mExtension;
    }
    PreferencesReadCache* readCache() const { return mReadCache.get(); }

    // Registers a new listener for `keys` and starts the process's Binder thread pool (which
    // delivers the calls). On success stores a token for unregisterListener in `token`.
    PreferencesStatus registerListener(const std::vector<std::string>& keys,
                                       PreferencesListenerStub::Callback callback, uint64_t* token)
            EXCLUDES(mMutex);
    // Stops the listener's callback and unregisters it with the service (a failure to reach the
    // service is ignored: a dead service holds no listeners). Unknown tokens are ignored.
    void unregisterListener(uint64_t token) EXCLUDES(mMutex);

private:
    android::sp<android::IBinder> mBinder;
    android::sp<lumen::preferences::IPreferencesService> mService;
    android::sp<PreferencesDeathRecipient> mDeathRecipient;
    android::sp<halo::preferences::IPreferencesExtension> mExtension;
    std::shared_ptr<PreferencesReadCache> mReadCache;

    Mutex mMutex;
    uint64_t mNextToken GUARDED_BY(mMutex) = 1;
    std::map<uint64_t, android::sp<PreferencesListenerStub>> mListeners GUARDED_BY(mMutex);
};

}  // namespace Halo::OS
