#include "reliability/ReliabilityTest.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace Halo::OS::testing {
namespace {

constexpr auto kClientTimeout = std::chrono::seconds(120);

std::vector<std::string> asUid(uid_t uid, std::vector<std::string> argv) {
    if (uid == 0) return argv;
    std::vector<std::string> wrapped = {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid),
                                        "--regid=" + std::to_string(uid), "--clear-groups"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return wrapped;
}

std::string integerEntry(const std::string& key, const std::string& scope, const std::string& def) {
    return R"({"key": ")" + key + R"(", "type": "integer", "default": ")" + def +
           R"(", "scope": ")" + scope + R"(", "hasWritePermission": true, "isOwner": true})";
}

bool waitForSocket(const std::string& path, const ChildProcess& child) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (std::chrono::steady_clock::now() < deadline) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
        siginfo_t info{};
        if (waitid(P_PID, child.pid(), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            info.si_pid != 0) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::unique_ptr<ChildProcess> startLogged(const std::string& logPath, const std::string& prefix,
                                          const std::vector<std::string>& command) {
    std::vector<std::string> argv = {
            "/bin/sh", "-c", prefix + " log=$1; shift; exec \"$@\" >>\"$log\" 2>&1", "sh", logPath};
    argv.insert(argv.end(), command.begin(), command.end());
    return std::make_unique<ChildProcess>(argv);
}

}  // namespace

void ReliabilityTest::SetUp() {
    mRoot = std::make_unique<TempDir>();
    // Apps must reach the service directory through the root of the test.
    chmod(mRoot->path().c_str(), 0755);
    mBinderDir = mRoot->file("binder");
    mDataDir = mRoot->file("data");
    mPackagesDir = mRoot->file("packages");
    mConfigDir = mRoot->file("config");
    mLegacyDir = mRoot->file("legacy");
    mLogPath = mRoot->file("device.log");
    setenv("BINDER_DIR", mBinderDir.c_str(), 1);

    namespace fs = std::filesystem;
    fs::create_directories(mPackagesDir);
    fs::create_directories(mConfigDir + "/native");
    const fs::path example(PREFS_EXAMPLE_CONFIG_DIR);
    fs::copy(example / "native", mConfigDir + "/native");
    fs::copy_file(example / "legacy-keys.json", mConfigDir + "/legacy-keys.json");
    std::string stream;
    for (int i = 0; i < kStreamKeys; ++i) {
        stream += (i > 0 ? ",\n" : "") + integerEntry("stream_" + std::to_string(i), "system", "0");
    }
    std::ofstream(mConfigDir + "/native/reliability.test.json")
            << R"({"packageName": "reliability.test", "version": "1", "contents": [)" << stream
            << "]}";

    const std::string permissions =
            R"("permissions": ["com.nimbus.permission.READ_SETTINGS",
                               "com.nimbus.permission.WRITE_SETTINGS"])";
    writePackage("com.example.alpha.json",
                 R"({"uid": 10057, "packageName": "com.example.alpha", "version": "1", )" +
                         permissions + R"(, "contents": [)" +
                         integerEntry("alpha_sys", "system", "1") + ", " +
                         integerEntry("alpha_user", "user", "1") + ", " +
                         integerEntry("alpha_cross", "crossUser", "1") + ", " +
                         R"({"key": "alpha_text", "type": "string", "default": "a",
                             "scope": "system", "hasWritePermission": true, "isOwner": true}]})");
    writePackage("com.example.beta.json",
                 R"({"uid": 10058, "packageName": "com.example.beta", "version": "1", )" +
                         permissions + R"(, "contents": [)" +
                         integerEntry("beta_sys", "system", "2") + "]}");
    writePackage("users.json", R"({"users": [0, 10], "current": 0})");
}

void ReliabilityTest::TearDown() {
    if (mDaemon != nullptr) stopDaemon(SIGKILL);
    if (mAppInfo != nullptr) stopAppInfo(SIGKILL);
    if (HasFailure()) std::cerr << "---- device log ----\n" << log();
    mRoot.reset();
}

void ReliabilityTest::startAppInfo() {
    mAppInfo = startLogged(mLogPath, "",
                           {PREFS_APPINFO, "--packages", mPackagesDir, "--binder-dir", mBinderDir});
    ASSERT_TRUE(waitForSocket(mBinderDir + "/" + kInquirer, *mAppInfo)) << log();
}

int ReliabilityTest::stopAppInfo(int signal) {
    if (mAppInfo == nullptr) return -1;
    mAppInfo->kill(signal);
    const int status = mAppInfo->wait();
    mAppInfo.reset();
    unlink((mBinderDir + "/" + kInquirer).c_str());
    unlink((mBinderDir + "/permission").c_str());
    return status;
}

