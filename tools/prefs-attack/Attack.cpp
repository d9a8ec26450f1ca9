#include "prefs-attack/Attack.h"

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <dirent.h>
#include <fcntl.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <lumen/preferences/IPreferencesService.h>
#include <nimbus/internal/BnPreferencesAppInfoListener.h>
#include <nimbus/internal/IPreferencesAppInfoInquirer.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <sstream>
#include <thread>

#include "prefs-attack/AppProcess.h"

namespace Halo::OS {

namespace {

using android::IBinder;
using android::sp;
using android::String16;
using android::binder::Status;
using lumen::preferences::IPreferencesListener;
using lumen::preferences::IPreferencesService;
using nimbus::internal::IPreferencesAppInfoInquirer;
using Clock = std::chrono::steady_clock;

class QuietListener : public lumen::preferences::BnPreferencesListener {
public:
    Status onChanged(const std::vector<String16>&) override { return Status::ok(); }
};

class QuietAppInfoListener : public nimbus::internal::BnPreferencesAppInfoListener {
public:
    Status onSchema(const std::vector<uint8_t>&) override { return Status::ok(); }
    Status deleteUserData(int32_t) override { return Status::ok(); }
    Status currentUser(int32_t) override { return Status::ok(); }
    Status userList(const std::vector<int32_t>&) override { return Status::ok(); }
};

sp<IBinder> service(const char* name) {
    return android::defaultServiceManager()->checkService(String16(name));
}

// Runs `body` as the attacking app and reads back the "CALLS REFUSED" line it reports.
template <typename Body>
Attack::Count asApp(const Attack::Target& target, const Body& body) {
    AppProcess app(target.attacker, [&body](int report) {
        Attack::Count count;
        body(&count);
        dprintf(report, "%ld %ld\n", count.calls, count.refused);
    });
    Attack::Count count;
    std::istringstream(app.finish()) >> count.calls >> count.refused;
    return count;
}

void tally(Attack::Count* count, bool ok) {
    ++count->calls;
    count->refused += !ok;
}

// Not an attack: an app that keeps one CPU busy without calling anyone. On a small machine every
// busy attacker slows the probe down this much before it does anything to the service.
Attack::Count busyApp(const Attack::Target& target, Clock::time_point deadline) {
    return asApp(target, [&](Attack::Count* count) {
        volatile uint64_t spins = 0;
        while (Clock::now() < deadline) {
            for (int i = 0; i < 100000; ++i) spins = spins + 1;
        }
        count->calls = 0;
    });
}

// One-way pings, as fast as the runtime takes them, on one connection (a new one when the
// service drops it).
Attack::Count floodOneway(const Attack::Target& target, Clock::time_point deadline,
                          const char* name) {
    return asApp(target, [&](Attack::Count* count) {
        sp<IBinder> binder;
        android::Parcel empty;
        while (Clock::now() < deadline) {
            if (binder == nullptr && (binder = service(name)) == nullptr) {
                tally(count, false);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            for (int i = 0; i < 256; ++i) {
                const bool sent = binder->transact(IBinder::PING_TRANSACTION, empty, nullptr,
                                                   IBinder::FLAG_ONEWAY) == android::OK;
                tally(count, sent);
                if (!sent) {
                    binder = nullptr;
                    break;
                }
            }
        }
    });
}

Attack::Count floodService(const Attack::Target& target, Clock::time_point deadline) {
    return floodOneway(target, deadline, "PreferencesService");
}

Attack::Count floodAppInfo(const Attack::Target& target, Clock::time_point deadline) {
    return floodOneway(target, deadline, "PreferencesAppInfoInquirer");
}

Attack::Count floodPermission(const Attack::Target& target, Clock::time_point deadline) {
    return floodOneway(target, deadline, "permission");
}

// The app-info service's listener calls are for the preferences service alone.
Attack::Count appInfoCalls(const Attack::Target& target, Clock::time_point deadline) {
    return asApp(target, [&](Attack::Count* count) {
        sp<IPreferencesAppInfoInquirer> inquirer =
                android::interface_cast<IPreferencesAppInfoInquirer>(
                        service("PreferencesAppInfoInquirer"));
        if (inquirer == nullptr) return tally(count, false);
        sp<QuietAppInfoListener> listener = new QuietAppInfoListener();
        while (Clock::now() < deadline) {
            bool answer = false;
            tally(count, inquirer->unregisterPackageInfoListener(&answer).isOk() && answer);
            tally(count, inquirer->registerPackageInfoListener(listener, &answer).isOk() && answer);
            tally(count, inquirer->getFullPackageInfo().isOk());
        }
    });
}

size_t countLines(const std::string& text, const std::string& prefix) {
    size_t count = 0;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) count += line.rfind(prefix, 0) == 0;
    return count;
}

// The store's listener rows, from root's dump of the databases.
std::string listenerRows() {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return "listener rows unknown";
    AppProcess root(0, [&pipeFds](int) {
        close(pipeFds[0]);
        sp<IBinder> binder = service("PreferencesService");
        android::Vector<String16> args;
        args.push(String16("db"));
        if (binder != nullptr) binder->dump(pipeFds[1], args);
    });
    close(pipeFds[1]);
    std::string text;
    char buffer[65536];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0) text.append(buffer, n);
    close(pipeFds[0]);
    root.finish();
    return "listener rows " + std::to_string(countLines(text, "  > Listener: "));
}

// Registrations that fail part way (a key listed twice) and the service's own binder offered
// as a listener.
Attack::Count listenerRowsAttack(const Attack::Target& target, Clock::time_point deadline) {
    Attack::Count count = asApp(target, [&](Attack::Count* count) {
        sp<IPreferencesService> prefs =
                android::interface_cast<IPreferencesService>(service("PreferencesService"));
        if (prefs == nullptr) return tally(count, false);
        const String16 key(target.systemKey.c_str());
        sp<QuietListener> listener = new QuietListener();
        sp<IPreferencesListener> itself =
                android::interface_cast<IPreferencesListener>(android::IInterface::asBinder(prefs));
        while (Clock::now() < deadline) {
            tally(count, prefs->registerListener(listener, {key, key}, false).isOk());
            tally(count, prefs->registerListener(itself, {key}, false).isOk());
        }
        prefs->unregisterListener(listener);
    });
    count.left = listenerRows();
    return count;
}

std::string userDatabases(const std::string& dataDir) {
    size_t count = 0;
    if (DIR* dir = opendir(dataDir.c_str())) {
        while (dirent* e = readdir(dir)) {
            const std::string name = e->d_name;
            count += name.rfind("user", 0) == 0 && name.size() > 3 &&
                     name.compare(name.size() - 3, 3, ".db") == 0;
        }
        closedir(dir);
    }
    return "user databases " + std::to_string(count);
}

// Reads and writes of users the device does not have, out-of-range ids included.
Attack::Count userIds(const Attack::Target& target, Clock::time_point deadline) {
    Attack::Count count = asApp(target, [&](Attack::Count* count) {
        sp<IPreferencesService> prefs =
                android::interface_cast<IPreferencesService>(service("PreferencesService"));
        if (prefs == nullptr) return tally(count, false);
        const String16 key(target.crossKey.c_str());
        const int32_t odd[] = {INT_MAX, INT_MIN, -5, 21474, 99999};
        for (int32_t i = 0; Clock::now() < deadline; ++i) {
            const int32_t user = i % 8 == 0 ? odd[(i / 8) % 5] : 100 + i % 500;
            int64_t value = 0;
            tally(count, prefs->getLongUser(key, user, &value).isOk());
            tally(count, prefs->setLongUser(key, 1, user).isOk());
        }
    });
    count.left = userDatabases(target.device->dataDir());
    return count;
}

// Dumps of the databases into a pipe that is never read: the service must not wait on it while
// holding what other callers need.
Attack::Count stalledDump(const Attack::Target& target, Clock::time_point deadline) {
    return asApp(target, [&](Attack::Count* count) {
        int pipeFds[2];
        if (pipe2(pipeFds, O_NONBLOCK) != 0) return tally(count, false);
        // Full but for one page: the service's writes block part way through the dump, as
        // they do for a reader that stops reading.
        char junk[4096] = {};
        while (write(pipeFds[1], junk, sizeof junk) > 0) {
        }
        if (read(pipeFds[0], junk, sizeof junk) < 0) return tally(count, false);
        fcntl(pipeFds[1], F_SETFL, 0);
        sp<IBinder> binder = service("PreferencesService");
        if (binder == nullptr) return tally(count, false);
        std::atomic<long> started{0}, refused{0};
        // Each dump may stay blocked in the service: they run on threads of their own and the
        // report is made at the deadline whatever they do.
        for (int i = 0; i < 4 && Clock::now() < deadline; ++i) {
            std::thread([binder, &pipeFds, &started, &refused] {
                android::Vector<String16> args;
                args.push(String16("db"));
                ++started;
                if (binder->dump(pipeFds[1], args) != android::OK) ++refused;
            }).detach();
            std::this_thread::sleep_until(
                    std::min(deadline, Clock::now() + std::chrono::seconds(1)));
        }
        std::this_thread::sleep_until(deadline);
        count->calls = started;
        count->refused = refused;
    });
}

// Connections held open, as many as the service lets one uid have (and more).
Attack::Count connections(const Attack::Target& target, Clock::time_point deadline) {
    const std::string path = target.device->binderDir() + "/PreferencesService";
    return asApp(target, [&](Attack::Count* count) {
        std::vector<int> held;
        while (held.size() < 1000 && Clock::now() < deadline) {
            const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
            if (fd >= 0 &&
                connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
                held.push_back(fd);
            } else {
                tally(count, false);
                if (fd >= 0) close(fd);
            }
        }
        std::this_thread::sleep_until(deadline);
        // A connection the service closed after accepting it counts as refused.
        for (int fd : held) {
            pollfd poll{fd, POLLRDHUP, 0};
            tally(count, ::poll(&poll, 1, 0) == 0);
            close(fd);
        }
    });
}

// A package file nested far deeper than any parser's stack should follow.
Attack::Count deepJson(const Attack::Target& target, Clock::time_point deadline) {
    const size_t depth = 100000;
    target.device->writeFile("com.example.deep.json",
                             R"({"uid": 10997, "packageName": "com.example.deep", "contents": )" +
                                     std::string(depth, '[') + std::string(depth, ']') + "}");
    std::this_thread::sleep_until(deadline);
    target.device->removeFile("com.example.deep.json");
    return {1, 0, ""};
}

std::string packageKeys(int package, int keys) {
    std::string contents;
    for (int k = 0; k < keys; ++k) {
        contents += (k ? ", " : "") +
                    DeviceRunner::entry("big" + std::to_string(package) + "_" + std::to_string(k),
                                        "integer", "1", "system");
    }
    return contents;
}

// A big device: `packages` packages of `keys` keys each in the restart list the app-info service
// sends when it starts.
Attack::Count bigRestartList(const Attack::Target& target, Clock::time_point deadline, int packages,
                             int keys) {
    const uid_t firstUid = 20000;
    for (int p = 0; p < packages; ++p) {
        target.device->writeFile(
                "com.example.big" + std::to_string(p) + ".json",
                DeviceRunner::package(firstUid + p, "com.example.big" + std::to_string(p),
                                      packageKeys(p, keys), false));
    }
    target.device->restartAppInfo();
    const auto begin = Clock::now();
    const std::string last = "big" + std::to_string(packages - 1) + "_" + std::to_string(keys - 1);
    // Arrival of a list this size is measured whatever the attack window is.
    const bool arrived = waitForKey(last, std::max(deadline, begin + std::chrono::minutes(3)));
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (getenv("FAIR_HOLD")) { fprintf(stderr, "HOLD arrived pid %d\n", target.device->daemonPid()); sleep(atoi(getenv("FAIR_HOLD"))); }
    for (int p = 0; p < packages; ++p) {
        target.device->removeFile("com.example.big" + std::to_string(p) + ".json");
    }
    target.device->restartAppInfo();
    if (getenv("FAIR_HOLD")) { waitForKey("zz_none", Clock::now() + std::chrono::seconds(5)); fprintf(stderr, "HOLD removed\n"); sleep(atoi(getenv("FAIR_HOLD"))); }
    char left[64];
    snprintf(left, sizeof left, arrived ? "arrived in %.1f s" : "not arrived after %.0f s",
             seconds);
    return {static_cast<long>(packages) * keys, arrived ? 0 : 1, left};
}

Attack::Count manyPackages(const Attack::Target& target, Clock::time_point deadline) {
    return bigRestartList(target, deadline, 2000, 50);
}

Attack::Count hugePackage(const Attack::Target& target, Clock::time_point deadline) {
    return bigRestartList(target, deadline, 1, 100000);
}

}  // namespace

