// prefs-soak: a long run of the whole device under mixed load, for the reliability figures in
// docs/reliability.md. Not a test: it runs for minutes.
//
//   prefs-soak --preferencesd PATH --appinfo PATH --config DIR [--minutes M] [--clients N]
//              [--work DIR]
//
// Starts prefs-appinfo and preferencesd in a work directory of its own (a fresh temporary one
// unless --work is given), then runs N client processes, each as its own app uid, that mix
// typed reads and writes in every flavour, getType, resets and listener registrations, while the
// package folder churns (a package is installed or removed every two seconds). Every 10 seconds
// it prints the daemon's resident size and descriptor count. At the end it stops both services
// and prints the totals. Exit status 0 when no call failed, the daemon stopped cleanly, and its
// descriptors and resident size did not grow between the first sample after warm-up and the
// end; 1 otherwise; 2 for a wrong command line.
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <dirent.h>
#include <fcntl.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <lumen/preferences/IPreferencesService.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/String16.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "process/ProcessSignals.h"

namespace {

using android::sp;
using android::String16;
using android::binder::Status;
using lumen::preferences::IPreferencesService;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string preferencesd;
    std::string appinfo;
    std::string config;
    std::string work;
    double minutes = 10;
    int clients = 8;
};

constexpr uid_t kFirstAppUid = 10301;

std::string entry(const std::string& key, const std::string& type, const std::string& def,
                  const std::string& scope) {
    return R"({"key": ")" + key + R"(", "type": ")" + type + R"(", "default": ")" + def +
           R"(", "scope": ")" + scope + R"(", "hasWritePermission": true, "isOwner": true})";
}

std::string package(uid_t uid, const std::string& name, const std::string& contents) {
    return R"({"uid": )" + std::to_string(uid) + R"(, "packageName": ")" + name +
           R"(", "version": "1", "permissions": ["com.nimbus.permission.READ_SETTINGS",
           "com.nimbus.permission.WRITE_SETTINGS"], "contents": [)" +
           contents + "]}";
}

void writeFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".tmp";
    std::ofstream(temporary) << text;
    std::filesystem::rename(temporary, path);
}

pid_t spawn(const std::vector<std::string>& argv, const std::string& log) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        Halo::OS::ProcessSignals::resetForExec();
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

bool waitForSocket(const std::string& path) {
    for (int i = 0; i < 6000; ++i) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
        usleep(20000);
    }
    return false;
}

long residentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

int descriptors(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* e = readdir(dir)) count += e->d_name[0] != '.';
    closedir(dir);
    return count;
}

class Listener : public lumen::preferences::BnPreferencesListener {
public:
    Status onChanged(const std::vector<String16>&) override { return Status::ok(); }
};

// One client process: runs as `uid` and works on its own package's keys until `deadline`.
// Writes "OPS ERRORS" to `report`.
void client(int index, uid_t uid, Clock::time_point deadline, int report) {
    if (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0) _exit(3);
    android::ProcessState::self()->startThreadPool();
    sp<IPreferencesService> prefs;
    if (android::getService(String16("PreferencesService"), &prefs) != android::OK ||
        prefs == nullptr) {
        _exit(4);
    }
    const std::string p = "soak" + std::to_string(index) + "_";
    const String16 sysInt((p + "int").c_str()), userInt((p + "user").c_str()),
            crossLong((p + "cross").c_str()), text((p + "text").c_str());
    std::mt19937 random(index);
    long ops = 0, errors = 0;
    auto check = [&](const Status& status, const char* what) {
        ++ops;
        if (!status.isOk()) {
            ++errors;
            if (errors <= 5)
                fprintf(stderr, "client %d: %s: %s\n", index, what, status.toString8().c_str());
        }
    };
    while (Clock::now() < deadline) {
        const int value = static_cast<int>(random() % 100000);
        int32_t i = 0;
        int64_t l = 0;
        String16 s;
        switch (random() % 10) {
            case 0:
                check(prefs->setInteger(sysInt, value), "setInteger");
                break;
            case 1:
                check(prefs->getInteger(sysInt, &i), "getInteger");
                break;
            case 2:
                check(prefs->setIntegerCurrent(userInt, value), "setIntegerCurrent");
                break;
            case 3:
                check(prefs->getIntegerCurrent(userInt, &i), "getIntegerCurrent");
                break;
            case 4:
                check(prefs->setLongUser(crossLong, value, 10), "setLongUser");
                break;
            case 5:
                check(prefs->getLongUser(crossLong, 10, &l), "getLongUser");
                break;
            case 6:
                check(prefs->setString(text, String16(std::string(random() % 200, 'x').c_str())),
                      "setString");
                break;
            case 7:
                check(prefs->getString(text, &s), "getString");
                break;
            case 8:
                check(prefs->getType(sysInt, &i), "getType");
                break;
            default: {
                sp<Listener> listener = new Listener();
                check(prefs->registerListener(listener, {sysInt, text}, false), "registerListener");
                check(prefs->setInteger(sysInt, value), "setInteger");
                check(prefs->unregisterListener(listener), "unregisterListener");
                if (random() % 20 == 0) check(prefs->reset(text), "reset");
            }
        }
    }
    dprintf(report, "%ld %ld\n", ops, errors);
    _exit(0);
}

