// A stand-in for the app-info service in the package manager tests. Publishes
// "PreferencesAppInfoInquirer" and prints "ready", then "registered N" / "unregistered N" (N
// counts them). With a named pipe as argument it reads commands from it, one per line, calls the
// registered listener and prints "sent" (or "no listener"): "schema TEXT" (onSchema with TEXT's
// bytes), "current N", "users N...", "delete N". With "--exit-after-ms N" it exits abruptly N ms
// after publishing.
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <nimbus/internal/BnPreferencesAppInfoInquirer.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

namespace {

using android::binder::Status;
using nimbus::internal::IPreferencesAppInfoListener;

std::mutex gLock;  // guards stdout and the service's fields

void say(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

class AppInfoService : public nimbus::internal::BnPreferencesAppInfoInquirer {
public:
    Status getFullPackageInfo() override { return Status::ok(); }
    Status getUserList(std::vector<int32_t>* users) override {
        *users = {0};
        return Status::ok();
    }
    Status registerPackageInfoListener(const android::sp<IPreferencesAppInfoListener>& listener,
                                       bool* ok) override {
        std::lock_guard<std::mutex> lock(gLock);
        mListener = listener;
        say("registered " + std::to_string(++mRegistrations));
        *ok = true;
        return Status::ok();
    }
    Status unregisterPackageInfoListener(bool* ok) override {
        std::lock_guard<std::mutex> lock(gLock);
        mListener = nullptr;
        say("unregistered " + std::to_string(++mUnregistrations));
        *ok = true;
        return Status::ok();
    }
    android::sp<IPreferencesAppInfoListener> listener() {
        std::lock_guard<std::mutex> lock(gLock);
        return mListener;
    }

private:
    android::sp<IPreferencesAppInfoListener> mListener;
    int mRegistrations = 0;
    int mUnregistrations = 0;
};

void run(const android::sp<IPreferencesAppInfoListener>& listener, const std::string& command,
         std::istringstream& args) {
    std::string text;
    std::getline(args >> std::ws, text);
    if (command == "schema") {
        listener->onSchema(std::vector<uint8_t>(text.begin(), text.end()));
    } else {
        std::istringstream numbers(text);
        std::vector<int32_t> users;
        for (int user; numbers >> user;) users.push_back(user);
        if (command == "current") listener->currentUser(users.at(0));
        if (command == "delete") listener->deleteUserData(users.at(0));
        if (command == "users") listener->userList(users);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    android::sp<AppInfoService> service = new AppInfoService;
    if (android::defaultServiceManager()->addService(
                android::String16("PreferencesAppInfoInquirer"), service) != android::OK) {
        return 1;
    }
    android::ProcessState::self()->startThreadPool();
    {
        std::lock_guard<std::mutex> lock(gLock);
        say("ready");
    }
    if (std::string(argv[1]) == "--exit-after-ms" && argc == 3) {
        std::this_thread::sleep_for(std::chrono::milliseconds(atoi(argv[2])));
        _exit(0);
    }
    std::ifstream commands(argv[1]);
    for (std::string line; std::getline(commands, line);) {
        const android::sp<IPreferencesAppInfoListener> listener = service->listener();
        std::istringstream args(line);
        std::string command;
        args >> command;
        if (listener != nullptr) run(listener, command, args);
        std::lock_guard<std::mutex> lock(gLock);
        say(listener != nullptr ? "sent" : "no listener");
    }
    _exit(0);
}
