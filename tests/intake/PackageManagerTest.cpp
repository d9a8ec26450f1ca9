#include "intake/PreferencesPackageManager.h"

#include <binder/ProcessState.h>
#include <cutils/multiuser.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <signal.h>
#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <thread>

#include "intake/PreferencesVersionManager.h"
#include "store/DirectoryPreferencesDb.h"
#include "support/ChildProcess.h"
#include "support/FdCapture.h"
#include "support/LogCapture.h"
#include "support/SchemaList.h"
#include "support/TempDir.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using android::binder::Status;
using testing::ChildProcess;
using testing::TempDir;

using testing::eventually;

constexpr auto kWait = std::chrono::seconds(10);

std::vector<uint8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

// A schema list that adds (or removes) one package declaring integer keys with default 7.
std::string schemaList(bool add, const std::string& package, int uid,
                       const std::vector<std::string>& keys) {
    std::vector<testing::KeyJson> entries;
    for (const std::string& key : keys) entries.push_back({key, "integer", "7"});
    return testing::schemaListJson(add, {testing::schemaJson(uid, package, entries)});
}

// The app-info stand-in (AppInfoServiceProcess.cpp), commanded through a named pipe.
class AppInfoProcess {
public:
    explicit AppInfoProcess(const std::string& pipe)
        : mChild((mkfifo(pipe.c_str(), 0600), std::vector<std::string>{APPINFO_SERVICE, pipe})) {
        // A client that is already retrying may register before "ready" is printed.
        const auto read = [&] { return mChild.readLine(kWait).value_or("<nothing>"); };
        for (std::string line = read(); line != "ready"; line = read()) {
            if (line == "<nothing>") {
                ADD_FAILURE() << "the app-info stand-in did not start";
                return;
            }
            mEarly.push_back(line);
        }
        for (auto deadline = std::chrono::steady_clock::now() + kWait;
             (mCommands = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0 &&
             std::chrono::steady_clock::now() < deadline;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        fcntl(mCommands, F_SETFL, 0);
    }
    ~AppInfoProcess() { close(mCommands); }

    // Sends one command; the answer is "sent" once the stand-in made the call.
    std::string command(const std::string& command) {
        const std::string line = command + "\n";
        if (write(mCommands, line.data(), line.size()) != ssize_t(line.size())) return "<error>";
        return next();
    }
    void send(const std::string& line) { EXPECT_EQ("sent", command(line)) << line; }
    void signal(int signal) { mChild.kill(signal); }
    std::string next() {
        if (mEarly.empty()) return mChild.readLine(kWait).value_or("<nothing>");
        std::string line = mEarly.front();
        mEarly.pop_front();
        return line;
    }
    void kill() {
        mChild.kill();
        mChild.wait();
    }

private:
    ChildProcess mChild;
    std::deque<std::string> mEarly;
    int mCommands = -1;
};

class PackageManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("BINDER_DIR", mBinderDir.path().c_str(), 1);
        // One-way calls and death notices are served by the pool.
        android::ProcessState::self()->startThreadPool();
        mKeyManager = std::make_shared<PreferencesKeyManager>(
                std::make_unique<DirectoryPreferencesDb>(mDataDir.path()));
    }
    void TearDown() override {
        mManager.reset();
        mAppInfo.reset();
        mKeyManager.reset();
    }

    void startAppInfo() { mAppInfo = std::make_unique<AppInfoProcess>(mPipeDir.file("pipe")); }

    std::string dump() {
        return testing::capturedText([&](int fd) { EXPECT_TRUE(mManager->dump(fd)); });
    }
    static std::string expectedDump(bool running, bool listening) {
        return std::string(
                       "  PreferencesPackageManager properties:\n"
                       "    Schema Queue Terminated:     False\n"
                       "      Connection Thread Running:   ") +
               (running ? "True" : "False") + "\n      AppInfoSerivce Connected:    True\n" +
               "      Listening to AppInfoSerivce: " + (listening ? "True" : "False") + "\n";
    }
    bool listening() { return dump().find("AppInfoSerivce: True") != std::string::npos; }