bool parse(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (i + 1 >= argc) return false;
        const std::string value = argv[++i];
        if (flag == "--preferencesd")
            options->preferencesd = value;
        else if (flag == "--appinfo")
            options->appinfo = value;
        else if (flag == "--config")
            options->config = value;
        else if (flag == "--work")
            options->work = value;
        else if (flag == "--minutes")
            options->minutes = std::atof(value.c_str());
        else if (flag == "--clients")
            options->clients = std::atoi(value.c_str());
        else
            return false;
    }
    return !options->preferencesd.empty() && !options->appinfo.empty() &&
           !options->config.empty() && options->minutes > 0 && options->clients > 0 &&
           options->clients <= 64;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, &options)) {
        fprintf(stderr,
                "usage: prefs-soak --preferencesd PATH --appinfo PATH --config DIR "
                "[--minutes M] [--clients N] [--work DIR]\n");
        return 2;
    }
    namespace fs = std::filesystem;
    if (options.work.empty()) {
        char pattern[] = "/tmp/prefs-soak.XXXXXX";
        options.work = mkdtemp(pattern);
    }
    chmod(options.work.c_str(), 0755);
    const std::string binder = options.work + "/binder", data = options.work + "/data",
                      packages = options.work + "/packages", log = options.work + "/device.log";
    fs::create_directories(packages);
    for (int c = 0; c < options.clients; ++c) {
        const std::string p = "soak" + std::to_string(c) + "_";
        writeFile(packages + "/soak" + std::to_string(c) + ".json",
                  package(kFirstAppUid + c, "com.example.soak" + std::to_string(c),
                          entry(p + "int", "integer", "0", "system") + ", " +
                                  entry(p + "user", "integer", "0", "user") + ", " +
                                  entry(p + "cross", "long", "0", "crossUser") + ", " +
                                  entry(p + "text", "string", "t", "system")));
    }
    writeFile(packages + "/users.json", R"({"users": [0, 10], "current": 0})");
    setenv("BINDER_DIR", binder.c_str(), 1);

    const pid_t appinfo =
            spawn({options.appinfo, "--packages", packages, "--binder-dir", binder}, log);
    const pid_t daemon =
            spawn({options.preferencesd, "--binder-dir", binder, "--data-dir", data, "--legacy-dir",
                   options.work + "/legacy", "--config-dir", options.config},
                  log);
    if (!waitForSocket(binder + "/PreferencesService")) {
        fprintf(stderr, "prefs-soak: the daemon did not start; see %s\n", log.c_str());
        kill(appinfo, SIGKILL);
        kill(daemon, SIGKILL);
        return 1;
    }
    sleep(2);  // the packages' schema lists

    const auto start = Clock::now();
    const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(options.minutes * 60));
    int reports[2];
    if (pipe(reports) != 0) return 1;
    std::vector<pid_t> clients;
    for (int c = 0; c < options.clients; ++c) {
        const pid_t pid = fork();
        if (pid == 0) {
            close(reports[0]);
            client(c, kFirstAppUid + c, deadline, reports[1]);
        }
        clients.push_back(pid);
    }
    close(reports[1]);

    printf("seconds  rss_kb  fds  (daemon pid %d, work %s)\n", daemon, options.work.c_str());
    long firstRss = -1, lastRss = -1;
    int firstFds = -1, lastFds = -1, churn = 0;
    auto nextSample = start;
    while (Clock::now() < deadline) {
        // Package churn: install a package with 50 keys, or remove the last one installed.
        const std::string churnFile = packages + "/churn.json";
        if (churn++ % 2 == 0) {
            std::string contents;
            for (int k = 0; k < 50; ++k) {
                contents += (k ? ", " : "") + entry("churn_" + std::to_string(k), "integer",
                                                    std::to_string(churn), "system");
            }
            writeFile(churnFile, package(10400, "com.example.churn", contents));
        } else {
            unlink(churnFile.c_str());
        }
        if (Clock::now() >= nextSample) {
            const long seconds =
                    std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
            lastRss = residentKb(daemon);
            lastFds = descriptors(daemon);
            // The first minute (or tenth of the run) warms caches and pools up.
            if (firstRss < 0 && seconds >= std::min(60.0, options.minutes * 6)) {
                firstRss = lastRss;
                firstFds = lastFds;
            }
            printf("%7ld  %6ld  %3d\n", seconds, lastRss, lastFds);
            fflush(stdout);
            nextSample += std::chrono::seconds(10);
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
    }

    long ops = 0, errors = 0;
    FILE* in = fdopen(reports[0], "r");
    long o = 0, e = 0;
    while (fscanf(in, "%ld %ld", &o, &e) == 2) {
        ops += o;
        errors += e;
    }
    fclose(in);
    int failedClients = 0;
    for (pid_t pid : clients) {
        int status = 0;
        waitpid(pid, &status, 0);
        failedClients += !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const long endRss = residentKb(daemon);
    const int endFds = descriptors(daemon);
    kill(daemon, SIGTERM);
    int daemonStatus = 0;
    waitpid(daemon, &daemonStatus, 0);
    kill(appinfo, SIGTERM);
    waitpid(appinfo, nullptr, 0);

    if (firstRss < 0) {
        firstRss = lastRss;
        firstFds = lastFds;
    }
    const bool clean = WIFEXITED(daemonStatus) && WEXITSTATUS(daemonStatus) == 0;
    // Growth allowance: allocator noise of a few MiB, nothing that scales with the run.
    const bool rssFlat = endRss - firstRss <= std::max(8192L, firstRss / 10);
    const bool fdsFlat = endFds <= firstFds + 2;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    printf("calls %ld (%.0f/s), failed %ld, failed clients %d\n", ops, ops / seconds, errors,
           failedClients);
    printf("daemon rss %ld -> %ld kB, descriptors %d -> %d, clean stop %s\n", firstRss, endRss,
           firstFds, endFds, clean ? "yes" : "no");
    const bool ok = errors == 0 && failedClients == 0 && clean && rssFlat && fdsFlat;
    printf("%s\n", ok ? "soak passed" : "soak FAILED");
    return ok ? 0 : 1;
}
