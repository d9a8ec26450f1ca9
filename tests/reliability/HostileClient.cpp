// Clients of the preferences service that misbehave on purpose, for the reliability tests. Run
// as a separate process (under an app uid through setpriv where a test needs one):
//
//   prefs_hostile_client MODE ARG...
//
//   listeners COUNT KEY      registers COUNT listeners on KEY, prints "registered N" (N of them
//                            accepted) and "first STATUS" (the first refusal, or 0), then waits
//                            until it is killed
//   connections COUNT        opens COUNT connections to the service, prints "open N", waits
//   stall COUNT KEY          sends COUNT getString calls for KEY on a raw connection without
//                            reading a byte, prints "sent", waits for SIGUSR1, then reads until
//                            the service closes the connection and prints "closed" (or "open"
//                            when nothing ends within a minute)
//   longkey LENGTH           calls getInteger, setInteger, getType and registerListener with a
//                            key of LENGTH characters; prints one result line per call
//   bigvalue KEY LENGTH      setString(KEY, LENGTH letters), then getString(KEY); prints the two
//                            results and "same" or "different"
//   watch KEY [PUBLISH]      registers one listener on KEY (publishing it as the service PUBLISH
//                            when given), prints "registered STATUS", then "changed K..." for
//                            every onChanged call until it is killed; on SIGUSR1 it unregisters
//                            the listener itself and prints "unregister RESULT"
//   unregister NAME          looks up the listener published as NAME, asks the preferences
//                            service to unregister it, prints the result
//
// A result is "ok", "error CODE" (service-specific) or "exception CODE".
#include <binder/IBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <lumen/preferences/IPreferencesService.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using android::sp;
using android::String16;
using android::binder::Status;
using lumen::preferences::IPreferencesListener;
using lumen::preferences::IPreferencesService;

constexpr const char* kServiceName = "PreferencesService";

std::string describe(const Status& status) {
    if (status.isOk()) return "ok";
    if (status.exceptionCode() == Status::EX_SERVICE_SPECIFIC) {
        return "error " + std::to_string(status.serviceSpecificErrorCode());
    }
    return "exception " + std::to_string(status.exceptionCode());
}

void say(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

[[noreturn]] void waitForever() {
    for (;;) pause();
}

// SIGUSR1 is blocked in every thread (see main); this takes the next one.
void waitForSigusr1() {
    sigset_t go;
    sigemptyset(&go);
    sigaddset(&go, SIGUSR1);
    int signal = 0;
    sigwait(&go, &signal);
}

sp<IPreferencesService> service() {
    sp<IPreferencesService> service;
    if (android::getService(String16(kServiceName), &service) != android::OK ||
        service == nullptr) {
        fprintf(stderr, "prefs_hostile_client: %s not found\n", kServiceName);
        exit(3);
    }
    return service;
}

std::string socketPath() {
    const char* dir = getenv("BINDER_DIR");
    return std::string(dir != nullptr ? dir : "/run/binder") + "/" + kServiceName;
}

int connectRaw() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = socketPath();
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

class Listener : public lumen::preferences::BnPreferencesListener {
public:
    explicit Listener(bool print) : mPrint(print) {}
    Status onChanged(const std::vector<String16>& keys) override {
        if (mPrint) {
            std::string line = "changed";
            for (const String16& key : keys) line += " " + std::string(android::String8(key));
            say(line);
        }
        return Status::ok();
    }

private:
    bool mPrint;
};

int listeners(int count, const std::string& key) {
    sp<IPreferencesService> prefs = service();
    std::vector<sp<Listener>> kept;
    int accepted = 0;
    std::string first = "0";
    for (int i = 0; i < count; ++i) {
        sp<Listener> listener = new Listener(false);
        const Status status = prefs->registerListener(listener, {String16(key.c_str())}, false);
        if (status.isOk()) {
            ++accepted;
            kept.push_back(listener);
        } else if (first == "0") {
            first = describe(status);
        }
    }
    say("registered " + std::to_string(accepted));
    say("first " + first);
    waitForever();
}

int connections(int count) {
    int opened = 0;
    for (int i = 0; i < count; ++i) {
        if (connectRaw() >= 0) ++opened;
    }
    say("open " + std::to_string(opened));
    waitForever();
}

// A two-way transaction frame (docs/wire.md) carrying `data`.
std::vector<uint8_t> transactionFrame(uint64_t txid, uint32_t code, const android::Parcel& data) {
    std::vector<uint8_t> frame;
    auto put32 = [&](uint32_t value) {
        for (int i = 0; i < 4; ++i) frame.push_back(static_cast<uint8_t>(value >> (8 * i)));
    };
    auto put64 = [&](uint64_t value) {
        put32(static_cast<uint32_t>(value));
        put32(static_cast<uint32_t>(value >> 32));
    };
    put32(B_PACK_CHARS('T', 'R', 'N', 'S'));
    put32(static_cast<uint32_t>(48 + data.dataSize()));
    put64(txid);
    put64(0);  // target: the published object
    put64(0);  // context
    put32(code);
    put32(0);  // flags: two-way
    put32(static_cast<uint32_t>(data.dataSize()));
    put32(0);  // objects
    put32(0);  // descriptors
    put32(0);
    frame.insert(frame.end(), data.data(), data.data() + data.dataSize());
    return frame;
}

int stall(int count, const std::string& key) {
    const int fd = connectRaw();
    if (fd < 0) return 3;
    android::Parcel data;
    data.writeInterfaceToken(IPreferencesService::descriptor);
    data.writeString16(String16(key.c_str()));
    constexpr uint32_t kGetString = 9;
    for (int i = 0; i < count; ++i) {
        const std::vector<uint8_t> frame = transactionFrame(i + 1, kGetString, data);
        if (send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(frame.size())) {
            break;
        }
    }
    say("sent");
    waitForSigusr1();
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, 60000) <= 0) {
            say("open");
            return 0;
        }
        char buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) break;
    }
    say("closed");
    return 0;
}

