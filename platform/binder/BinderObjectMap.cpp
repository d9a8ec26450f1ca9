#include "binder/BinderObjectMap.h"

#include <utility>

namespace Halo::OS {

BinderObjectMap::~BinderObjectMap() {
    std::map<const void*, Entry> entries;
    {
        Mutex::Autolock lock(mLock);
        entries.swap(mEntries);
    }
    for (const auto& [id, entry] : entries) {
        if (entry.func != nullptr) entry.func(id, entry.object, entry.cleanupCookie);
    }
}

void BinderObjectMap::attach(const void* objectID, void* object, void* cleanupCookie,
                             android::IBinder::object_cleanup_func func) {
    Mutex::Autolock lock(mLock);
    mEntries[objectID] = Entry{object, cleanupCookie, func};
}

void* BinderObjectMap::find(const void* objectID) const {
    Mutex::Autolock lock(mLock);
    auto it = mEntries.find(objectID);
    return it == mEntries.end() ? nullptr : it->second.object;
}

void BinderObjectMap::detach(const void* objectID) {
    Mutex::Autolock lock(mLock);
    mEntries.erase(objectID);
}

}  // namespace Halo::OS
