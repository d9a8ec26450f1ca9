// Apps that reach for the services the daemon trusts: an impostor serving "permission" and
// "PreferencesAppInfoInquirer" in a service directory that became writable, an app calling the
// app-info service's system methods, and a user database planted by an app.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "reliability/ReliabilityTest.h"
#include "support/JsonText.h"

namespace Halo::OS::testing {
namespace {

using TrustTest = ReliabilityTest;

// An app that declares gamma_sys but holds no OS permission: the permission service refuses its
// writes.
constexpr uid_t kGammaUid = 10059;

TEST_F(TrustTest, ImpostorServicesInAnOpenServiceDirectoryAreNotTrusted) {
    writePackage("com.example.gamma.json",
                 schemaJson(kGammaUid, "com.example.gamma",
                            {{"gamma_sys", "integer", "1", "system", true, true}},
                            R"("version": "1", "permissions": [], )"));
    startDevice();
    ASSERT_EQ("error -7", call({"setInteger", "gamma_sys", "5"}, kGammaUid));

    // The directory became writable for everyone; the app-info service restarts, and an app
    // takes both of its names first.
    ASSERT_EQ(0, chmod(mBinderDir.c_str(), 01777));
    stopAppInfo(SIGKILL);
    std::unique_ptr<ChildProcess> impostor = hostile({"impostor"}, kAppUid);
    ASSERT_EQ("serving", impostor->readLine(std::chrono::minutes(2)).value_or("none"));
    const std::string ignored =
            "Binder: ignoring the service PreferencesAppInfoInquirer: it is "
            "served by uid " +
            std::to_string(kAppUid);
    ASSERT_TRUE(eventually([&] { return log().find(ignored) != std::string::npos; })) << log();
    EXPECT_EQ("error -7", call({"setInteger", "gamma_sys", "5"}, kGammaUid));
    EXPECT_NE(std::string::npos, log().find("Binder: ignoring the service permission: it is "
                                            "served by uid " +
                                            std::to_string(kAppUid)));
    // The package manager retries every 50 ms; the log says it once.
    EXPECT_EQ(1, countOf(log(), ignored));
    impostor->kill(SIGKILL);
    impostor->wait();
    EXPECT_EQ("none", impostor->readLine(std::chrono::minutes(2)).value_or("none"))
            << "the daemon asked the impostor";

    // prefs-appinfo itself refuses such a directory; in a closed one the real services return
    // and are trusted again.
    unlink((mBinderDir + "/" + kInquirer).c_str());
    unlink((mBinderDir + "/permission").c_str());
    const int status = startLogged(mLogPath, {PREFS_APPINFO, "--packages", mPackagesDir,
                                              "--binder-dir", mBinderDir})
                               ->wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_NE(std::string::npos,
              log().find("prefs-appinfo: socket directory " + mBinderDir +
                         " may be written by users other than its owner (uid 0, mode 1777)\n"));
    ASSERT_EQ(0, chmod(mBinderDir.c_str(), 0755));
    startAppInfo();
    EXPECT_TRUE(eventually([&] {
        return call({"setInteger", "alpha_sys", "6"}, kAlphaUid) == "ok";
    }));
    EXPECT_EQ("error -7", call({"setInteger", "gamma_sys", "5"}, kGammaUid));
    EXPECT_EQ("ok 1", call({"getInteger", "gamma_sys"}));
}

TEST_F(TrustTest, OnlySystemUidsRegisterUnregisterOrRequestPackagesOfTheAppInfoService) {
    startDevice();
    for (uid_t uid : {kAlphaUid, kAppUid, 1001u}) {
        for (const char* method : {"unregisterPackageInfoListener", "registerPackageInfoListener",
                                   "getFullPackageInfo"}) {
            EXPECT_EQ(std::string(method) + " exception -1", call({"inquirer", method}, uid))
                    << uid;
            EXPECT_NE(std::string::npos,
                      log().find("prefs-appinfo: refused " + std::string(method) + " from uid " +
                                 std::to_string(uid)));
        }
        EXPECT_EQ("getUserList ok", call({"inquirer", "getUserList"}, uid));
    }
    EXPECT_EQ("getFullPackageInfo ok", call({"inquirer", "getFullPackageInfo"}, 1000));

    // The daemon still listens and receives a package installed now.
    EXPECT_NE(std::string::npos, dump({"nodb"}).find("Listening to AppInfoSerivce: True"));
    writePackage("com.example.delta.json", packageText(10060, "com.example.delta", {"delta_sys"}));
    EXPECT_TRUE(eventually([&] { return call({"getType", "delta_sys"}) == "ok 0"; }));
}

TEST_F(TrustTest, AUserDatabasePlantedByAnAppIsNotOpened) {
    ASSERT_TRUE(std::filesystem::create_directories(mDataDir));
    ASSERT_EQ(0, chmod(mDataDir.c_str(), 0700));
    const std::string planted = mDataDir + "/user10.db";
    // A database the app could read and rewrite behind the service's back.
    query(planted, "CREATE TABLE planted (x)");
    ASSERT_EQ(0, chown(planted.c_str(), kAlphaUid, kAlphaUid));
    startDevice();

    EXPECT_EQ("error -8", call({"setIntegerUser", "alpha_user", "3", "10"}));
    EXPECT_EQ("error -9", call({"getIntegerUser", "alpha_user", "10"}));
    EXPECT_NE(std::string::npos, log().find("Refusing to open " + planted)) << log();
    EXPECT_EQ(std::vector<std::string>{"planted"},
              query(planted, "SELECT name FROM sqlite_master"));
    struct stat st {};
    ASSERT_EQ(0, stat(planted.c_str(), &st));
    EXPECT_EQ(kAlphaUid, st.st_uid);
    // Everybody else is served.
    EXPECT_EQ("ok", call({"setIntegerUser", "alpha_user", "4", "0"}));
    EXPECT_EQ("ok 4", call({"getIntegerUser", "alpha_user", "0"}, kAlphaUid));
}

}  // namespace
}  // namespace Halo::OS::testing
