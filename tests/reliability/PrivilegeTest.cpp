// Who may do what: an app cannot unregister another app's listener; the store's files are closed
// to other local users while the service socket is open to all. (Which app may read or write
// which key is tested in KeyManagerAccessTest and, through the real processes, in ScenarioTest.)
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "reliability/ReliabilityTest.h"

namespace Halo::OS::testing {
namespace {

using PrivilegeTest = ReliabilityTest;

TEST_F(PrivilegeTest, AnAppCannotUnregisterAnotherAppsListener) {
    startDevice();
    // Apps publish their listeners in this test, so they may create sockets in the directory.
    ASSERT_EQ(0, chmod(mBinderDir.c_str(), 01777));
    std::unique_ptr<ChildProcess> alpha =
            hostile({"watch", "alpha_sys", "alpha.listener"}, kAlphaUid);
    ASSERT_EQ("registered ok", alpha->readLine(std::chrono::minutes(2)).value_or("none"));

    // Beta without listeners of its own, then with one.
    EXPECT_NE("unregister ok", client({"unregister", "alpha.listener"}, kBetaUid).at(0));
    std::unique_ptr<ChildProcess> beta = hostile({"watch", "beta_sys", "-"}, kBetaUid);
    ASSERT_EQ("registered ok", beta->readLine(std::chrono::minutes(2)).value_or("none"));
    EXPECT_NE("unregister ok", client({"unregister", "alpha.listener"}, kBetaUid).at(0));

    // Alpha still hears its key, and beta its own.
    ASSERT_EQ("ok", call({"setInteger", "alpha_sys", "5"}));
    EXPECT_EQ("changed alpha_sys", alpha->readLine(std::chrono::minutes(2)).value_or("none"));
    ASSERT_EQ("ok", call({"setInteger", "beta_sys", "5"}));
    EXPECT_EQ("changed beta_sys", beta->readLine(std::chrono::minutes(2)).value_or("none"));

    EXPECT_EQ(1, countOf(dump({"nodb"}), "uid: 10057,"));

    // Alpha's own request is honoured: the refusals were about the caller. (A proxy relayed by
    // another process is that process's object, so only alpha itself can name its listener.)
    alpha->kill(SIGUSR1);
    EXPECT_EQ("unregister ok", alpha->readLine(std::chrono::minutes(2)).value_or("none"));
    EXPECT_EQ(0, countOf(dump({"nodb"}), "uid: 10057,"));
}

TEST_F(PrivilegeTest, StoreFilesAreClosedToOtherUsersAndTheSocketIsOpen) {
    // A data directory made beforehand with an open mode, as packaging might leave it.
    ASSERT_TRUE(std::filesystem::create_directories(mDataDir));
    ASSERT_EQ(0, chmod(mDataDir.c_str(), 0755));
    startDevice();
    ASSERT_EQ("ok", call({"setIntegerUser", "alpha_user", "3", "10"}));

    struct stat st {};
    ASSERT_EQ(0, stat((mBinderDir + "/" + kService).c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0666u, st.st_mode & 0777);

    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(mDataDir)) {
        files.push_back(entry.path().filename());
        ASSERT_EQ(0, stat(entry.path().c_str(), &st));
        EXPECT_EQ(0u, st.st_mode & 077)
                << entry.path() << " has mode " << std::oct << (st.st_mode & 0777);
    }
    EXPECT_NE(files.end(), std::find(files.begin(), files.end(), "system.db"));
    EXPECT_NE(files.end(), std::find(files.begin(), files.end(), "user10.db"));

    // What counts: an app cannot read the databases, whatever the directory's mode.
    for (const char* name : {"system.db", "user0.db", "user10.db"}) {
        const std::string path = mDataDir + "/" + name;
        const std::string command =
                "/usr/bin/setpriv --reuid=10057 --regid=10057 --clear-groups "
                "/bin/cat '" +
                path + "' >/dev/null 2>&1";
        EXPECT_NE(0, system(command.c_str())) << name;
    }
}

}  // namespace
}  // namespace Halo::OS::testing