int longKey(size_t length) {
    sp<IPreferencesService> prefs = service();
    const String16 key(std::string(length, 'k').c_str());
    int32_t value = 0;
    say("getInteger " + describe(prefs->getInteger(key, &value)));
    say("setInteger " + describe(prefs->setInteger(key, 1)));
    say("getType " + describe(prefs->getType(key, &value)));
    sp<Listener> listener = new Listener(false);
    say("registerListener " + describe(prefs->registerListener(listener, {key}, false)));
    return 0;
}

int bigValue(const std::string& key, size_t length) {
    sp<IPreferencesService> prefs = service();
    const String16 value(std::string(length, 'v').c_str());
    say("setString " + describe(prefs->setString(String16(key.c_str()), value)));
    String16 out;
    say("getString " + describe(prefs->getString(String16(key.c_str()), &out)));
    say(out == value ? "same" : "different");
    return 0;
}

int watch(const std::string& key, const std::string& publish) {
    sp<IPreferencesService> prefs = service();
    sp<Listener> listener = new Listener(true);
    if (!publish.empty()) {
        android::defaultServiceManager()->addService(String16(publish.c_str()), listener);
    }
    say("registered " +
        describe(prefs->registerListener(listener, {String16(key.c_str())}, false)));
    for (;;) {
        waitForSigusr1();
        say("unregister " + describe(prefs->unregisterListener(listener)));
    }
}

int unregisterOther(const std::string& name) {
    sp<IPreferencesService> prefs = service();
    sp<IPreferencesListener> other;
    if (android::getService(String16(name.c_str()), &other) != android::OK || other == nullptr) {
        say("no listener " + name);
        return 3;
    }
    say("unregister " + describe(prefs->unregisterListener(other)));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // Blocked before any thread starts, so that only waitForSigusr1 takes it.
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    android::ProcessState::self()->startThreadPool();
    const std::vector<std::string> args(argv + 1, argv + argc);
    const std::string mode = args.empty() ? "" : args[0];
    auto number = [&](size_t i) { return i < args.size() ? std::stol(args[i]) : 0L; };
    auto text = [&](size_t i) { return i < args.size() ? args[i] : std::string(); };
    if (mode == "listeners" && args.size() == 3) return listeners(number(1), text(2));
    if (mode == "connections" && args.size() == 2) return connections(number(1));
    if (mode == "stall" && args.size() == 3) return stall(number(1), text(2));
    if (mode == "longkey" && args.size() == 2) return longKey(number(1));
    if (mode == "bigvalue" && args.size() == 3) return bigValue(text(1), number(2));
    if (mode == "watch" && (args.size() == 2 || args.size() == 3)) return watch(text(1), text(2));
    if (mode == "unregister" && args.size() == 2) return unregisterOther(text(1));
    fprintf(stderr, "usage: prefs_hostile_client MODE ARG... (see the source)\n");
    return 2;
}