    // The value of integer `key` for `uid`; empty when the key is not declared.
    std::string value(const std::string& key, uid_t uid = 0) {
        std::string out;
        const int status = mKeyManager->getWithoutPermissionCheck(
                key, out, PreferencesKeyInfo::Type::Integer, uid);
        return status == 0 ? out : "";
    }
    bool declared(const std::string& key) { return !value(key).empty(); }

    TempDir mBinderDir, mDataDir, mPipeDir;
    std::shared_ptr<PreferencesKeyManager> mKeyManager;
    std::unique_ptr<AppInfoProcess> mAppInfo;
    std::unique_ptr<PreferencesPackageManager> mManager;
};

TEST_F(PackageManagerTest, StartsOnceStopsAndStartsAgain) {
    startAppInfo();
    mManager = std::make_unique<PreferencesPackageManager>(mKeyManager, false);
    EXPECT_EQ(expectedDump(false, false), dump());

    // The first connection attempt, registration included, is over when start() returns.
    ASSERT_TRUE(mManager->start());
    EXPECT_EQ("registered 1", mAppInfo->next());
    EXPECT_EQ(expectedDump(true, true), dump());
    // A second start makes no client (no registration) and no thread. The Binder pool may start
    // threads on its own meanwhile; they carry "binder:" names once they run, so a thread is
    // counted as new only if it still has another name a moment later.
    const auto namedOther = [](const std::string& tid) {
        std::ifstream comm("/proc/self/task/" + tid + "/comm");
        std::string name;
        return std::getline(comm, name) && name.rfind("binder:", 0) != 0;
    };
    const auto others = [&] {
        std::set<std::string> tids;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const std::string tid = task.path().filename();
            if (namedOther(tid)) tids.insert(tid);
        }
        return tids;
    };
    const std::set<std::string> before = others();
    EXPECT_FALSE(mManager->start());
    std::vector<std::string> added;
    for (const std::string& tid : others()) {
        if (before.count(tid) == 0) added.push_back(tid);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (const std::string& tid : added) EXPECT_FALSE(namedOther(tid)) << "new thread " << tid;

    mAppInfo->send("schema " + schemaList(true, "com.example.one", 10001, {"one.a"}));
    ASSERT_TRUE(eventually([&] { return declared("one.a"); }));

    mManager->stop();
    EXPECT_EQ("unregistered 1", mAppInfo->next());
    EXPECT_EQ(expectedDump(false, false), dump());
    EXPECT_EQ("no listener", mAppInfo->command("schema {}"));
    EXPECT_EQ("7", value("one.a"));  // the list that woke the worker removed nothing

    mManager->stop();
    ASSERT_TRUE(mManager->start());
    EXPECT_EQ("registered 2", mAppInfo->next());  // the second stop did not unregister again
    mAppInfo->send("schema " + schemaList(true, "com.example.two", 10002, {"two.a"}));
    ASSERT_TRUE(eventually([&] { return declared("two.a"); }));
    EXPECT_EQ(expectedDump(true, true), dump());
}

