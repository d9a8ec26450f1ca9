#include "prefs-appinfo/PackageCatalog.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include "prefs-appinfo/AppInfoCommandLine.h"
#include "prefs-appinfo/DeviceUsers.h"
#include "prefs-appinfo/PackageFile.h"
#include "support/JsonText.h"
#include "support/TempDir.h"

namespace Halo::OS {
namespace {

const char kRead[] = "com.nimbus.permission.READ_SETTINGS";
const char kWrite[] = "com.nimbus.permission.WRITE_SETTINGS";

PackageFile package(int uid, const std::string& name, const std::string& permissions) {
    PackageFile file;
    std::string error;
    const std::string text =
            "{\"uid\": " + std::to_string(uid) + ", \"packageName\": \"" + name +
            "\", \"version\": \"1.2\", \"date\": \"01/02/2024\", \"permissions\": [" + permissions +
            "], \"contents\": [{\"key\": \"k\", \"type\": \"integer\"}]}";
    EXPECT_TRUE(PackageFile::parse(text, &file, &error)) << error;
    return file;
}

std::string parseError(const std::string& text) {
    PackageFile file;
    std::string error;
    EXPECT_FALSE(PackageFile::parse(text, &file, &error)) << text;
    EXPECT_EQ(std::string::npos, error.find('\n')) << error;
    return error;
}

TEST(PackageCatalogTest, PackageFilesAreCheckedBeforeTheyAreInstalled) {
    const PackageFile weather =
            package(10057, "com.example.weather", "\"" + std::string(kRead) + "\"");
    EXPECT_EQ(10057, weather.uid());
    EXPECT_EQ("com.example.weather", weather.packageName());
    EXPECT_TRUE(weather.holdsPermission(kRead));
    EXPECT_FALSE(weather.holdsPermission(kWrite));
    // The document goes out as the file has it, "permissions" included.
    EXPECT_TRUE(weather.document().isMember("permissions"));
    EXPECT_EQ(1u, weather.document()["contents"].size());

    // Bad JSON of any depth or size, or members of the wrong kind: refused, never thrown.
    const std::pair<std::string, const char*> refusals[] = {
            {"{\"uid\": 1, ", "not valid JSON"},
            {std::string(100000, '[') + std::string(100000, ']'), "nested deeper than 64 levels"},
            {"{\"uid\": 7.5, \"packageName\": \"p\"}", "uid"},
            {"{\"uid\": 7, \"packageName\": {}}", "packageName"},
            {"[1, 2]", "not a JSON object"},
            {"{\"packageName\": \"p\"}", "\"uid\""},
            {"{\"uid\": -1, \"packageName\": \"p\"}", "uid"},
            {"{\"uid\": \"7\", \"packageName\": \"p\"}", "uid"},
            {"{\"uid\": 7}", "packageName"},
            {"{\"uid\": 7, \"packageName\": \"\"}", "packageName"},
            {"{\"uid\": 7, \"packageName\": \"p\", \"permissions\": \"x\"}", "permissions"},
            {"{\"uid\": 7, \"packageName\": \"p\", \"permissions\": [1]}", "permissions"},
            {"{\"uid\": 7, \"packageName\": \"p\", \"contents\": {}}", "contents"},
    };
    for (const auto& [text, word] : refusals) {
        EXPECT_NE(std::string::npos, parseError(text).find(word)) << text.substr(0, 80);
    }

    PackageFile missing;
    std::string error;
    EXPECT_FALSE(PackageFile::load("/nonexistent/p.json", &missing, &error));
    EXPECT_EQ(0u, error.find("cannot be read")) << error;
    // Larger than the bound (sparse, so not written): refused before it is read.
    testing::TempDir dir;
    const std::string huge = dir.file("huge.json");
    ASSERT_EQ(0, truncate((std::ofstream(huge), huge).c_str(), PackageFile::kMaxFileSize + 1));
    EXPECT_FALSE(PackageFile::load(huge, &missing, &error));
    EXPECT_EQ("larger than 67108864 bytes", error);
}

TEST(PackageCatalogTest, UsersFileRulesAndRemovedUsers) {
    DeviceUsers defaults;
    EXPECT_EQ((std::vector<int32_t>{0}), defaults.users());
    EXPECT_EQ(0, defaults.current());

    DeviceUsers users;
    std::string error;
    ASSERT_TRUE(DeviceUsers::parse("{\"users\": [0, 10, 11], \"current\": 10}", &users, &error));
    EXPECT_EQ((std::vector<int32_t>{0, 10, 11}), users.users());
    EXPECT_EQ(10, users.current());
    EXPECT_EQ("[0, 10, 11], current 10", users.toString());

    DeviceUsers next;
    ASSERT_TRUE(DeviceUsers::parse("{\"users\": [11, 0]}", &next, &error));
    EXPECT_EQ(11, next.current()) << "without \"current\" the first user is current";
    EXPECT_EQ((std::vector<int32_t>{10}), users.removedIn(next));
    EXPECT_TRUE(next.removedIn(users).empty());

    for (const char* bad : {"{\"users\": []}", "{\"users\": [0, 0]}", "{\"users\": [-1]}",
                            "{\"users\": [0], \"current\": 10}", "{\"current\": 0}", "[0]",
                            "{\"users\": [\"0\"]}", "{"}) {
        DeviceUsers kept = users;
        EXPECT_FALSE(DeviceUsers::parse(bad, &kept, &error)) << bad;
        EXPECT_EQ(users.users(), kept.users()) << bad;
    }

    DeviceUsers absent = users;
    EXPECT_TRUE(DeviceUsers::load("/nonexistent-folder/users.json", &absent, &error));
    EXPECT_EQ((std::vector<int32_t>{0}), absent.users());
}

TEST(PackageCatalogTest, PermissionsFollowTheInstalledPackagesInEveryUser) {
    PackageCatalog catalog;
    const std::string both = "\"" + std::string(kRead) + "\", \"" + kWrite + "\"";
    EXPECT_FALSE(catalog.put("a.json", package(10010, "com.a", both)).has_value());
    catalog.put("b.json", package(10057, "com.b", "\"" + std::string(kRead) + "\""));

    EXPECT_TRUE(catalog.isGranted(kWrite, 10010));
    EXPECT_TRUE(catalog.isGranted(kWrite, 1010010)) << "the same app in user 10";
    EXPECT_TRUE(catalog.isGranted(kRead, 1010057));
    EXPECT_FALSE(catalog.isGranted(kWrite, 10057));
    EXPECT_FALSE(catalog.isGranted(kRead, 10099)) << "an app without a package";
    EXPECT_TRUE(catalog.isGranted(kWrite, 0));
    EXPECT_TRUE(catalog.isGranted(kWrite, 1000));
    EXPECT_TRUE(catalog.isGranted("any.other.permission", 1001000));
    EXPECT_FALSE(catalog.isGranted("any.other.permission", 10010));

    // Replacing a file's package replaces its permissions; removing it takes them away.
    const std::optional<PackageFile> replaced = catalog.put("a.json", package(10010, "com.a", ""));
    ASSERT_TRUE(replaced.has_value());
    EXPECT_TRUE(replaced->holdsPermission(kWrite));
    EXPECT_FALSE(catalog.isGranted(kWrite, 10010));
    EXPECT_TRUE(catalog.remove("b.json").has_value());
    EXPECT_FALSE(catalog.remove("b.json").has_value());
    EXPECT_FALSE(catalog.isGranted(kRead, 10057));
    EXPECT_EQ((std::vector<std::string>{"a.json"}), catalog.fileNames());
}

TEST(PackageCatalogTest, SchemaListsCarryTheirFlagsAndPackages) {
    // (Flags and package order as the listener sees them are checked in SimulatorEventsTest.)
    PackageCatalog catalog;
    EXPECT_EQ(testing::parseJson("{\"add\": true, \"restart\": true, \"schemas\": []}"),
              testing::parseJson(catalog.fullSchemaList()));
    const PackageFile b = package(10057, "com.b", "");
    catalog.put("2.json", b);
    catalog.put("1.json", package(10010, "com.a", ""));
    EXPECT_EQ(b.document(), testing::parseJson(catalog.fullSchemaList())["schemas"][1]);
    EXPECT_EQ(b.document(), testing::parseJson(PackageCatalog::addList(b))["schemas"][0]);
    // A removal names the package without its contents.
    EXPECT_EQ(
            testing::parseJson("{\"uid\": 10057, \"packageName\": \"com.b\", \"version\": \"1.2\", "
                               "\"date\": \"01/02/2024\"}"),
            testing::parseJson(PackageCatalog::removalList(b))["schemas"][0]);
}

TEST(PackageCatalogTest, SimulatorCommandLine) {
    AppInfoCommandLine::Options options;
    std::string error;
    ASSERT_TRUE(
            AppInfoCommandLine::parse({"--packages", "/p", "--binder-dir=/b"}, &options, &error));
    EXPECT_EQ("/p", options.packagesDir);
    EXPECT_EQ("/b", options.binderDir);
    ASSERT_TRUE(AppInfoCommandLine::parse({"--help"}, &options, &error));
    EXPECT_TRUE(options.help);
    EXPECT_FALSE(AppInfoCommandLine::parse({}, &options, &error));
    EXPECT_EQ("missing --packages DIR", error);
    EXPECT_FALSE(AppInfoCommandLine::parse({"--packages"}, &options, &error));
    EXPECT_FALSE(AppInfoCommandLine::parse({"--packages", "/p", "--verbose"}, &options, &error));
    EXPECT_EQ("unknown option --verbose", error);
    EXPECT_FALSE(AppInfoCommandLine::parse({"--packages", "/p", "extra"}, &options, &error));
}

}  // namespace
}  // namespace Halo::OS
