#include "properties/SystemProperties.h"

#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>

#include "support/TempDir.h"

namespace Halo::OS {
namespace {

using testing::TempDir;

// Runs `body` in a forked child, standing for the next start of the daemon; its return value is
// the child's exit status.
int inNewProcess(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(SystemPropertiesTest, PersistPropertiesSurviveARestartAndOthersDoNot) {
    TempDir dir;
    const std::string file = dir.file("properties");
    // The first start: nothing stored yet.
    int status = inNewProcess([&] {
        if (!SystemProperties::enablePersistence(file)) return 1;
        if (!SystemProperties::set("persist.halo.prefs_overrides.autosleep_time", "30")) return 2;
        if (!SystemProperties::set("persist.halo.other", "x")) return 3;
        if (!SystemProperties::set("halo.volatile", "gone")) return 4;
        return android::base::GetProperty("halo.volatile", "") == "gone" ? 0 : 5;
    });
    ASSERT_EQ(0, status);
    EXPECT_EQ("persist.halo.other=x\npersist.halo.prefs_overrides.autosleep_time=30\n",
              fileText(file));

    // The next start sees the persisted values; emptying one removes it from the file.
    status = inNewProcess([&] {
        if (!SystemProperties::enablePersistence(file)) return 1;
        if (android::base::GetProperty("persist.halo.prefs_overrides.autosleep_time", "") != "30")
            return 2;
        if (android::base::GetProperty("halo.volatile", "none") != "none") return 3;
        return SystemProperties::set("persist.halo.other", "") ? 0 : 4;
    });
    ASSERT_EQ(0, status);
    EXPECT_EQ("persist.halo.prefs_overrides.autosleep_time=30\n", fileText(file));
}

TEST(SystemPropertiesTest, PropertyFilesSeedWithoutPersisting) {
    TempDir dir;
    const std::string seed = dir.file("seed.prop");
    std::ofstream(seed) << "# device defaults\n\npersist.halo.prefs_default.k=7\nbroken line\n"
                        << "=novalue\nhalo.empty=\n";
    const std::string store = dir.file("persistent");
    int status = inNewProcess([&] {
        if (!SystemProperties::enablePersistence(store)) return 1;
        if (!SystemProperties::loadFile(seed)) return 2;
        if (android::base::GetProperty("persist.halo.prefs_default.k", "") != "7") return 3;
        if (android::base::GetProperty("halo.empty", "fallback") != "fallback") return 4;
        return SystemProperties::loadFile(dir.file("missing")) ? 5 : 0;
    });
    EXPECT_EQ(0, status);
    // Seeded values are not written back as if the service had set them.
    EXPECT_EQ(0, access(store.c_str(), F_OK) == 0 ? 1 : 0);

    // A persistence file that exists but cannot be read is an error.
    status = inNewProcess([&] { return SystemProperties::enablePersistence(dir.path()) ? 1 : 0; });
    EXPECT_EQ(0, status);
}

}  // namespace
}  // namespace Halo::OS