TEST_F(PackageManagerTest, SchemasBecomeKeysAndMalformedOnesChangeNothing) {
    // No app-info service at all: the manager runs and keeps trying in the background.
    mManager = std::make_unique<PreferencesPackageManager>(mKeyManager);
    EXPECT_EQ(expectedDump(true, false), dump());
    const auto processed = [] { return Telemetry::count("schema_process_success"); };

    EXPECT_TRUE(
            mManager->onSchema(bytesOf(schemaList(true, "com.a", 10001, {"a.1", "a.2"}))).isOk());
    ASSERT_TRUE(eventually([&] { return declared("a.1") && declared("a.2"); }));
    uint64_t before = processed();
    EXPECT_TRUE(mManager->onSchema(bytesOf("{}")).isOk());  // an empty list, harmless
    ASSERT_TRUE(eventually([&] { return processed() == before + 1; }));

    std::vector<std::vector<uint8_t>> malformed = {
            bytesOf(R"({"add": true, "schemas": [)"), bytesOf(""),
            bytesOf(std::string(100000, '[')),  // deeper than the JSON reader's stack limit
            bytesOf(std::string("{\"add\": tru\0e}", 14))};
    const uint64_t jsonErrors = Telemetry::count("onschema_json_error");
    before = processed();
    {
        testing::LogCapture log;
        for (const auto& bytes : malformed) {
            EXPECT_EQ(Status::EX_BAD_PARCELABLE, mManager->onSchema(bytes).exceptionCode());
        }
        EXPECT_TRUE(log.contains("Incoming schema list format has error, ignore"));
    }
    EXPECT_EQ(jsonErrors + malformed.size(), Telemetry::count("onschema_json_error"));
    // Lists are applied in order: once the next good one is, a queued bad one would have been.
    ASSERT_TRUE(mManager->onSchema(bytesOf(schemaList(true, "com.b", 10002, {"b.1"}))).isOk());
    ASSERT_TRUE(eventually([&] { return declared("b.1"); }));
    EXPECT_EQ(before + 1, processed());

    ASSERT_TRUE(mManager->onSchema(bytesOf(schemaList(false, "com.a", 10001, {}))).isOk());
    ASSERT_TRUE(eventually([&] { return !declared("a.1") && !declared("a.2"); }));
    EXPECT_TRUE(declared("b.1"));

    // The app-info service may call the listener after the manager is gone.
    const android::sp<PreferencesPackageManager::AppInfoListener> listener = mManager->listener();
    mManager.reset();
    EXPECT_EQ(Status::EX_ILLEGAL_STATE, listener->onSchema(bytesOf("{}")).exceptionCode());
    EXPECT_EQ(Status::EX_ILLEGAL_STATE, listener->currentUser(3).exceptionCode());
}

TEST_F(PackageManagerTest, ListensWheneverTheAppInfoServiceIsBack) {
    // Nothing published yet: the manager runs, not listening, and keeps looking.
    mManager = std::make_unique<PreferencesPackageManager>(mKeyManager);
    EXPECT_EQ(expectedDump(true, false), dump());
    const uint64_t losses = Telemetry::count("connection_to_appinfo_service_lost");

    for (int round = 0; round < 3; ++round) {
        startAppInfo();
        EXPECT_EQ("registered 1", mAppInfo->next());
        ASSERT_TRUE(eventually([&] { return listening(); }));
        const std::string key = "back." + std::to_string(round);
        mAppInfo->send("schema " + schemaList(true, "com.example.back", 10004, {key}));
        ASSERT_TRUE(eventually([&] { return declared(key); }));

        mAppInfo->kill();
        ASSERT_TRUE(eventually([&] { return !listening(); }));
        EXPECT_EQ(expectedDump(true, false), dump());
        // At least once per kill: a retry may also reach the dying process (its listening
        // socket outlives its connections for a moment) and lose that connection too.
        EXPECT_LE(losses + round + 1, Telemetry::count("connection_to_appinfo_service_lost"));
    }
}

