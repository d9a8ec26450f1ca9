#include "intake/PreferencesDeviceConfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "model/PreferencesSchemaBuilder.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "support/JsonText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::parseJson;
using testing::TempDir;
using Type = PreferencesKeyInfo::Type;
using Scope = PreferencesKeyInfo::PreferenceScope;
using Status = PreferencesDeviceConfig::LegacyKeyListStatus;

std::unique_ptr<PreferencesSchema> buildSchema(const std::string& text) {
    PreferencesSchemaBuilder builder;
    return builder.process(parseJson(text)) ? builder.build() : nullptr;
}

void write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

// Checks that the generated legacy schema list says what the tables say, key by key.
void expectConsistent(const PreferencesDeviceConfig& config) {
    const PreferencesLegacyKeyTables& tables = config.legacyKeyTables();
    PreferencesSchemaListBuilder builder;
    builder.process(parseJson(config.legacyKeySchemaList()));
    auto list = builder.build();
    ASSERT_EQ(1u, list->size());
    EXPECT_TRUE(list->isInstalled());
    EXPECT_FALSE(list->isRestarted());
    const PreferencesSchema& schema = *(*list)[0];
    EXPECT_EQ("nimbus.preferences.service.legacy", schema.package());
    ASSERT_EQ(tables.size(), schema.size());
    for (size_t i = 0; i < tables.size(); ++i) {
        const int index = tables.names()[i].first;
        if (i > 0) EXPECT_LT(tables.names()[i - 1].first, index);
        EXPECT_EQ(index, tables.types()[i].first);
        EXPECT_EQ(index, tables.locations()[i].first);
        EXPECT_EQ(index, tables.migrationList()[i].first);
        EXPECT_EQ(tables.names()[i].second, schema[i]->getKey());
        EXPECT_EQ(tables.types()[i].second, schema[i]->getType()) << schema[i]->getKey();
        EXPECT_EQ(index, tables.findIndex(schema[i]->getKey()));
    }
}

TEST(PreferencesDeviceConfigTest, ExampleDeviceLoads) {
    LogCapture log;
    PreferencesDeviceConfig config(PREFS_EXAMPLE_CONFIG_DIR);
    size_t files = 0;
    for (const auto& file :
         std::filesystem::directory_iterator(PREFS_EXAMPLE_CONFIG_DIR "/native")) {
        files += file.path().extension() == ".json";
    }
    EXPECT_EQ(files + 1, config.nativeServiceSchemas().size());
    EXPECT_EQ(1u, config.nativeServiceSchemas().count(PreferencesDeviceConfig::kProfilerSchema));
    // The daemons that name their uid are the audio server (1041) and the tracking service
    // (2907), the two application ids the service exempts from its OS permission checks.
    std::set<std::string> uids;
    for (const std::string& text : config.nativeServiceSchemas()) {
        auto schema = buildSchema(text);
        ASSERT_NE(nullptr, schema) << text;
        EXPECT_EQ(parseJson(text)["contents"].size(), schema->size()) << schema->package();
        if (parseJson(text).isMember("uid")) {
            uids.insert(schema->package() + " " + parseJson(text)["uid"].asString());
        }
    }
    EXPECT_EQ(std::set<std::string>({"nimbus.audio.daemon 1041", "nimbus.tracking.service 2907"}),
              uids);

    EXPECT_EQ(Status::Loaded, config.legacyKeyListStatus());
    EXPECT_EQ(0u, config.legacyKeysSkipped());
    std::set<int> locations;
    for (const auto& row : config.legacyKeyTables().locations()) locations.insert(row.second);
    EXPECT_EQ(std::set<int>({1, 2}), locations);
    expectConsistent(config);
    EXPECT_FALSE(log.contains(" E ")) << log.text();

    for (const auto& file :
         std::filesystem::directory_iterator(PREFS_EXAMPLE_CONFIG_DIR "/packages")) {
        if (file.path().filename() == "users.json") continue;
        std::ifstream in(file.path());
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        auto schema = buildSchema(text);
        ASSERT_NE(nullptr, schema) << file.path();
        EXPECT_EQ(file.path().stem().string(), schema->package());
        EXPECT_TRUE(parseJson(text).isMember("uid"));
        for (const auto& permission : parseJson(text)["permissions"]) {
            EXPECT_TRUE(permission == "com.nimbus.permission.READ_SETTINGS" ||
                        permission == "com.nimbus.permission.WRITE_SETTINGS");
        }
    }
}

