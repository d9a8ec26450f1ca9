#pragma once

#include <binder/IServiceManager.h>

#include <string>
#include <unordered_map>

#include "threads/Mutex.h"

namespace Halo::OS {

// The service directory of this host: every published service is a listening socket in
// $BINDER_DIR (default /run/binder). A service this process published is returned as the local
// object; a remote one as a proxy whose connection is kept and reused by later lookups until the
// service's process goes away.
class BinderServiceManager : public android::IServiceManager {
public:
    BinderServiceManager() = default;

    android::sp<android::IBinder> getService(const android::String16& name) const override;
    android::sp<android::IBinder> checkService(const android::String16& name) const override;
    android::status_t addService(const android::String16& name,
                                 const android::sp<android::IBinder>& service, bool allowIsolated,
                                 int dumpsysFlags) override;
    android::Vector<android::String16> listServices(int dumpsysFlags) override;
    android::sp<android::IBinder> waitForService(const android::String16& name) override;
    bool isDeclared(const android::String16& name) override;

    // $BINDER_DIR without trailing slashes, or /run/binder when it is unset or empty.
    static std::string directory();
    // A name is 1 to 100 bytes of UTF-8 without '/' or NUL and does not begin with '.'.
    static bool isValidName(const std::string& name);

private:
    mutable Mutex mLock;
    std::unordered_map<std::string, android::sp<android::IBinder>> mLocal GUARDED_BY(mLock);
    mutable std::unordered_map<std::string, android::sp<android::IBinder>> mCache GUARDED_BY(mLock);
};

}  // namespace Halo::OS
