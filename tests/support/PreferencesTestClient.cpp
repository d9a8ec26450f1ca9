// A Binder client of the preferences service for the service and daemon tests, run as a separate
// process (under an app uid when the test runs as root).
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
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <lumen/preferences/IPreferencesService.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>

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

void report(const Status& status, const std::string& value = "") {
    if (status.isOk()) {
        printf(value.empty() ? "ok\n" : "ok %s\n", value.c_str());
    } else if (status.exceptionCode() == Status::EX_SERVICE_SPECIFIC) {
        printf("error %d\n", status.serviceSpecificErrorCode());
    } else {
        printf("exception %d\n", status.exceptionCode());
    }
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
        return made;
    }();
    return *ops;
}

}  // namespace

int main(int argc, char** argv) {
    // A test reads each answer as it comes, also when the service dies in the middle.
    setvbuf(stdout, nullptr, _IOLBF, 0);
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
