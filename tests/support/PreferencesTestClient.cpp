// A Binder client of the preferences service for the service, daemon and reliability tests, run
// as a separate process (under an app uid when the test runs as root).
//
//   prefs_test_client SERVICE OP ARG... [OP ARG...]...
//
// OP is a method name of IPreferencesService other than the listener methods; its arguments
// follow in the method's order (key, value, user id; a getter's user id before its out-value;
// profile takes one command word). In keys and string values "%00" stands for a NUL. Prints one
// line per operation, as soon as it is answered: "ok" or "ok VALUE", "error CODE" for a
// service-specific error, "exception CODE" otherwise. Doubles print with 17 significant digits
// and floats with 9, so no value is rounded on the way.
//
// "dump COUNT ARG..." sends the platform's dump request with COUNT arguments and this process's
// standard output as the file descriptor: the service's text appears in the output, followed by
// the line "dump STATUS" with the transaction's status.
//
// Operations of a client that misbehaves on purpose (a RESULT is printed as above):
//   listeners COUNT KEY   registers COUNT listeners on KEY, prints "registered N" (N of them
//                         accepted) and "first RESULT" (the first refusal, or 0), then waits until
//                         it is killed
//   badlisteners COUNT KEY  registers COUNT listeners on the key list [KEY, KEY], prints
//                         "refused N" and "first RESULT", then registers the service's own object
//                         as a listener on KEY and prints "itself RESULT"
//   connections COUNT     opens COUNT connections to the service, prints "open N", waits
//   stall COUNT KEY       sends COUNT getString calls for KEY on a raw connection without reading
//                         a byte, prints "sent", waits for SIGUSR1, then reads until the service
//                         closes the connection and prints "closed" (or "open" when nothing ends
//                         within a minute)
//   flood COUNT           sends one-way pings on a raw connection in batches of 1000 until COUNT
//                         are sent or the service closes it, blocking whenever the service reads
//                         no further, and prints "sent N"; works with any service
//   longkey LENGTH        calls getInteger, setInteger, getType and registerListener with a key of
//                         LENGTH characters; prints "METHOD RESULT" per call
//   bigvalue KEY LENGTH   setString(KEY, LENGTH letters), then getString(KEY); prints
//                         "setString RESULT", "getString RESULT" and "same" or "different"
//   watch KEY PUBLISH     registers one listener on KEY (publishing it as the service PUBLISH
//                         unless that is "-"), prints "registered RESULT", then "changed K..."
//                         for every onChanged call until it is killed; on SIGUSR1 it unregisters
//                         the listener itself and prints "unregister RESULT"
//   unregister NAME       asks the service to unregister the listener published as NAME and
//                         prints "unregister RESULT"
//   impostor              publishes a "permission" that grants everything (printing "impostor
//                         asked UID" per question) and a "PreferencesAppInfoInquirer" that
//                         accepts every listener (printing "impostor registered"), prints
//                         "serving" and serves until it is killed
//   inquirer METHOD       calls registerPackageInfoListener (with a listener of its own),
//                         unregisterPackageInfoListener, getFullPackageInfo or getUserList on
//                         "PreferencesAppInfoInquirer" and prints "METHOD RESULT"
#include <android/os/BnPermissionController.h>
#include <binder/IBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <lumen/preferences/IPreferencesService.h>
#include <nimbus/internal/BnPreferencesAppInfoInquirer.h>
#include <nimbus/internal/BnPreferencesAppInfoListener.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using android::String16;
using android::binder::Status;
using lumen::preferences::IPreferencesService;