bool waitForKey(const std::string& key, Clock::time_point deadline) {
    AppProcess root(0, [&](int report) {
        const String16 name(key.c_str());
        while (Clock::now() < deadline) {
            sp<IPreferencesService> prefs =
                    android::interface_cast<IPreferencesService>(service("PreferencesService"));
            int32_t type = 0;
            if (prefs != nullptr && prefs->getType(name, &type).isOk()) {
                dprintf(report, "yes\n");
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    return root.finish().rfind("yes", 0) == 0;
}

const std::vector<Attack>& attackCatalog() {
    static const std::vector<Attack> catalog = {
            {kBusyAppControl, "control, not an attack: an app that only keeps a CPU busy", false,
             busyApp},
            {"flood-service", "one-way pings at PreferencesService", false, floodService},
            {"flood-appinfo", "one-way pings at PreferencesAppInfoInquirer", false, floodAppInfo},
            {"flood-permission", "one-way pings at permission", false, floodPermission},
            {"appinfo-calls", "an app unregisters, registers and asks for every package", false,
             appInfoCalls},
            {"listener-rows", "registrations that fail part way; the service as its own listener",
             false, listenerRowsAttack},
            {"user-ids", "reads and writes of users that do not exist", false, userIds},
            {"stalled-dump", "database dumps into a pipe that is never read", false, stalledDump},
            {"connections", "a thousand connections from one app", false, connections},
            {"deep-json", "a package file nested 100,000 levels deep", false, deepJson},
            {"many-packages", "a restart list of 2,000 packages of 50 keys", true, manyPackages},
            {"huge-package", "one package of 100,000 keys", true, hugePackage},
    };
    return catalog;
}

}  // namespace Halo::OS
