#include "daemon/DaemonFixture.h"

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

constexpr auto kClientTimeout = std::chrono::seconds(60);
constexpr auto kStartTimeout = std::chrono::seconds(120);

std::string entry(const std::string& key, const std::string& type, const std::string& def) {
    return R"({"key": ")" + key + R"(", "type": ")" + type + R"(", "default": ")" + def +
           R"(", "scope": "system", "hasWritePermission": true, "isOwner": true})";
}

std::string testSchema() {
    std::string contents =
            entry("test_integer", "integer", "1") + ",\n" + entry("test_long", "long", "2") +
            ",\n" + entry("test_float", "float", "3.5") + ",\n" +
            entry("test_double", "double", "4.25") + ",\n" +
            entry("test_boolean", "boolean", "false") + ",\n" +
            entry("test_string", "string", "five") + ",\n" +
            entry("autosleep_time", "integer", "7") + ",\n" + entry("seeded_a", "integer", "1") +
            ",\n" + entry("seeded_b", "integer", "1");
    for (int i = 0; i < kStreamKeys; ++i) {
        contents += ",\n" + entry("stream_" + std::to_string(i), "integer", "0");
    }
    return R"({"packageName": "daemon.test", "version": "1", "contents": [)" + contents + "]}";
}

}  // namespace

std::vector<std::string> asUid(uid_t uid, std::vector<std::string> argv) {
    if (uid == 0) return argv;
    std::vector<std::string> wrapped = {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid),
                                        "--regid=" + std::to_string(uid), "--clear-groups"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return wrapped;
}

DaemonProcess::DaemonProcess(const std::vector<std::string>& args, const std::string& logPath,
                             uid_t uid)
    : mChild([&] {
          std::vector<std::string> argv = {
                  "/bin/sh", "-c", "log=$1; shift; exec \"$@\" >>\"$log\" 2>&1", "sh", logPath};
          const std::vector<std::string> command = asUid(uid, args);
          argv.insert(argv.end(), command.begin(), command.end());
          return argv;
      }()) {}

bool DaemonProcess::waitForSocket(const std::string& socket) {
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        struct stat st {};
        if (stat(socket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
        siginfo_t info{};
        if (waitid(P_PID, pid(), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int DaemonProcess::stop(int signal) {
    mChild.kill(signal);
    return mChild.wait();
}

void DaemonTest::SetUp() {
    // Clients and daemons under app uids must reach the service directory through this one.
    chmod(mRoot.path().c_str(), 0755);
    mBinderDir = mRoot.file("binder");
    mDataDir = mRoot.file("var/preferences");
    mLegacyDir = mRoot.file("legacy");
    mConfigDir = mRoot.file("config");
    mLogPath = mRoot.file("daemon.log");
    setenv("BINDER_DIR", mBinderDir.c_str(), 1);

    namespace fs = std::filesystem;
    fs::create_directories(mConfigDir + "/native");
    const fs::path example(PREFS_EXAMPLE_CONFIG_DIR);
    fs::copy(example / "native", mConfigDir + "/native");
    fs::copy_file(example / "legacy-keys.json", mConfigDir + "/legacy-keys.json");
    std::ofstream(mConfigDir + "/native/daemon.test.json") << testSchema();
}

void DaemonTest::TearDown() {
    if (mDaemon != nullptr) stop();
}

std::vector<std::string> DaemonTest::daemonArgs(const std::vector<std::string>& extra) const {
    std::vector<std::string> args = {PREFERENCESD, "--binder-dir", mBinderDir,
                                     "--data-dir", mDataDir,       "--legacy-dir",
                                     mLegacyDir,   "--config-dir", mConfigDir};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

void DaemonTest::start(const std::vector<std::string>& extra) {
    mDaemon = std::make_unique<DaemonProcess>(daemonArgs(extra), mLogPath);
    ASSERT_TRUE(mDaemon->waitForSocket(socketPath())) << log();
}

void DaemonTest::stop() {
    ASSERT_NE(nullptr, mDaemon);
    const int status = mDaemon->stop(SIGTERM);
    mDaemon.reset();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << "\n"
                                                               << log();
    struct stat st {};
    // SQLite removes the write-ahead log when the last connection closes the database.
    EXPECT_NE(0, stat((mDataDir + "/system.db-wal").c_str(), &st)) << "the store was not closed";
    EXPECT_NE(0, stat(socketPath().c_str(), &st)) << "the socket outlived the daemon";
}

std::vector<std::string> DaemonTest::clientArgs(const std::vector<std::string>& ops) const {
    std::vector<std::string> args = {PREFS_TEST_CLIENT, kService};
    args.insert(args.end(), ops.begin(), ops.end());
    return args;
}

std::vector<std::string> DaemonTest::client(const std::vector<std::string>& ops, uid_t uid) {
    ChildProcess process(asUid(uid, clientArgs(ops)));
    std::vector<std::string> lines;
    while (auto line = process.readLine(kClientTimeout)) lines.push_back(*line);
    const int status = process.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "client status " << status;
    return lines;
}

std::string DaemonTest::call(const std::vector<std::string>& op, uid_t uid) {
    const std::vector<std::string> lines = client(op, uid);
    EXPECT_EQ(1u, lines.size());
    return lines.empty() ? "" : lines.front();
}

std::string DaemonTest::dump(const std::vector<std::string>& args, uid_t uid) {
    std::vector<std::string> op = {"dump", std::to_string(args.size())};
    op.insert(op.end(), args.begin(), args.end());
    std::string text;
    for (const std::string& line : client(op, uid)) text += line + "\n";
    return text;
}

std::string DaemonTest::log() const {
    std::ifstream file(mLogPath);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace Halo::OS::testing