void ReliabilityTest::startDaemon(const std::string& shellPrefix) {
    // A small quarantine: freed memory goes back to the allocator as it would without ASan.
    const std::string prefix =
            "ASAN_OPTIONS=\"${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=4\"; "
            "export ASAN_OPTIONS; " +
            shellPrefix;
    mDaemon = startLogged(mLogPath, prefix,
                          {PREFERENCESD, "--binder-dir", mBinderDir, "--data-dir", mDataDir,
                           "--legacy-dir", mLegacyDir, "--config-dir", mConfigDir});
    ASSERT_TRUE(waitForSocket(mBinderDir + "/" + kService, *mDaemon)) << log();
}

int ReliabilityTest::stopDaemon(int signal) {
    if (mDaemon == nullptr) return -1;
    mDaemon->kill(signal);
    const int status = mDaemon->wait();
    mDaemon.reset();
    unlink((mBinderDir + "/" + kService).c_str());
    return status;
}

pid_t ReliabilityTest::daemonPid() const {
    return mDaemon != nullptr ? mDaemon->pid() : -1;
}

std::vector<std::string> ReliabilityTest::clientArgs(const std::vector<std::string>& ops,
                                                     uid_t uid) const {
    std::vector<std::string> args = {PREFS_TEST_CLIENT, kService};
    args.insert(args.end(), ops.begin(), ops.end());
    return asUid(uid, args);
}

std::vector<std::string> ReliabilityTest::client(const std::vector<std::string>& ops, uid_t uid) {
    ChildProcess process(clientArgs(ops, uid));
    std::vector<std::string> lines;
    while (auto line = process.readLine(kClientTimeout)) lines.push_back(*line);
    const int status = process.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "client status " << status;
    return lines;
}

std::string ReliabilityTest::call(const std::vector<std::string>& op, uid_t uid) {
    const std::vector<std::string> lines = client(op, uid);
    EXPECT_EQ(1u, lines.size());
    return lines.empty() ? "" : lines.front();
}

std::unique_ptr<ChildProcess> ReliabilityTest::hostile(const std::vector<std::string>& args,
                                                       uid_t uid) {
    std::vector<std::string> argv = {PREFS_HOSTILE_CLIENT};
    argv.insert(argv.end(), args.begin(), args.end());
    return std::make_unique<ChildProcess>(asUid(uid, argv));
}

std::vector<std::string> ReliabilityTest::hostileLines(const std::vector<std::string>& args,
                                                       uid_t uid) {
    std::unique_ptr<ChildProcess> process = hostile(args, uid);
    std::vector<std::string> lines;
    while (auto line = process->readLine(kClientTimeout)) lines.push_back(*line);
    const int status = process->wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "hostile status " << status;
    return lines;
}

void ReliabilityTest::writePackage(const std::string& name, const std::string& text) {
    const std::string path = mPackagesDir + "/" + name;
    const std::string temporary = mPackagesDir + "/." + name + ".tmp";
    std::ofstream(temporary) << text;
    // Renamed into place, so the simulator never reads half a file.
    std::filesystem::rename(temporary, path);
}

std::string ReliabilityTest::packageText(uid_t uid, const std::string& package,
                                         const std::vector<std::string>& keys) {
    std::string contents;
    for (size_t i = 0; i < keys.size(); ++i) {
        contents += (i > 0 ? ", " : "") + integerEntry(keys[i], "system", "0");
    }
    return R"({"uid": )" + std::to_string(uid) + R"(, "packageName": ")" + package +
           R"(", "version": "1", "permissions": ["com.nimbus.permission.READ_SETTINGS",
           "com.nimbus.permission.WRITE_SETTINGS"], "contents": [)" +
           contents + "]}";
}

std::string ReliabilityTest::dump() {
    std::string text;
    for (const std::string& line : client({"dump", "0"})) text += line + "\n";
    return text;
}

bool ReliabilityTest::eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return condition();
}

long ReliabilityTest::residentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

int ReliabilityTest::openDescriptors(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
}

std::string ReliabilityTest::integrity(const std::string& path) {
    sqlite3* db = nullptr;
    std::string result;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        result = std::string("cannot open: ") + sqlite3_errmsg(db);
        sqlite3_close(db);
        return result;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &statement, nullptr) != SQLITE_OK) {
        result = std::string("cannot check: ") + sqlite3_errmsg(db);
    } else {
        while (sqlite3_step(statement) == SQLITE_ROW) {
            if (!result.empty()) result += "; ";
            result += reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return result;
}

std::vector<std::string> ReliabilityTest::query(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::vector<std::string> rows;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot open " << path << ": " << sqlite3_errmsg(db);
        sqlite3_close(db);
        return rows;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot query " << path << ": " << sqlite3_errmsg(db);
    } else {
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::string row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const unsigned char* text = sqlite3_column_text(statement, i);
                row += (i > 0 ? "|" : "") +
                       std::string(text != nullptr ? reinterpret_cast<const char*>(text) : "");
            }
            rows.push_back(row);
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

std::string ReliabilityTest::log() const {
    std::ifstream file(mLogPath);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace Halo::OS::testing