class Args {
public:
    Args(int argc, char** argv) : mArgc(argc), mArgv(argv) {}
    bool done() const { return mNext >= mArgc; }
    std::string next() {
        if (done()) {
            fprintf(stderr, "missing argument\n");
            exit(2);
        }
        return mArgv[mNext++];
    }
    String16 text() {
        std::string decoded;
        const std::string raw = next();
        for (size_t i = 0; i < raw.size(); ++i) {
            if (raw.compare(i, 3, "%00") == 0) {
                decoded += '\0';
                i += 2;
            } else {
                decoded += raw[i];
            }
        }
        return String16(decoded.data(), decoded.size());
    }
    int32_t user() { return static_cast<int32_t>(std::strtol(next().c_str(), nullptr, 10)); }

private:
    int mArgc;
    char** mArgv;
    int mNext = 1;
};

template <typename T>
T parse(Args& args);
template <>
int32_t parse(Args& args) {
    return static_cast<int32_t>(std::strtol(args.next().c_str(), nullptr, 10));
}
template <>
int64_t parse(Args& args) {
    return std::strtoll(args.next().c_str(), nullptr, 10);
}
template <>
double parse(Args& args) {
    return std::strtod(args.next().c_str(), nullptr);
}
template <>
float parse(Args& args) {
    return std::strtof(args.next().c_str(), nullptr);
}
template <>
bool parse(Args& args) {
    return args.next() == "true";
}
template <>
String16 parse(Args& args) {
    return args.text();
}

std::string print(int32_t value) {
    return std::to_string(value);
}
std::string print(int64_t value) {
    return std::to_string(value);
}
std::string print(bool value) {
    return value ? "true" : "false";
}
std::string print(const String16& value) {
    const android::String8 utf8(value);
    return std::string(utf8.string(), utf8.length());
}
std::string print(double value) {
    char text[64];
    snprintf(text, sizeof(text), "%.17g", value);
    return text;
}
std::string print(float value) {
    char text[64];
    snprintf(text, sizeof(text), "%.9g", static_cast<double>(value));
    return text;
}

std::string describe(const Status& status) {
    if (status.isOk()) return "ok";
    if (status.exceptionCode() == Status::EX_SERVICE_SPECIFIC) {
        return "error " + std::to_string(status.serviceSpecificErrorCode());
    }
    return "exception " + std::to_string(status.exceptionCode());
}

void say(const std::string& line) {
    printf("%s\n", line.c_str());
}

void report(const Status& status, const std::string& value = "") {
    say(describe(status) + (status.isOk() && !value.empty() ? " " + value : ""));
}

using Service = IPreferencesService;
using Op = std::function<void(Service&, Args&)>;

template <typename T, typename Method>
Op setter(Method method) {
    return [method](Service& s, Args& a) {
        const String16 key = a.text();
        const T value = parse<T>(a);
        report((s.*method)(key, value));
    };
}

template <typename T, typename Method>
Op userSetter(Method method) {
    return [method](Service& s, Args& a) {
        const String16 key = a.text();
        const T value = parse<T>(a);
        report((s.*method)(key, value, a.user()));
    };
}

template <typename T, typename Method>
Op getter(Method method) {
    return [method](Service& s, Args& a) {
        T value{};
        const Status status = (s.*method)(a.text(), &value);
        report(status, status.isOk() ? print(value) : "");
    };
}

template <typename T, typename Method>
Op userGetter(Method method) {
    return [method](Service& s, Args& a) {
        const String16 key = a.text();
        T value{};
        const Status status = (s.*method)(key, a.user(), &value);
        report(status, status.isOk() ? print(value) : "");
    };
}

// Adds the six operations of one value type, named as the interface's methods.
template <typename T, typename Set, typename Get, typename SetUser, typename GetUser>
void addTyped(std::map<std::string, Op>& ops, const std::string& name, Set set, Get get,
              Set setCurrent, Get getCurrent, SetUser setUser, GetUser getUser) {
    ops["set" + name] = setter<T>(set);
    ops["get" + name] = getter<T>(get);
    ops["set" + name + "Current"] = setter<T>(setCurrent);
    ops["get" + name + "Current"] = getter<T>(getCurrent);
    ops["set" + name + "User"] = userSetter<T>(setUser);
    ops["get" + name + "User"] = userGetter<T>(getUser);
}

