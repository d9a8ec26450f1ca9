#include "client/PreferencesListenerStub.h"

#include <utils/String8.h>

#include <utility>

namespace Halo::OS {

PreferencesListenerStub::PreferencesListenerStub(Callback callback)
    : mCallback(std::move(callback)) {}

android::binder::Status PreferencesListenerStub::onChanged(
        const std::vector<android::String16>& keys) {
    std::vector<std::string> names;
    names.reserve(keys.size());
    for (const android::String16& key : keys) {
        const android::String8 utf8(key);
        names.emplace_back(utf8.string(), utf8.length());
    }
    Mutex::Autolock lock(mMutex);
    if (mCallback) mCallback(names);
    return android::binder::Status::ok();
}

void PreferencesListenerStub::disable() {
    Mutex::Autolock lock(mMutex);
    mCallback = nullptr;
}

}  // namespace Halo::OS
