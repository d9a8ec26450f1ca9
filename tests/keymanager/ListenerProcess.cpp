// A client process for the notification tests: publishes one IPreferencesListener under the
// name given as argv[1] and prints one line per onChanged call, the keys separated by blanks.
// Prints "ready" once the listener is published.
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <utils/String8.h>

#include <cstdio>
#include <string>

namespace {

class PrintingListener : public lumen::preferences::BnPreferencesListener {
public:
    android::binder::Status onChanged(const std::vector<android::String16>& keys) override {
        std::string line;
        for (const auto& key : keys) {
            if (!line.empty()) line += ' ';
            line += android::String8(key).string();
        }
        printf("%s\n", line.c_str());
        fflush(stdout);
        return android::binder::Status::ok();
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s SERVICE_NAME\n", argv[0]);
        return 2;
    }
    android::sp<PrintingListener> listener = new PrintingListener;
    if (android::defaultServiceManager()->addService(android::String16(argv[1]), listener) !=
        android::OK) {
        fprintf(stderr, "cannot publish %s\n", argv[1]);
        return 1;
    }
    android::ProcessState::self()->startThreadPool();
    printf("ready\n");
    fflush(stdout);
    android::IPCThreadState::self()->joinThreadPool();
    return 0;
}