// The misbehaving client's operations.

std::string gServiceName;

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

int connectRaw() {
    const char* dir = getenv("BINDER_DIR");
    const std::string path = std::string(dir != nullptr ? dir : "/run/binder") + "/" + gServiceName;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
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
            for (const String16& key : keys) line += " " + print(key);
            say(line);
        }
        return Status::ok();
    }

private:
    bool mPrint;
};

void listeners(Service& s, Args& a) {
    android::ProcessState::self()->startThreadPool();
    const long count = std::strtol(a.next().c_str(), nullptr, 10);
    const String16 key = a.text();
    std::vector<android::sp<Listener>> kept;
    std::string first = "0";
    for (long i = 0; i < count; ++i) {
        android::sp<Listener> listener = new Listener(false);
        const Status status = s.registerListener(listener, {key}, false);
        if (status.isOk()) {
            kept.push_back(listener);
        } else if (first == "0") {
            first = describe(status);
        }
    }
    say("registered " + std::to_string(kept.size()));
    say("first " + first);
    waitForever();
}

void badListeners(Service& s, Args& a) {
    const long count = std::strtol(a.next().c_str(), nullptr, 10);
    const String16 key = a.text();
    long refused = 0;
    std::string first = "0";
    for (long i = 0; i < count; ++i) {
        const Status status = s.registerListener(new Listener(false), {key, key}, false);
        refused += !status.isOk();
        if (!status.isOk() && first == "0") first = describe(status);
    }
    say("refused " + std::to_string(refused));
    say("first " + first);
    // The service's own object, posing as a listener.
    const android::sp<lumen::preferences::IPreferencesListener> itself =
            android::interface_cast<lumen::preferences::IPreferencesListener>(
                    android::IInterface::asBinder(&s));
    say("itself " + describe(s.registerListener(itself, {key}, false)));
}

void connections(Service&, Args& a) {
    const long count = std::strtol(a.next().c_str(), nullptr, 10);
    int opened = 0;
    for (long i = 0; i < count; ++i) opened += connectRaw() >= 0;
    say("open " + std::to_string(opened));
    waitForever();
}

// A transaction frame (docs/wire.md) carrying `data` to the published object; txid 0 makes it
// one-way.
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
    put32(txid == 0 ? android::IBinder::FLAG_ONEWAY : 0);
    put32(static_cast<uint32_t>(data.dataSize()));
    put32(0);  // objects
    put32(0);  // descriptors
    put32(0);
    frame.insert(frame.end(), data.data(), data.data() + data.dataSize());
    return frame;
}

void stall(Service&, Args& a) {
    const long count = std::strtol(a.next().c_str(), nullptr, 10);
    const String16 key = a.text();
    const int fd = connectRaw();
    if (fd < 0) exit(3);
    android::Parcel data;
    data.writeInterfaceToken(IPreferencesService::descriptor);
    data.writeString16(key);
    constexpr uint32_t kGetString = 9;
    for (long i = 0; i < count; ++i) {
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
            return;
        }
        char buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) break;
    }
    say("closed");
}

void flood(Service&, Args& a) {
    const long count = std::strtol(a.next().c_str(), nullptr, 10);
    const int fd = connectRaw();
    if (fd < 0) exit(3);
    const std::vector<uint8_t> ping =
            transactionFrame(0, android::IBinder::PING_TRANSACTION, android::Parcel());
    std::vector<uint8_t> batch;
    for (int i = 0; i < 1000; ++i) batch.insert(batch.end(), ping.begin(), ping.end());
    long sent = 0;
    while (sent < count && send(fd, batch.data(), batch.size(), MSG_NOSIGNAL) ==
                                   static_cast<ssize_t>(batch.size())) {
        sent += 1000;
    }
    say("sent " + std::to_string(sent));
}

