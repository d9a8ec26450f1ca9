// The device simulator seen from its listener: this test process registers an app-info listener
// with a running prefs-appinfo and checks every event it sends. (Its permission answers are
// checked through the daemon in ScenarioTest, and their rules in PackageCatalogTest.)
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <nimbus/internal/BnPreferencesAppInfoListener.h>
#include <nimbus/internal/IPreferencesAppInfoInquirer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "e2e/TestPackages.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {
namespace {

using android::String16;
using android::binder::Status;
using nimbus::internal::IPreferencesAppInfoInquirer;

// Records every call as one line of text: "userList 0 10", "currentUser 10",
// "deleteUserData 10", "schema add=1 restart=0 com.a com.b" (the packages of the list).
class RecordingListener : public nimbus::internal::BnPreferencesAppInfoListener {
public:
    Status onSchema(const std::vector<uint8_t>& schema) override {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value list;
        std::string errors;
        const char* text = reinterpret_cast<const char*>(schema.data());
        if (!reader->parse(text, text + schema.size(), &list, &errors)) {
            record("schema (not JSON)");
            return Status::ok();
        }
        std::string line = "schema add=" + std::to_string(list["add"].asBool()) +
                           " restart=" + std::to_string(list["restart"].asBool());
        for (const Json::Value& entry : list["schemas"]) {
            line += " " + entry["packageName"].asString();
            if (!list["add"].asBool()) line += "(" + entry["uid"].asString() + ")";
        }
        record(line);
        return Status::ok();
    }
    Status deleteUserData(int32_t user) override {
        record("deleteUserData " + std::to_string(user));
        return Status::ok();
    }
    Status currentUser(int32_t user) override {
        record("currentUser " + std::to_string(user));
        return Status::ok();
    }
    Status userList(const std::vector<int32_t>& users) override {
        std::string line = "userList";
        for (int32_t user : users) line += " " + std::to_string(user);
        record(line);
        return Status::ok();
    }

    // The next recorded line; "(nothing)" when none comes within a minute.
    std::string next() {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mChanged.wait_for(lock, std::chrono::minutes(1), [this] { return !mLines.empty(); })) {
            return "(nothing)";
        }
        std::string line = mLines.front();
        mLines.pop_front();
        return line;
    }

private:
    void record(const std::string& line) {
        std::lock_guard<std::mutex> lock(mMutex);
        mLines.push_back(line);
        mChanged.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<std::string> mLines;
};

class SimulatorEventsTest : public ::testing::Test {
protected:
    void SetUp() override {
        static std::once_flag started;
        std::call_once(started, [] { android::ProcessState::self()->startThreadPool(); });
        mBinderDir = mRoot.file("binder");
        mPackagesDir = mRoot.file("packages");
        ASSERT_EQ(0, mkdir(mBinderDir.c_str(), 0755));
        ASSERT_EQ(0, mkdir(mPackagesDir.c_str(), 0755));
        setenv("BINDER_DIR", mBinderDir.c_str(), 1);
    }

    void write(const std::string& name, const std::string& text) {
        std::ofstream file(mPackagesDir + "/" + name, std::ios::trunc);
        file << text;
    }

    void start() {
        // Its log (standard error) is read as its output.
        mSimulator = std::make_unique<ChildProcess>(
                std::vector<std::string>{"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1", PREFS_APPINFO,
                                         "--packages", mPackagesDir, "--binder-dir", mBinderDir});
        mInquirer = android::interface_cast<IPreferencesAppInfoInquirer>(
                android::defaultServiceManager()->getService(String16(kInquirerName)));
        ASSERT_NE(nullptr, mInquirer);
        mListener = new RecordingListener;
        bool ok = false;
        ASSERT_TRUE(mInquirer->registerPackageInfoListener(mListener, &ok).isOk());
        ASSERT_TRUE(ok);
    }

    // True once the simulator logs a line holding `fragment`.
    bool logged(const std::string& fragment) {
        while (std::optional<std::string> line = mSimulator->readLine(std::chrono::minutes(1))) {
            if (line->find(fragment) != std::string::npos) return true;
        }
        return false;
    }

    static constexpr const char* kInquirerName = "PreferencesAppInfoInquirer";

