#pragma once

#include <binder/IBinder.h>

#include <map>

#include "threads/Mutex.h"

namespace Halo::OS {

// The objects that callers attach to a binder (IBinder::attachObject). Cleanup functions of the
// objects still attached run when the map is destroyed, with no lock held.
class BinderObjectMap {
public:
    BinderObjectMap() = default;
    ~BinderObjectMap();
    BinderObjectMap(const BinderObjectMap&) = delete;
    BinderObjectMap& operator=(const BinderObjectMap&) = delete;

    // Replaces an object attached under the same id (without running its cleanup).
    void attach(const void* objectID, void* object, void* cleanupCookie,
                android::IBinder::object_cleanup_func func);
    // Null when nothing is attached under `objectID`.
    void* find(const void* objectID) const;
    void detach(const void* objectID);

private:
    struct Entry {
        void* object;
        void* cleanupCookie;
        android::IBinder::object_cleanup_func func;
    };

    mutable Mutex mLock;
    std::map<const void*, Entry> mEntries GUARDED_BY(mLock);
};

}  // namespace Halo::OS