void longKey(Service& s, Args& a) {
    const String16 key(std::string(std::strtoul(a.next().c_str(), nullptr, 10), 'k').c_str());
    int32_t value = 0;
    say("getInteger " + describe(s.getInteger(key, &value)));
    say("setInteger " + describe(s.setInteger(key, 1)));
    say("getType " + describe(s.getType(key, &value)));
    say("registerListener " + describe(s.registerListener(new Listener(false), {key}, false)));
}

void bigValue(Service& s, Args& a) {
    const String16 key = a.text();
    const String16 value(std::string(std::strtoul(a.next().c_str(), nullptr, 10), 'v').c_str());
    say("setString " + describe(s.setString(key, value)));
    String16 out;
    say("getString " + describe(s.getString(key, &out)));
    say(out == value ? "same" : "different");
}

void watch(Service& s, Args& a) {
    android::ProcessState::self()->startThreadPool();
    const String16 key = a.text();
    const std::string publish = a.next();
    android::sp<Listener> listener = new Listener(true);
    if (publish != "-") {
        android::defaultServiceManager()->addService(String16(publish.c_str()), listener);
    }
    say("registered " + describe(s.registerListener(listener, {key}, false)));
    for (;;) {
        waitForSigusr1();
        say("unregister " + describe(s.unregisterListener(listener)));
    }
}

void unregisterOther(Service& s, Args& a) {
    const String16 name = a.text();
    android::sp<lumen::preferences::IPreferencesListener> other;
    if (android::getService(name, &other) != android::OK || other == nullptr) exit(3);
    say("unregister " + describe(s.unregisterListener(other)));
}

class ImpostorPermission : public android::os::BnPermissionController {
public:
    Status checkPermission(const String16& /*permission*/, int32_t /*pid*/, int32_t uid,
                           bool* granted) override {
        say("impostor asked " + std::to_string(uid));
        *granted = true;
        return Status::ok();
    }
};

class ImpostorInquirer : public nimbus::internal::BnPreferencesAppInfoInquirer {
public:
    Status getFullPackageInfo() override { return Status::ok(); }
    Status getUserList(std::vector<int32_t>* users) override {
        *users = {0};
        return Status::ok();
    }
    Status registerPackageInfoListener(
            const android::sp<nimbus::internal::IPreferencesAppInfoListener>& /*listener*/,
            bool* ok) override {
        say("impostor registered");
        *ok = true;
        return Status::ok();
    }
    Status unregisterPackageInfoListener(bool* ok) override {
        *ok = true;
        return Status::ok();
    }
};

class SilentAppInfoListener : public nimbus::internal::BnPreferencesAppInfoListener {
public:
    Status onSchema(const std::vector<uint8_t>& /*schema*/) override { return Status::ok(); }
    Status deleteUserData(int32_t /*userId*/) override { return Status::ok(); }
    Status currentUser(int32_t /*userId*/) override { return Status::ok(); }
    Status userList(const std::vector<int32_t>& /*users*/) override { return Status::ok(); }
};

void impostor(Service& /*s*/, Args& /*a*/) {
    const android::sp<android::IServiceManager> services = android::defaultServiceManager();
    if (services->addService(String16("permission"), new ImpostorPermission()) != android::OK ||
        services->addService(String16("PreferencesAppInfoInquirer"), new ImpostorInquirer()) !=
                android::OK) {
        exit(3);
    }
    say("serving");
    android::ProcessState::self()->startThreadPool();
    android::IPCThreadState::self()->joinThreadPool();
}

