#include "client/PreferencesConnection.h"

#include <binder/ProcessState.h>
#include <utils/String16.h>

#include <utility>

#include "client/BinderStatusConversion.h"

namespace Halo::OS {

using halo::preferences::IPreferencesExtension;
using lumen::preferences::IPreferencesService;

PreferencesConnection::PreferencesConnection(const android::sp<android::IBinder>& binder,
                                             size_t cacheEntries)
    : mBinder(binder),
      mService(android::interface_cast<IPreferencesService>(binder)),
      mDeathRecipient(new PreferencesDeathRecipient) {
    mBinder->linkToDeath(mDeathRecipient);
    android::sp<android::IBinder> extension;
    if (mBinder->getExtension(&extension) != android::OK || extension == nullptr) return;
    mExtension = android::interface_cast<IPreferencesExtension>(extension);
    android::os::ParcelFileDescriptor table;
    if (cacheEntries == 0 || mExtension == nullptr ||
        !mExtension->getGenerationTable(&table).isOk()) {
        return;
    }
    mReadCache = PreferencesReadCache::shared(table.release(), cacheEntries);
}

PreferencesConnection::~PreferencesConnection() {
    mBinder->unlinkToDeath(mDeathRecipient);
}

PreferencesStatus PreferencesConnection::registerListener(
        const std::vector<std::string>& keys, PreferencesListenerStub::Callback callback,
        uint64_t* token) {
    android::ProcessState::self()->startThreadPool();
    android::sp<PreferencesListenerStub> listener =
            new PreferencesListenerStub(std::move(callback));
    std::vector<android::String16> names;
    names.reserve(keys.size());
    for (const std::string& key : keys) names.emplace_back(key.data(), key.size());
    const PreferencesStatus status =
            BinderStatusConversion::fromStatus(mService->registerListener(listener, names, false));
    if (!status.isOk()) {
        listener->disable();
        return status;
    }
    Mutex::Autolock lock(mMutex);
    *token = mNextToken++;
    mListeners.emplace(*token, listener);
    return status;
}

void PreferencesConnection::unregisterListener(uint64_t token) {
    android::sp<PreferencesListenerStub> listener;
    {
        Mutex::Autolock lock(mMutex);
        auto found = mListeners.find(token);
        if (found == mListeners.end()) return;
        listener = found->second;
        mListeners.erase(found);
    }
    listener->disable();
    if (!mDeathRecipient->died()) mService->unregisterListener(listener);
}

}  // namespace Halo::OS
