#include "reliability/ReliabilityTest.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace Halo::OS::testing {
namespace {

std::string integerEntry(const std::string& key, const std::string& scope, const std::string& def) {
    return R"({"key": ")" + key + R"(", "type": "integer", "default": ")" + def +
           R"(", "scope": ")" + scope + R"(", "hasWritePermission": true, "isOwner": true})";
}

std::string packageDocument(uid_t uid, const std::string& package, const std::string& contents) {
    return R"({"uid": )" + std::to_string(uid) + R"(, "packageName": ")" + package +
           R"(", "version": "1", "permissions": ["com.nimbus.permission.READ_SETTINGS",
           "com.nimbus.permission.WRITE_SETTINGS"], "contents": [)" +
           contents + "]}";
}

}  // namespace

void ReliabilityTest::SetUp() {
    DaemonTest::SetUp();
    mPackagesDir = mRoot.file("packages");
    std::filesystem::create_directories(mPackagesDir);
    writePackage("com.example.alpha.json",
                 packageDocument(kAlphaUid, "com.example.alpha",
                                 integerEntry("alpha_sys", "system", "1") + ", " +
                                         integerEntry("alpha_user", "user", "1") + ", " +
                                         integerEntry("alpha_cross", "crossUser", "1") + ", " +
                                         R"({"key": "alpha_text", "type": "string",
                                         "default": "a", "scope": "system",
                                         "hasWritePermission": true, "isOwner": true})"));
    writePackage("com.example.beta.json", packageDocument(kBetaUid, "com.example.beta",
                                                          integerEntry("beta_sys", "system", "2")));
    writePackage("users.json", R"({"users": [0, 10], "current": 0})");
}

void ReliabilityTest::TearDown() {
    DaemonTest::TearDown();
    if (mAppInfo != nullptr) stopAppInfo(SIGKILL);
}

void ReliabilityTest::startAppInfo() {
    mAppInfo = startLogged(mLogPath,
                           {PREFS_APPINFO, "--packages", mPackagesDir, "--binder-dir", mBinderDir});
    ASSERT_TRUE(waitForSocket(mBinderDir + "/" + kInquirer, *mAppInfo));
}

void ReliabilityTest::stopAppInfo(int signal) {
    mAppInfo->kill(signal);
    mAppInfo->wait();
    mAppInfo.reset();
    unlink((mBinderDir + "/" + kInquirer).c_str());
    unlink((mBinderDir + "/permission").c_str());
}

void ReliabilityTest::startDevice(const std::string& shellPrefix) {
    startAppInfo();
    start({}, shellPrefix);
    // The packages have arrived once alpha's key answers.
    ASSERT_TRUE(eventually([&] { return call({"getType", "alpha_text"}) == "ok 2"; }));
}

std::vector<std::string> ReliabilityTest::hostileArgs(const std::vector<std::string>& args,
                                                      uid_t uid) const {
    std::vector<std::string> argv = {PREFS_HOSTILE_CLIENT};
    argv.insert(argv.end(), args.begin(), args.end());
    return asUid(uid, argv);
}

std::unique_ptr<ChildProcess> ReliabilityTest::hostile(const std::vector<std::string>& args,
                                                       uid_t uid) {
    return std::make_unique<ChildProcess>(hostileArgs(args, uid));
}

void ReliabilityTest::writePackage(const std::string& name, const std::string& text) {
    const std::string temporary = mPackagesDir + "/." + name + ".tmp";
    std::ofstream(temporary) << text;
    // Renamed into place, so the simulator never reads half a file.
    std::filesystem::rename(temporary, mPackagesDir + "/" + name);
}

std::string ReliabilityTest::packageText(uid_t uid, const std::string& package,
                                         const std::vector<std::string>& keys) {
    std::string contents;
    for (const std::string& key : keys) {
        contents += (contents.empty() ? "" : ", ") + integerEntry(key, "system", "0");
    }
    return packageDocument(uid, package, contents);
}

long ReliabilityTest::residentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

int ReliabilityTest::openDescriptors(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
    return count;
}

int ReliabilityTest::countOf(const std::string& text, const std::string& needle) {
    int count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

std::vector<std::string> ReliabilityTest::query(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    std::vector<std::string> rows;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << path << ": " << sql << ": " << sqlite3_errmsg(db);
    }
    while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
        std::string row;
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            const unsigned char* text = sqlite3_column_text(statement, i);
            row += (i > 0 ? "|" : "") +
                   std::string(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        }
        rows.push_back(row);
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

}  // namespace Halo::OS::testing
