#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <sys/types.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include <vector>

namespace android {

// The directory of published services. On this host a published service is a listening Unix
// stream socket named after the service in the directory $BINDER_DIR (default /run/binder),
// read each time a service is published or looked up. The socket is connectable by every local
// user; whether a caller may do something is decided per call from its kernel-verified uid.
class IServiceManager : public IInterface {
public:
    static const int DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0;
    static const int DUMP_FLAG_PRIORITY_HIGH = 1 << 1;
    static const int DUMP_FLAG_PRIORITY_NORMAL = 1 << 2;
    static const int DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3;
    static const int DUMP_FLAG_PRIORITY_ALL = DUMP_FLAG_PRIORITY_CRITICAL |
                                              DUMP_FLAG_PRIORITY_HIGH | DUMP_FLAG_PRIORITY_NORMAL |
                                              DUMP_FLAG_PRIORITY_DEFAULT;
    static const int DUMP_FLAG_PROTO = 1 << 4;

    // The service, waiting up to about 5 seconds for it to appear; null if it does not.
    virtual sp<IBinder> getService(const String16& name) const = 0;
    // The service if it is published and reachable now; null otherwise. Never waits.
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    // Publishes `service` under `name` (replacing an earlier publication of the name). Incoming
    // connections are served by the thread pool. BAD_VALUE for an invalid name (empty, longer
    // than 100 bytes, or holding '/' or a NUL), UNKNOWN_ERROR when the socket cannot be made.
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
    // The names of the services that are published and reachable, sorted.
    virtual Vector<String16> listServices(int dumpsysFlags = DUMP_FLAG_PRIORITY_ALL) = 0;
    // The service, waiting for it as long as it takes.
    virtual sp<IBinder> waitForService(const String16& name) = 0;
    // True when the service is published and reachable now.
    virtual bool isDeclared(const String16& name) = 0;

    // Host extension, standing in for the device's service manager and SELinux, which decide
    // there who may publish a name. From now on `name` is only trusted when the process serving
    // it runs as one of `uids` (the kernel's peer credentials of its socket; a service this
    // process published itself is served by this process's effective uid). getService,
    // checkService, waitForService and isDeclared treat the name served by anyone else as absent,
    // and log one line naming the service and the uid, once for each server found. Replaces the
    // uids set earlier for the name; an empty list trusts nobody. A name never restricted is
    // trusted whoever serves it, except "permission" (see PermissionCache), which is restricted to
    // root and this process's effective uid until set otherwise. listServices is not filtered.
    virtual void setTrustedServerUids(const String16& name, const std::vector<uid_t>& uids) = 0;

protected:
    IBinder* onAsBinder() override { return nullptr; }
};

// The process's service manager (never null).
sp<IServiceManager> defaultServiceManager();

// The service cast to INTERFACE, waiting as getService does. NAME_NOT_FOUND when it is absent.
template <typename INTERFACE>
status_t getService(const String16& name, sp<INTERFACE>* outService) {
    const sp<IServiceManager> sm = defaultServiceManager();
    if (sm != nullptr) {
        *outService = interface_cast<INTERFACE>(sm->getService(name));
        if ((*outService) != nullptr) return NO_ERROR;
    }
    return NAME_NOT_FOUND;
}

// The uid of the process that serves `binder`: this process's effective uid for a local object,
// the kernel's peer credentials of the connection for a proxy. False for null.
bool getServerUid(const sp<IBinder>& binder, uid_t* outUid);

// Whether the calling identity holds `permission` (see PermissionCache).
bool checkCallingPermission(const String16& permission);
bool checkCallingPermission(const String16& permission, int32_t* outPid, int32_t* outUid);
// Asks the "permission" service whether pid/uid holds `permission`; false when there is none.
bool checkPermission(const String16& permission, pid_t pid, uid_t uid);

}  // namespace android
