#include "daemon/DaemonFixture.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "support/JsonText.h"

namespace Halo::OS::testing {
namespace {

std::string testSchema() {
    std::vector<KeyJson> keys = {
            {"test_integer", "integer", "1"},     {"test_long", "long", "2"},
            {"test_float", "float", "3.5"},       {"test_double", "double", "4.25"},
            {"test_boolean", "boolean", "false"}, {"test_string", "string", "five"},
            {"autosleep_time", "integer", "7"},   {"seeded_a", "integer", "1"},
            {"seeded_b", "integer", "1"}};
    for (int i = 0; i < kStreamKeys; ++i) keys.push_back({"stream_" + std::to_string(i)});
    for (KeyJson& key : keys) {
        key.scope = "system";
        key.owner = true;
    }
    return schemaJson(-1, "daemon.test", keys, R"("version": "1", )");
}

}  // namespace

std::unique_ptr<ChildProcess> startLogged(const std::string& logPath,
                                          const std::vector<std::string>& argv, uid_t uid,
                                          const std::string& prefix) {
    std::vector<std::string> shell = {
            "/bin/sh", "-c", prefix + " log=$1; shift; exec \"$@\" >>\"$log\" 2>&1", "sh", logPath};
    const std::vector<std::string> command = asUid(uid, argv);
    shell.insert(shell.end(), command.begin(), command.end());
    return std::make_unique<ChildProcess>(shell);
}

bool waitForSocket(const std::string& path, ChildProcess& process) {
    struct stat st {};
    const auto isSocket = [&] { return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode); };
    eventually([&] {
        siginfo_t info{};
        return isSocket() ||
               (waitid(P_PID, process.pid(), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                info.si_pid != 0);
    });
    return isSocket();
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
    if (HasFailure()) std::cerr << "---- daemon log ----\n" << log();
}

std::vector<std::string> DaemonTest::daemonArgs(const std::vector<std::string>& extra) const {
    std::vector<std::string> args = {PREFERENCESD, "--binder-dir", mBinderDir,
                                     "--data-dir", mDataDir,       "--legacy-dir",
                                     mLegacyDir,   "--config-dir", mConfigDir};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

void DaemonTest::start(const std::vector<std::string>& extra, const std::string& shellPrefix) {
    // A small quarantine: freed memory goes back to the allocator as it would without ASan.
    mDaemon = startLogged(mLogPath, daemonArgs(extra), 0,
                          "ASAN_OPTIONS=\"${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=4\"; "
                          "export ASAN_OPTIONS; " +
                                  shellPrefix);
    ASSERT_TRUE(waitForSocket(socketPath(), *mDaemon));
}

int DaemonTest::killDaemon(int signal) {
    if (mDaemon == nullptr) return -1;
    mDaemon->kill(signal);
    const int status = mDaemon->wait();
    mDaemon.reset();
    if (signal == SIGKILL) unlink(socketPath().c_str());
    return status;
}

void DaemonTest::stop() {
    ASSERT_NE(nullptr, mDaemon);
    const int status = killDaemon(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    struct stat st {};
    // SQLite removes the write-ahead log when the last connection closes the database.
    EXPECT_NE(0, stat((mDataDir + "/system.db-wal").c_str(), &st)) << "the store was not closed";
    EXPECT_NE(0, stat(socketPath().c_str(), &st)) << "the socket outlived the daemon";
}

std::vector<std::string> DaemonTest::clientArgs(const std::vector<std::string>& ops,
                                                uid_t uid) const {
    std::vector<std::string> args = {PREFS_TEST_CLIENT, kService};
    args.insert(args.end(), ops.begin(), ops.end());
    return asUid(uid, args);
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

std::string readFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

}  // namespace Halo::OS::testing
