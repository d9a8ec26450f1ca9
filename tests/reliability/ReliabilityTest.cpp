#include "reliability/ReliabilityTest.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/JsonText.h"

namespace Halo::OS::testing {
namespace {

// Both settings permissions, for the package files of the test device.
constexpr const char* kPermissions =
        R"("version": "1", "permissions": ["com.nimbus.permission.READ_SETTINGS",
        "com.nimbus.permission.WRITE_SETTINGS"], )";

}  // namespace

void ReliabilityTest::SetUp() {
    DaemonTest::SetUp();
    mPackagesDir = mRoot.file("packages");
    std::filesystem::create_directories(mPackagesDir);
    writePackage("com.example.alpha.json",
                 schemaJson(kAlphaUid, "com.example.alpha",
                            {{"alpha_sys", "integer", "1", "system", true, true},
                             {"alpha_user", "integer", "1", "user", true, true},
                             {"alpha_cross", "integer", "1", "crossUser", true, true},
                             {"alpha_text", "string", "a", "system", true, true}},
                            kPermissions));
    writePackage("com.example.beta.json",
                 schemaJson(kBetaUid, "com.example.beta",
                            {{"beta_sys", "integer", "2", "system", true, true}}, kPermissions));
    writePackage("users.json", R"({"users": [0, 10], "current": 0})");
}

void ReliabilityTest::TearDown() {
    DaemonTest::TearDown();
    if (mAppInfo != nullptr) stopAppInfo(SIGKILL);
}

void ReliabilityTest::startAppInfo() {
    // The daemon's small ASan quarantine, so that its resident size means the same.
    mAppInfo = startLogged(
            mLogPath, {PREFS_APPINFO, "--packages", mPackagesDir, "--binder-dir", mBinderDir}, 0,
            "ASAN_OPTIONS=\"${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=4\"; "
            "export ASAN_OPTIONS; ");
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

void ReliabilityTest::writePackage(const std::string& name, const std::string& text) {
    const std::string temporary = mPackagesDir + "/." + name + ".tmp";
    std::ofstream(temporary) << text;
    // Renamed into place, so the simulator never reads half a file.
    std::filesystem::rename(temporary, mPackagesDir + "/" + name);
}

std::string ReliabilityTest::packageText(uid_t uid, const std::string& package,
                                         const std::vector<std::string>& keys) {
    std::vector<KeyJson> entries;
    for (const std::string& key : keys)
        entries.push_back({key, "integer", "0", "system", true, true});
    return schemaJson(uid, package, entries, kPermissions);
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

}  // namespace Halo::OS::testing