TEST(PreferencesDeviceConfigTest, NativeFilesArePassedOnAsTextAndBadOnesCostOnlyThemselves) {
    TempDir dir;
    ASSERT_EQ(0, mkdir(dir.file("native").c_str(), 0700));
    const std::string good = R"({"packageName": "good.daemon"})";
    const std::string broken = R"({"packageName": "broken.daemon", "contents": [ )";
    write(dir.file("native/b-good.json"), good);
    write(dir.file("native/a-broken.json"), broken);
    write(dir.file("native/notes.txt"), "{}");
    write(dir.file("native/.hidden.json"), "{}");
    ASSERT_EQ(0, mkdir(dir.file("native/c-folder.json").c_str(), 0700));
    ASSERT_EQ(0, symlink("nowhere.json", dir.file("native/d-dangling.json").c_str()));

    LogCapture log;
    PreferencesDeviceConfig config(dir.path());
    EXPECT_EQ(std::set<std::string>({PreferencesDeviceConfig::kProfilerSchema, good, broken}),
              config.nativeServiceSchemas());
    EXPECT_EQ(Status::Absent, config.legacyKeyListStatus());
    EXPECT_FALSE(log.contains(" W ")) << log.text();

    LogCapture missingLog;
    PreferencesDeviceConfig missing(dir.file("absent"));
    EXPECT_EQ(std::set<std::string>({PreferencesDeviceConfig::kProfilerSchema}),
              missing.nativeServiceSchemas());
    EXPECT_EQ(Status::Absent, missing.legacyKeyListStatus());
    expectConsistent(missing);  // one legacy schema without keys
    EXPECT_TRUE(missingLog.contains(" W ")) << missingLog.text();
}

TEST(PreferencesDeviceConfigTest, MalformedLegacyKeyListsCostOnlyThemselves) {
    // Bad JSON of any depth or size too: one level over the bound, over 1 MiB.
    const std::string overBound =
            R"({"keys": [)" + std::string(63, '[') + std::string(63, ']') + "]}";
    const std::string huge =
            R"({"keys": [)" + std::string(PreferencesDeviceConfig::kMaxFileSize, ' ') + "]}";
    for (const std::string& document :
         {std::string(R"({"keys": [ {"index": 0, )"), std::string(),
          std::string(R"([{"index": 0}])"), std::string(R"({"keys": {"index": 0}})"), overBound,
          huge}) {
        TempDir dir;
        ASSERT_EQ(0, mkdir(dir.file("native").c_str(), 0700));
        write(dir.file("native/daemon.json"), "{}");
        write(dir.file("legacy-keys.json"), document);
        LogCapture log;
        PreferencesDeviceConfig config(dir.path());
        EXPECT_EQ(Status::Malformed, config.legacyKeyListStatus()) << document.substr(0, 80);
        EXPECT_TRUE(config.legacyKeyTables().empty());
        EXPECT_EQ(2u, config.nativeServiceSchemas().size());
        expectConsistent(config);
        EXPECT_TRUE(log.contains(dir.file("legacy-keys.json") + ": ")) << log.text();
    }

    // Entries: each bad one is skipped with its own line and the usable ones are kept.
    const std::string base =
            R"("type": "integer", "default": "1", "scope": "system", "location": 1)";
    const std::string bad[] = {
            R"("text")",
            R"({"index": "1", "key": "a", )" + base + "}",
            R"({"index": -2, "key": "a", )" + base + "}",
            R"({"index": 3, )" + base + "}",
            R"({"index": 4, "key": "a", "type": "Integer", "default": "1", "scope": "system",
                "location": 1})",
            R"({"index": 5, "key": "a", "type": "integer", "default": null, "scope": "system",
                "location": 1})",
            R"({"index": 6, "key": "a", "type": "integer", "default": "1", "scope": "System",
                "location": 1})",
            R"({"index": 7, "key": "a", "isOwner": 1, )" + base + "}",
            R"({"index": 8, "key": "a", "type": "integer", "default": "1", "scope": "system",
                "location": 3})",
            R"({"index": 9, "key": "a", "legacyDefault": 1, )" + base + "}",
            R"({"index": 0, "key": "b", )" + base + "}",
            R"({"index": 10, "key": "kept", )" + base + "}",
    };
    std::string document = R"({"keys": [{"index": 0, "key": "kept", )" + base + "}";
    for (const std::string& entry : bad) document += "," + entry;
    document += R"(, {"index": 11, "key": "last", )" + base + "}]}";
    TempDir dir;
    write(dir.file("legacy-keys.json"), document);
    PreferencesDeviceConfig config(dir.path());
    EXPECT_EQ(Status::Loaded, config.legacyKeyListStatus());
    EXPECT_EQ(std::size(bad), config.legacyKeysSkipped());
    using Names = PreferencesLegacyKeyTables::Table<std::string>;
    EXPECT_EQ(Names({{0, "kept"}, {11, "last"}}), config.legacyKeyTables().names());
    expectConsistent(config);
}

