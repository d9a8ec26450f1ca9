// prefs (and the client library under it) only trusts a PreferencesService served by root, its
// own uid or a uid it is told to trust, and refuses a service directory others may write.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "e2e/CommandResult.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {
namespace {

constexpr uid_t kAppUid = 10123;

TEST(TrustedServiceTest, PrefsTrustsOnlyServicesOfTrustedUidsInADirectoryOthersCannotWrite) {
    // A daemon run by an app, in directories of that app.
    TempDir root;
    ASSERT_EQ(0, chmod(root.path().c_str(), 0755));
    const std::string app = root.file("app");
    const std::string binder = app + "/binder";
    for (const std::string& dir : {app, binder}) {
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
        ASSERT_EQ(0, chown(dir.c_str(), kAppUid, kAppUid));
    }
    ChildProcess daemon(asUid(
            kAppUid, {PREFERENCESD, "--binder-dir", binder, "--data-dir", app + "/data",
                      "--legacy-dir", app + "/legacy", "--config-dir", PREFS_EXAMPLE_CONFIG_DIR}));
    struct stat st {};
    ASSERT_TRUE(
            eventually([&] { return stat((binder + "/PreferencesService").c_str(), &st) == 0; }));

    const std::vector<std::string> type = {PREFS_TOOL, "--binder-dir", binder, "type",
                                           "audio_master_volume_step"};
    const auto run = [&](const std::vector<std::string>& before, uid_t uid,
                         const std::vector<std::string>& options = {}) {
        std::vector<std::string> argv = type;
        argv.insert(argv.begin() + 1, options.begin(), options.end());
        argv = asUid(uid, argv);
        argv.insert(argv.begin(), before.begin(), before.end());
        return CommandResult::run(argv);
    };
    CommandResult untrusted = run({}, 0);
    EXPECT_EQ(3, untrusted.status);
    EXPECT_NE(std::string::npos, untrusted.err.find("Binder: ignoring the service "
                                                    "PreferencesService: it is served by uid "
                                                    "10123"))
            << untrusted.err;
    for (const CommandResult& trusted :
         {run({}, 0, {"--trusted-uid", "10123"}),
          run({"/usr/bin/env", "PREFS_TRUSTED_UIDS=1000,10123"}, 0)}) {
        EXPECT_EQ(0, trusted.status) << trusted.err;
        EXPECT_EQ("integer\n", trusted.out);
    }
    // The app trusts its own daemon, which answers it (the key is not the app's to read).
    const std::string answered =
            "prefs: type audio_master_volume_step: no permission for this key (service-specific "
            "error -3): the app's permission for this key does not allow the operation\n";
    EXPECT_EQ(answered, run({}, kAppUid).err);

    // Open to everyone: only its owner still uses it, with a warning.
    ASSERT_EQ(0, chmod(binder.c_str(), 0777));
    CommandResult refused = run({}, 0, {"--trusted-uid", "10123"});
    EXPECT_EQ(3, refused.status);
    EXPECT_EQ("prefs: socket directory " + binder +
                      " may be written by users other than its owner (uid 10123, mode 0777)\n",
              refused.err);
    EXPECT_EQ("prefs: warning: socket directory " + binder +
                      " may be written by users other than its owner (uid 10123, mode 0777); "
                      "accepted because it belongs to the uid running prefs\n" +
                      answered,
              run({}, kAppUid).err);

    daemon.kill(SIGTERM);
    EXPECT_EQ(0, daemon.wait());
}

}  // namespace
}  // namespace Halo::OS::testing