void inquirer(Service& /*s*/, Args& a) {
    const std::string method = a.next();
    android::sp<nimbus::internal::IPreferencesAppInfoInquirer> service;
    if (android::getService(String16("PreferencesAppInfoInquirer"), &service) != android::OK) {
        exit(3);
    }
    bool ok = false;
    Status status;
    if (method == "registerPackageInfoListener") {
        status = service->registerPackageInfoListener(new SilentAppInfoListener(), &ok);
    } else if (method == "unregisterPackageInfoListener") {
        status = service->unregisterPackageInfoListener(&ok);
    } else if (method == "getFullPackageInfo") {
        status = service->getFullPackageInfo();
    } else {
        std::vector<int32_t> users;
        status = service->getUserList(&users);
    }
    say(method + " " + describe(status));
}

const std::map<std::string, Op>& operations() {
    static const auto* ops = [] {
        auto* made = new std::map<std::string, Op>();
        using S = Service;
        addTyped<int32_t>(*made, "Integer", &S::setInteger, &S::getInteger, &S::setIntegerCurrent,
                          &S::getIntegerCurrent, &S::setIntegerUser, &S::getIntegerUser);
        addTyped<double>(*made, "Double", &S::setDouble, &S::getDouble, &S::setDoubleCurrent,
                         &S::getDoubleCurrent, &S::setDoubleUser, &S::getDoubleUser);
        addTyped<String16>(*made, "String", &S::setString, &S::getString, &S::setStringCurrent,
                           &S::getStringCurrent, &S::setStringUser, &S::getStringUser);
        addTyped<int64_t>(*made, "Long", &S::setLong, &S::getLong, &S::setLongCurrent,
                          &S::getLongCurrent, &S::setLongUser, &S::getLongUser);
        addTyped<bool>(*made, "Boolean", &S::setBoolean, &S::getBoolean, &S::setBooleanCurrent,
                       &S::getBooleanCurrent, &S::setBooleanUser, &S::getBooleanUser);
        addTyped<float>(*made, "Float", &S::setFloat, &S::getFloat, &S::setFloatCurrent,
                        &S::getFloatCurrent, &S::setFloatUser, &S::getFloatUser);
        (*made)["getType"] = getter<int32_t>(&S::getType);
        (*made)["reset"] = [](Service& s, Args& a) { report(s.reset(a.text())); };
        (*made)["profile"] = [](Service& s, Args& a) { report(s.profile(a.next(), {})); };
        (*made)["dump"] = [](Service& s, Args& a) {
            const long count = std::strtol(a.next().c_str(), nullptr, 10);
            android::Vector<String16> dumpArgs;
            for (long i = 0; i < count; ++i) dumpArgs.add(a.text());
            fflush(stdout);
            const android::status_t status =
                    android::IInterface::asBinder(&s)->dump(STDOUT_FILENO, dumpArgs);
            printf("dump %d\n", status);
        };
        (*made)["listeners"] = listeners;
        (*made)["badlisteners"] = badListeners;
        (*made)["connections"] = connections;
        (*made)["stall"] = stall;
        (*made)["flood"] = flood;
        (*made)["longkey"] = longKey;
        (*made)["bigvalue"] = bigValue;
        (*made)["watch"] = watch;
        (*made)["unregister"] = unregisterOther;
        (*made)["impostor"] = impostor;
        (*made)["inquirer"] = inquirer;
        return made;
    }();
    return *ops;
}

}  // namespace

int main(int argc, char** argv) {
    // A test reads each answer as it comes, also when the service dies in the middle.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // Blocked before any thread starts, so that only waitForSigusr1 takes it.
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    gServiceName = argc > 1 ? argv[1] : "";
    Args args(argc, argv);
    const android::sp<IPreferencesService> service = android::interface_cast<IPreferencesService>(
            android::defaultServiceManager()->getService(args.text()));
    if (service == nullptr) {
        fprintf(stderr, "service not found\n");
        return 3;
    }
    while (!args.done()) {
        const std::string name = args.next();
        const auto op = operations().find(name);
        if (op == operations().end()) {
            fprintf(stderr, "unknown operation %s\n", name.c_str());
            return 2;
        }
        op->second(*service, args);
    }
    return 0;
}