TEST_F(PackageManagerTest, UserEventsReachTheKeyManager) {
    const std::string schemas = R"({"add": true, "schemas": [{"uid": 1000, "packageName":
        "nimbus.core", "contents": [{"key": "current_user", "type": "integer", "default": "0",
        "hasWritePermission": true, "scope": "system", "isOwner": true}, {"key": "users.k",
        "type": "integer", "default": "0", "hasWritePermission": true, "scope": "user"}]}]})";
    ASSERT_TRUE(mKeyManager->process(testing::schemaList(schemas), KeySourceDomain::Legacy));
    for (unsigned int user : {10u, 11u, 12u}) {
        ASSERT_EQ(0,
                  mKeyManager->setWithoutCallback("users.k", "5", PreferencesKeyInfo::Type::Integer,
                                                  multiuser_get_uid(user, 1000)));
    }
    const auto exists = [&](const char* file) {
        return access(mDataDir.file(file).c_str(), 0) == 0;
    };
    ASSERT_TRUE(exists("user11.db") && exists("user12.db"));

    startAppInfo();
    mManager = std::make_unique<PreferencesPackageManager>(mKeyManager);
    EXPECT_EQ("registered 1", mAppInfo->next());
    mAppInfo->send("current 10");
    ASSERT_TRUE(eventually([&] { return value("current_user") == "10"; }));
    EXPECT_EQ(10u, mKeyManager->getCurrentUser());
    mAppInfo->send("users 0 10 12");
    ASSERT_TRUE(eventually([&] { return !exists("user11.db"); }));
    mAppInfo->send("delete 12");
    ASSERT_TRUE(eventually([&] { return !exists("user12.db"); }));
    EXPECT_EQ("5", value("users.k", multiuser_get_uid(10, 1000)));

    // Results map to statuses: 0 is ok, a failure is its service-specific code.
    EXPECT_TRUE(mManager->currentUser(0).isOk());
    const Status failed = mManager->deleteUserData(77);
    EXPECT_EQ(Status::EX_SERVICE_SPECIFIC, failed.exceptionCode());
    EXPECT_EQ(-15, failed.serviceSpecificErrorCode());
}

// A host holds the events until its start-up steps have run: the current user that the app-info
// service sends at once is applied after "current_user" is declared, not refused before it.
TEST_F(PackageManagerTest, HeldEventsWaitForTheStartupSteps) {
    startAppInfo();
    mManager = std::make_unique<PreferencesPackageManager>(mKeyManager, false);
    mManager->holdEvents();
    mManager->start();
    EXPECT_EQ("registered 1", mAppInfo->next());
    mAppInfo->send("current 10");
    // The call is one-way: give an event that is not held the time to be applied (and refused)
    // before the steps run.
    eventually([&] { return mKeyManager->getCurrentUser() == 10; }, std::chrono::seconds(2));
    ASSERT_TRUE(PreferencesVersionManager(mKeyManager).upgradeToLatestVersion());
    mManager->releaseEvents();
    EXPECT_TRUE(eventually([&] { return value("current_user") == "10"; }));
    EXPECT_EQ(10u, mKeyManager->getCurrentUser());
}

// A stopped app-info service delays the unregistration by the call limit at most; it completes
// once the service runs again. (A stopped one at registration: DaemonLifecycleTest.)
TEST_F(PackageManagerTest, AStoppedAppInfoServiceDoesNotBlockStop) {
    startAppInfo();
    mManager = std::make_unique<PreferencesPackageManager>(mKeyManager);
    EXPECT_EQ("registered 1", mAppInfo->next());
    ASSERT_TRUE(eventually([&] { return listening(); }));
    mAppInfo->signal(SIGSTOP);
    mManager->stop();
    mManager.reset();
    mAppInfo->signal(SIGCONT);
    EXPECT_EQ("unregistered 1", mAppInfo->next());
}

TEST_F(PackageManagerTest, DestructionWhileTheAppInfoServiceFlapsNeitherCrashesNorHangs) {
    // App-info processes living a few milliseconds each, one after the other: registrations,
    // deaths and reconnections keep arriving on Binder threads and the connection thread.
    std::atomic<bool> flapping{true};
    std::thread flapper([&] {
        for (unsigned int i = 0; flapping; ++i) {
            ChildProcess({APPINFO_SERVICE, "--exit-after-ms", std::to_string(i * 7 % 25)}).wait();
        }
    });
    for (int round = 0; round < 60; ++round) {
        auto manager = std::make_unique<PreferencesPackageManager>(mKeyManager);
        if (round % 3 == 0) manager->onSchema(bytesOf(schemaList(true, "com.f", 10006, {"f.1"})));
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 11 % 20));
        if (round % 4 == 0) {
            manager->stop();
            manager->start();
        }
    }
    flapping = false;
    flapper.join();
}

}  // namespace
}  // namespace Halo::OS
