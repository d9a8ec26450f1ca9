#define LOG_TAG "PreferencesService"

#include "binder/BinderServiceManager.h"

#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/PermissionCache.h>
#include <dirent.h>
#include <log/log.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "binder/BinderConnection.h"
#include "binder/BinderRuntime.h"

namespace Halo::OS {

using android::IBinder;
using android::sp;
using android::String16;
using android::String8;

namespace {

constexpr auto kGetServiceTimeout = std::chrono::seconds(5);
constexpr auto kPollInterval = std::chrono::milliseconds(50);
constexpr size_t kMaxNameLength = 100;

std::string toUtf8(const String16& name) {
    const String8 utf8(name);
    return std::string(utf8.string(), utf8.size());
}

// True when something accepts connections at `path` now.
bool isListening(const std::string& path) {
    sockaddr_un addr{};
    if (path.size() >= sizeof(addr.sun_path)) return false;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return ok;
}

}  // namespace

BinderServiceManager::BinderServiceManager() {
    Mutex::Autolock lock(mLock);
    // The permission controller decides what every caller may do: on a device only the system
    // serves it.
    mTrustedUids["permission"] = {0, geteuid()};
}

std::string BinderServiceManager::directory() {
    const char* env = getenv("BINDER_DIR");
    std::string dir = (env != nullptr && env[0] != '\0') ? env : "/run/binder";
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir;
}

bool BinderServiceManager::isValidName(const std::string& name) {
    return !name.empty() && name.size() <= kMaxNameLength && name[0] != '.' &&
           name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

sp<IBinder> BinderServiceManager::getService(const String16& name) const {
    const auto deadline = std::chrono::steady_clock::now() + kGetServiceTimeout;
    for (;;) {
        sp<IBinder> service = checkService(name);
        if (service != nullptr) return service;
        if (!isValidName(toUtf8(name)) || std::chrono::steady_clock::now() >= deadline) {
            return nullptr;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
}

sp<IBinder> BinderServiceManager::checkService(const String16& name) const {
    const std::string utf8 = toUtf8(name);
    if (!isValidName(utf8)) return nullptr;
    const std::string path = directory() + "/" + utf8;
    sp<IBinder> known;
    // A proxy dropped from the cache may be its last reference: it is destroyed after the lock.
    sp<IBinder> stale;
    {
        Mutex::Autolock lock(mLock);
        auto local = mLocal.find(path);
        if (local != mLocal.end()) {
            known = local->second;
        } else if (auto cached = mCache.find(path); cached != mCache.end()) {
            android::BpBinder* proxy = cached->second->remoteBinder();
            if (proxy != nullptr && !proxy->connection()->probeDead()) {
                known = cached->second;
            } else {
                stale = std::move(cached->second);
                mCache.erase(cached);
            }
        }
    }
    if (known != nullptr) return trusted(utf8, known);
    // An untrusted server is not cached: its connection closes as soon as the proxy goes.
    sp<IBinder> service = trusted(utf8, BinderConnection::connectTo(path));
    if (service == nullptr) return nullptr;
    sp<IBinder> replaced;
    Mutex::Autolock lock(mLock);
    sp<IBinder>& entry = mCache[path];
    replaced = std::move(entry);
    entry = service;
    return service;
}

void BinderServiceManager::setTrustedServerUids(const String16& name,
                                                const std::vector<uid_t>& uids) {
    Mutex::Autolock lock(mLock);
    mTrustedUids[toUtf8(name)] = uids;
}

sp<IBinder> BinderServiceManager::trusted(const std::string& name,
                                          const sp<IBinder>& service) const {
    uid_t server = 0;
    if (!android::getServerUid(service, &server)) return nullptr;
    Mutex::Autolock lock(mLock);
    auto restriction = mTrustedUids.find(name);
    if (restriction == mTrustedUids.end() ||
        std::find(restriction->second.begin(), restriction->second.end(), server) !=
                restriction->second.end()) {
        mLoggedUntrusted.erase(name);
        return service;
    }
    auto [logged, first] = mLoggedUntrusted.emplace(name, server);
    if (first || logged->second != server) {
        logged->second = server;
        ALOGW("Binder: ignoring the service %s: it is served by uid %u, which is not trusted to "
              "serve it",
              name.c_str(), server);
    }
    return nullptr;
}

android::status_t BinderServiceManager::addService(const String16& name, const sp<IBinder>& service,
                                                   bool /*allowIsolated*/, int /*dumpsysFlags*/) {
    const std::string utf8 = toUtf8(name);
    if (!isValidName(utf8) || service == nullptr) return android::BAD_VALUE;
    const std::string dir = directory();
    BinderRuntime& runtime = BinderRuntime::instance();
    const android::status_t status = runtime.publish(dir, utf8, service);
    if (status != android::OK) return status;
    sp<IBinder> replaced;
    {
        Mutex::Autolock lock(mLock);
        sp<IBinder>& entry = mLocal[dir + "/" + utf8];
        replaced = std::move(entry);
        entry = service;
    }
    runtime.ensurePool();
    return android::OK;
}

android::Vector<String16> BinderServiceManager::listServices(int /*dumpsysFlags*/) {
    const std::string dir = directory();
    std::vector<std::string> names;
    DIR* handle = opendir(dir.c_str());
    if (handle != nullptr) {
        while (dirent* entry = readdir(handle)) {
            const std::string name = entry->d_name;
            if (!isValidName(name)) continue;
            const std::string path = dir + "/" + name;
            struct stat st {};
            if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
            bool local;
            {
                Mutex::Autolock lock(mLock);
                local = mLocal.count(path) != 0;
            }
            if (local || isListening(path)) names.push_back(name);
        }
        closedir(handle);
    }
    std::sort(names.begin(), names.end());
    android::Vector<String16> result;
    for (const std::string& name : names) result.add(String16(name.c_str()));
    return result;
}

sp<IBinder> BinderServiceManager::waitForService(const String16& name) {
    if (!isValidName(toUtf8(name))) return nullptr;
    for (;;) {
        sp<IBinder> service = checkService(name);
        if (service != nullptr) return service;
        std::this_thread::sleep_for(kPollInterval);
    }
}

bool BinderServiceManager::isDeclared(const String16& name) {
    return checkService(name) != nullptr;
}

}  // namespace Halo::OS

namespace android {

namespace {

Halo::OS::Mutex gServiceManagerLock;
sp<IServiceManager>* gServiceManager GUARDED_BY(gServiceManagerLock) = nullptr;
Halo::OS::BinderRuntime* gServiceManagerRuntime GUARDED_BY(gServiceManagerLock) = nullptr;

}  // namespace

sp<IServiceManager> defaultServiceManager() {
    // A child of fork() gets a new runtime and with it a new manager (the parent's cached
    // connections are not usable there).
    Halo::OS::BinderRuntime* runtime = &Halo::OS::BinderRuntime::instance();
    Halo::OS::Mutex::Autolock lock(gServiceManagerLock);
    if (gServiceManager == nullptr || gServiceManagerRuntime != runtime) {
        gServiceManager = new sp<IServiceManager>(new Halo::OS::BinderServiceManager());
        gServiceManagerRuntime = runtime;
    }
    return *gServiceManager;
}

bool getServerUid(const sp<IBinder>& binder, uid_t* outUid) {
    if (binder == nullptr) return false;
    BpBinder* proxy = binder->remoteBinder();
    *outUid = proxy != nullptr ? proxy->connection()->peerUid() : geteuid();
    return true;
}

bool checkCallingPermission(const String16& permission) {
    return PermissionCache::checkCallingPermission(permission);
}

bool checkCallingPermission(const String16& permission, int32_t* outPid, int32_t* outUid) {
    return PermissionCache::checkCallingPermission(permission, outPid, outUid);
}

bool checkPermission(const String16& permission, pid_t pid, uid_t uid) {
    return PermissionCache::checkPermission(permission, pid, uid);
}

}  // namespace android
