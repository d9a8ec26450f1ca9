// A helper process for the Binder tests: serves or calls services in $BINDER_DIR.
//
//   serve NAME [DELAY_MS]          publish a TestService (after DELAY_MS) and serve it
//   serve-plain NAME               publish a BBinder that knows no transaction
//   serve-extended NAME            publish a TestService whose extension is a second TestService
//   serve-pool NAME MAX            set the pool's maximum to MAX, publish a TestService and serve
//                                  it on the main thread only (no startThreadPool)
//   serve-callback NAME TARGET     publish a callback whose onCall(v) returns the TestService
//                                  TARGET's echoInt(v * 2) (looked up by this process)
//   serve-permission NAME UID PERMISSION
//                                  publish an IPermissionController that grants PERMISSION to
//                                  UID only, and print "asked UID" for every question
//   call-uid NAME                  print "<uid> <pid>" as the TestService NAME sees this process
//   check-permission NAME PERM...  print 1 or 0 per permission: NAME's checkCallingPermission
//   keep NAME                      hand a callback to NAME (keepCallback), print "ready", wait
//   echo-bytes NAME SIZE...        echoBytes of SIZE bytes per SIZE; prints "ok" (echoed whole) or
//                                  "exception N" for each
//   flood NAME COUNT               one-way hold() to NAME, then COUNT one-way record(0..COUNT-1),
//                                  print "sent", wait
//
// Exit status: 0 on success, 2 for bad usage, 3 when a service is missing or a call fails.

#include <android/os/BnPermissionController.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <binder/test/BnTestCallback.h>
#include <binder/test/ITestService.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "TestService.h"

using android::sp;
using android::String16;
using android::binder::Status;

namespace {

class PermissionController : public android::os::BnPermissionController {
public:
    PermissionController(int32_t uid, const String16& permission)
        : mUid(uid), mPermission(permission) {}

    Status checkPermission(const String16& permission, int32_t /*pid*/, int32_t uid,
                           bool* granted) override {
        *granted = uid == mUid && permission == mPermission;
        printf("asked %d\n", uid);
        fflush(stdout);
        return Status::ok();
    }

private:
    const int32_t mUid;
    const String16 mPermission;
};

class Callback : public binder::test::BnTestCallback {
public:
    Status onCall(int32_t value, int32_t* out) override {
        *out = value;
        return Status::ok();
    }
    Status onData(const std::vector<uint8_t>& /*data*/) override { return Status::ok(); }
};

// Calls the service `target` from inside onCall, over this process's own connection to it.
class ForwardingCallback : public binder::test::BnTestCallback {
public:
    explicit ForwardingCallback(std::string target) : mTarget(std::move(target)) {}
    Status onCall(int32_t value, int32_t* out) override {
        sp<binder::test::ITestService> service;
        android::getService(String16(mTarget.c_str()), &service);
        if (service == nullptr) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
        return service->echoInt(value * 2, out);
    }
    Status onData(const std::vector<uint8_t>& /*data*/) override { return Status::ok(); }

private:
    const std::string mTarget;
};

int serve(const std::string& name, const sp<android::IBinder>& service) {
    if (android::defaultServiceManager()->addService(String16(name.c_str()), service) !=
        android::OK) {
        return 3;
    }
    android::ProcessState::self()->startThreadPool();
    android::IPCThreadState::self()->joinThreadPool();
    return 0;
}

sp<binder::test::ITestService> testService(const std::string& name) {
    sp<binder::test::ITestService> service;
    android::getService(String16(name.c_str()), &service);
    return service;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string mode = argv[1];
    const std::string name = argv[2];

    if (mode == "serve") {
        if (argc > 3) std::this_thread::sleep_for(std::chrono::milliseconds(atoi(argv[3])));
        return serve(name, new Halo::OS::testing::TestService());
    }
    if (mode == "serve-plain") return serve(name, new android::BBinder());
    if (mode == "serve-extended") {
        sp<Halo::OS::testing::TestService> service = new Halo::OS::testing::TestService();
        service->setExtension(new Halo::OS::testing::TestService());
        return serve(name, service);
    }
    if (mode == "serve-callback" && argc == 4) return serve(name, new ForwardingCallback(argv[3]));
    if (mode == "serve-pool" && argc == 4) {
        if (android::ProcessState::self()->setThreadPoolMaxThreadCount(
                    static_cast<size_t>(atoi(argv[3]))) != android::OK ||
            android::defaultServiceManager()->addService(
                    String16(name.c_str()), new Halo::OS::testing::TestService()) != android::OK) {
            return 3;
        }
        android::IPCThreadState::self()->joinThreadPool();
        return 0;
    }
    if (mode == "serve-permission" && argc == 5) {
        return serve(name, new PermissionController(atoi(argv[3]), String16(argv[4])));
    }
    if (mode == "call-uid") {
        sp<binder::test::ITestService> service = testService(name);
        int32_t uid = -1;
        int32_t pid = -1;
        if (service == nullptr || !service->callingUid(&uid).isOk() ||
            !service->callingPid(&pid).isOk()) {
            return 3;
        }
        printf("%d %d\n", uid, pid);
        return 0;
    }
    if (mode == "check-permission") {
        sp<binder::test::ITestService> service = testService(name);
        if (service == nullptr) return 3;
        for (int i = 3; i < argc; ++i) {
            bool granted = false;
            if (!service->checkCallingPermission(String16(argv[i]), &granted).isOk()) return 3;
            printf("%d\n", granted ? 1 : 0);
        }
        return 0;
    }
    if (mode == "keep") {
        sp<binder::test::ITestService> service = testService(name);
        if (service == nullptr || !service->keepCallback(new Callback()).isOk()) return 3;
        printf("ready\n");
        fflush(stdout);
        for (;;) pause();
    }
    if (mode == "echo-bytes") {
        sp<binder::test::ITestService> service = testService(name);
        if (service == nullptr) return 3;
        for (int i = 3; i < argc; ++i) {
            const std::vector<uint8_t> bytes(static_cast<size_t>(atol(argv[i])), 0x42);
            std::vector<uint8_t> out;
            const Status status = service->echoBytes(bytes, &out);
            if (status.isOk() && out == bytes) {
                printf("ok\n");
            } else {
                printf("exception %d\n", status.exceptionCode());
            }
        }
        return 0;
    }
    if (mode == "flood" && argc == 4) {
        sp<binder::test::ITestService> service = testService(name);
        if (service == nullptr || !service->hold().isOk()) return 3;
        for (int32_t i = 0, count = atoi(argv[3]); i < count; ++i) {
            if (!service->record(i).isOk()) return 3;
        }
        printf("sent\n");
        fflush(stdout);
        for (;;) pause();
    }
    return 2;
}
