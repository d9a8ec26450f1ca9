#pragma once

#include <binder/IServiceManager.h>
#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "threads/Mutex.h"

namespace Halo::OS {

// The service directory of this host: every published service is a listening socket in
// $BINDER_DIR (default /run/binder). A service this process published is returned as the local
// object; a remote one as a proxy whose connection is kept and reused by later lookups until the
// service's process goes away. Names can be restricted to servers of given uids
// (setTrustedServerUids); "permission" starts restricted to root and this process's effective uid.
class BinderServiceManager : public android::IServiceManager {
public:
    BinderServiceManager();

    android::sp<android::IBinder> getService(const android::String16& name) const override;
    android::sp<android::IBinder> checkService(const android::String16& name) const override;
    android::status_t addService(const android::String16& name,
                                 const android::sp<android::IBinder>& service, bool allowIsolated,
                                 int dumpsysFlags) override;
    android::Vector<android::String16> listServices(int dumpsysFlags) override;
    android::sp<android::IBinder> waitForService(const android::String16& name) override;
    bool isDeclared(const android::String16& name) override;
    void setTrustedServerUids(const android::String16& name,
                              const std::vector<uid_t>& uids) override;

    // $BINDER_DIR without trailing slashes, or /run/binder when it is unset or empty.
    static std::string directory();
    // A name is 1 to 100 bytes of UTF-8 without '/' or NUL and does not begin with '.'.
    static bool isValidName(const std::string& name);

private:
    // `service`, found for `name`, when its server is trusted for the name; null otherwise (the
    // first refusal of each server uid is logged).
    android::sp<android::IBinder> trusted(const std::string& name,
                                          const android::sp<android::IBinder>& service) const
            EXCLUDES(mLock);

    mutable Mutex mLock;
    std::unordered_map<std::string, android::sp<android::IBinder>> mLocal GUARDED_BY(mLock);
    mutable std::unordered_map<std::string, android::sp<android::IBinder>> mCache GUARDED_BY(mLock);
    // Restricted names and the uids that may serve them.
    std::unordered_map<std::string, std::vector<uid_t>> mTrustedUids GUARDED_BY(mLock);
    // The untrusted server uid last logged for a name; forgotten when a trusted one is found.
    mutable std::unordered_map<std::string, uid_t> mLoggedUntrusted GUARDED_BY(mLock);
};

}  // namespace Halo::OS