    TempDir mRoot;
    std::string mBinderDir;
    std::string mPackagesDir;
    std::unique_ptr<ChildProcess> mSimulator;
    android::sp<IPreferencesAppInfoInquirer> mInquirer;
    android::sp<RecordingListener> mListener;
};

TEST_F(SimulatorEventsTest, RegistrationThenEveryChangeOfTheFolderInOrder) {
    write("alpha.json", TestPackages::alpha());
    write("beta.json", TestPackages::beta());
    write("notes.txt", "not a package");
    write("broken.json", "{\"uid\": 3");
    write("deep.json", std::string(100000, '[') + std::string(100000, ']'));
    start();
    EXPECT_TRUE(logged(mPackagesDir + "/broken.json: not valid JSON"));
    EXPECT_TRUE(logged(mPackagesDir + "/deep.json: not valid JSON: nested deeper than 64 levels"));
    EXPECT_EQ("userList 0", mListener->next());
    EXPECT_EQ("currentUser 0", mListener->next());
    EXPECT_EQ("schema add=1 restart=1 com.test.alpha com.test.beta", mListener->next());

    std::vector<int32_t> users;
    ASSERT_TRUE(mInquirer->getUserList(&users).isOk());
    EXPECT_EQ(std::vector<int32_t>{0}, users);
    ASSERT_TRUE(mInquirer->getFullPackageInfo().isOk());
    EXPECT_EQ("schema add=1 restart=1 com.test.alpha com.test.beta", mListener->next());

    write("gamma.json", TestPackages::gamma(false));
    EXPECT_EQ("schema add=1 restart=0 com.test.gamma", mListener->next());
    write("gamma.json", TestPackages::gamma(true));
    EXPECT_EQ("schema add=1 restart=0 com.test.gamma", mListener->next());
    // The file now declares another package: the old one is removed first.
    write("gamma.json", TestPackages::delta());
    EXPECT_EQ("schema add=0 restart=0 com.test.gamma(10125)", mListener->next());
    EXPECT_EQ("schema add=1 restart=0 com.test.delta", mListener->next());
    // A malformed change sends nothing; the next good one still goes out.
    write("beta.json", "[");
    EXPECT_TRUE(logged("beta.json: not valid JSON"));
    ASSERT_EQ(0, rename((mPackagesDir + "/gamma.json").c_str(),
                        (mPackagesDir + "/.hidden.json").c_str()));
    EXPECT_EQ("schema add=0 restart=0 com.test.delta(10126)", mListener->next());
    ASSERT_EQ(0, unlink((mPackagesDir + "/alpha.json").c_str()));
    EXPECT_EQ("schema add=0 restart=0 com.test.alpha(10123)", mListener->next());

    write("users.json", "{\"users\": [0, 10, 11], \"current\": 11}");
    EXPECT_EQ("userList 0 10 11", mListener->next());
    EXPECT_EQ("currentUser 11", mListener->next());
    write("users.json", "{\"users\": [0, 12], \"current\": 0}");
    EXPECT_EQ("userList 0 12", mListener->next());
    EXPECT_EQ("currentUser 0", mListener->next());
    EXPECT_EQ("deleteUserData 10", mListener->next());
    EXPECT_EQ("deleteUserData 11", mListener->next());
    write("users.json", "{\"users\": [}");
    EXPECT_TRUE(logged("users.json: not valid JSON: "));
    ASSERT_EQ(0, unlink((mPackagesDir + "/users.json").c_str()));
    EXPECT_EQ("userList 0", mListener->next());
    EXPECT_EQ("currentUser 0", mListener->next());
    EXPECT_EQ("deleteUserData 12", mListener->next());
    ASSERT_TRUE(mInquirer->getUserList(&users).isOk());
    EXPECT_EQ(std::vector<int32_t>{0}, users);

    // The beta package kept its last good document through the malformed write.
    ASSERT_TRUE(mInquirer->getFullPackageInfo().isOk());
    EXPECT_EQ("schema add=1 restart=1 com.test.beta", mListener->next());

    bool ok = false;
    ASSERT_TRUE(mInquirer->unregisterPackageInfoListener(&ok).isOk());
    EXPECT_TRUE(ok);
    ASSERT_TRUE(mInquirer->unregisterPackageInfoListener(&ok).isOk());
    EXPECT_FALSE(ok);
}

}  // namespace
}  // namespace Halo::OS::testing