TEST(PreferencesDeviceConfigTest, LegacyTablesAreSortedAndMatchTheSchemaList) {
    TempDir dir;
    write(dir.file("legacy-keys.json"), R"({"keys": [
        {"index": 40, "key": "forty", "type": "long", "default": 7, "scope": "crossUser",
         "hasWritePermission": true, "isOwner": true, "location": 2, "description": "d40"},
        {"index": 3, "key": "three", "type": "string", "default": "Inter", "scope": "user",
         "location": 2, "legacyDefault": "Roboto"},
        {"index": 17, "key": "seventeen", "type": "float", "default": "0.5", "scope": "system",
         "location": 1, "unknown": [1]},
        {"index": 0, "key": "zero", "type": "double", "default": "1.25", "scope": "system",
         "location": 1},
        {"index": 25, "key": "twenty_five", "type": "boolean", "default": true, "scope": "user",
         "location": 2},
        {"index": 9, "key": "nine", "type": "integer", "default": "-3", "scope": "system",
         "location": 1}
    ]})");
    PreferencesDeviceConfig config(dir.path());
    const PreferencesLegacyKeyTables& tables = config.legacyKeyTables();
    using Names = PreferencesLegacyKeyTables::Table<std::string>;
    EXPECT_EQ(Names({{0, "zero"},
                     {3, "three"},
                     {9, "nine"},
                     {17, "seventeen"},
                     {25, "twenty_five"},
                     {40, "forty"}}),
              tables.names());
    EXPECT_EQ(Names({{0, "1.25"}, {3, "Roboto"}, {9, "-3"}, {17, "0.5"}, {25, "true"}, {40, "7"}}),
              tables.migrationList());
    expectConsistent(config);

    const Json::Value contents = parseJson(config.legacyKeySchemaList())["schemas"][0]["contents"];
    EXPECT_EQ("crossUser", contents[5]["scope"].asString());
    EXPECT_TRUE(contents[5]["isOwner"].asBool());
    EXPECT_EQ("d40", contents[5]["description"].asString());
    EXPECT_FALSE(contents[3]["hasWritePermission"].asBool());
    EXPECT_FALSE(contents[3].isMember("unknown") || contents[3].isMember("location"));
}

}  // namespace
}  // namespace Halo::OS
