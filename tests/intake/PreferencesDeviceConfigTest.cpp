#include "intake/PreferencesDeviceConfig.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "model/PreferencesSchemaBuilder.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::TempDir;
using Type = PreferencesKeyInfo::Type;
using Scope = PreferencesKeyInfo::PreferenceScope;
using Status = PreferencesDeviceConfig::LegacyKeyListStatus;

bool parse(const std::string& text, Json::Value* value) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), value, &errors);
}

std::unique_ptr<PreferencesSchema> buildSchema(const std::string& text) {
    Json::Value value;
    if (!parse(text, &value)) return nullptr;
    PreferencesSchemaBuilder builder;
    if (!builder.process(value)) return nullptr;
    return builder.build();
}

std::unique_ptr<PreferencesSchemaList> buildList(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(parse(text, &value)) << text;
    PreferencesSchemaListBuilder builder;
    EXPECT_TRUE(builder.process(value));
    return builder.build();
}

// The whole log line that contains `fragment`; empty when there is none.
std::string lineWith(const std::string& text, const std::string& fragment) {
    const size_t at = text.find(fragment);
    if (at == std::string::npos) return std::string();
    const size_t begin = text.rfind('\n', at);
    const size_t end = text.find('\n', at);
    const size_t from = begin == std::string::npos ? 0 : begin + 1;
    return text.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

void write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

// A legacy key entry with every member; `extra` is spliced in (and overrides by coming last).
std::string entry(int index, const std::string& key, const std::string& extra = "") {
    return R"({"index": )" + std::to_string(index) + R"(, "key": ")" + key +
           R"(", "type": "integer", "default": "1", "scope": "system", "location": 1)" + extra +
           "}";
}

// Checks that the generated legacy schema list says what the tables say, key by key.
void expectConsistent(const PreferencesDeviceConfig& config) {
    const PreferencesLegacyKeyTables& tables = config.legacyKeyTables();
    auto list = buildList(config.legacyKeySchemaList());
    ASSERT_EQ(1u, list->size());
    EXPECT_TRUE(list->isInstalled());
    EXPECT_FALSE(list->isRestarted());
    const PreferencesSchema& schema = *(*list)[0];
    EXPECT_EQ("nimbus.preferences.service.legacy", schema.package());
    EXPECT_EQ("1.0", schema.version());
    EXPECT_EQ("01/26/2021", schema.revTime());
    ASSERT_EQ(tables.size(), schema.size());
    ASSERT_EQ(tables.size(), tables.types().size());
    ASSERT_EQ(tables.size(), tables.locations().size());
    ASSERT_EQ(tables.size(), tables.migrationList().size());
    for (size_t i = 0; i < tables.size(); ++i) {
        const int index = tables.names()[i].first;
        if (i > 0) EXPECT_LT(tables.names()[i - 1].first, index);
        EXPECT_EQ(index, tables.types()[i].first);
        EXPECT_EQ(index, tables.locations()[i].first);
        EXPECT_EQ(index, tables.migrationList()[i].first);
        const PreferencesKeyInfo& info = *schema[i];
        EXPECT_EQ(tables.names()[i].second, info.getKey());
        EXPECT_EQ(tables.types()[i].second, info.getType()) << info.getKey();
        EXPECT_NE(Type::NoType, info.getType()) << info.getKey();
        EXPECT_EQ(index, tables.findIndex(info.getKey()));
    }
}

TEST(PreferencesDeviceConfigTest, ExampleDeviceLoads) {
    LogCapture log;
    PreferencesDeviceConfig config(PREFS_EXAMPLE_CONFIG_DIR);
    const std::string nativeDir = std::string(PREFS_EXAMPLE_CONFIG_DIR) + "/native";
    size_t nativeFiles = 0;
    for (const auto& file : std::filesystem::directory_iterator(nativeDir)) {
        if (file.path().extension() == ".json") ++nativeFiles;
    }
    ASSERT_GE(nativeFiles, 4u);
    EXPECT_EQ(nativeFiles + 1, config.nativeServiceSchemas().size());
    EXPECT_EQ(1u, config.nativeServiceSchemas().count(PreferencesDeviceConfig::kProfilerSchema));

    std::set<Type> types;
    std::set<Scope> scopes;
    std::set<std::string> packages;
    std::set<unsigned int> uids;
    for (const std::string& text : config.nativeServiceSchemas()) {
        auto schema = buildSchema(text);
        ASSERT_NE(nullptr, schema) << text;
        EXPECT_TRUE(packages.insert(schema->package()).second) << schema->package();
        EXPECT_GT(schema->size(), 0u) << schema->package();
        uids.insert(schema->uid());
        Json::Value document;
        ASSERT_TRUE(parse(text, &document));
        // Every entry is accepted: none was dropped by the key builder.
        EXPECT_EQ(document["contents"].size(), schema->size()) << schema->package();
        for (const auto& info : schema->keyInfos()) {
            types.insert(info->getType());
            scopes.insert(info->getScope());
        }
    }
    EXPECT_EQ(std::set<Type>({Type::Integer, Type::Double, Type::String, Type::Long, Type::Boolean,
                              Type::Float}),
              types);
    EXPECT_EQ(std::set<Scope>({Scope::System, Scope::User, Scope::Cross}), scopes);
    EXPECT_EQ(1u, uids.count(1041));

    EXPECT_EQ(Status::Loaded, config.legacyKeyListStatus());
    EXPECT_EQ(0u, config.legacyKeysSkipped());
    const PreferencesLegacyKeyTables& tables = config.legacyKeyTables();
    EXPECT_GE(tables.size(), 8u);
    const auto& locations = tables.locations();
    for (int location :
         {PreferencesLegacyKeyTables::kSystemLocation, PreferencesLegacyKeyTables::kUserLocation}) {
        EXPECT_TRUE(std::any_of(locations.begin(), locations.end(),
                                [location](const auto& row) { return row.second == location; }));
    }
    expectConsistent(config);
    EXPECT_FALSE(log.contains(" E ")) << log.text();
}

TEST(PreferencesDeviceConfigTest, ProfilerSchemaDeclaresTheOneShotSwitches) {
    auto schema = buildSchema(PreferencesDeviceConfig::kProfilerSchema);
    ASSERT_NE(nullptr, schema);
    EXPECT_EQ("nimbus.preferences.service.profiler", schema->package());
    EXPECT_EQ("1", schema->version());
    EXPECT_EQ("05/11/2023", schema->revTime());
    ASSERT_EQ(2u, schema->size());
    EXPECT_EQ("preferences_profile_on_boot_one_shot", (*schema)[0]->getKey());
    EXPECT_EQ("preferences_trace_on_boot_one_shot", (*schema)[1]->getKey());
    Json::Value document;
    ASSERT_TRUE(parse(PreferencesDeviceConfig::kProfilerSchema, &document));
    EXPECT_FALSE(document.isMember("uid"));
    EXPECT_EQ("Specifies if profiling starts automatically on next boot (one-shot)",
              document["contents"][0]["description"].asString());
    EXPECT_EQ("Specifies if tracing starts automatically on next boot (one-shot)",
              document["contents"][1]["description"].asString());
    for (const auto& info : schema->keyInfos()) {
        EXPECT_EQ(Type::Boolean, info->getType());
        EXPECT_EQ("false", info->getDefaultValue());
        EXPECT_EQ(Scope::System, info->getScope());
        EXPECT_TRUE(info->isWritable());
        EXPECT_TRUE(info->isOwner());
    }
}

TEST(PreferencesDeviceConfigTest, ExamplePackagesAreSchemasWithOsPermissions) {
    const std::string dir = std::string(PREFS_EXAMPLE_CONFIG_DIR) + "/packages";
    size_t packages = 0;
    for (const auto& file : std::filesystem::directory_iterator(dir)) {
        std::ifstream in(file.path());
        const std::string text((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
        Json::Value document;
        ASSERT_TRUE(parse(text, &document)) << file.path();
        if (file.path().filename() == "users.json") {
            EXPECT_TRUE(document["users"].isArray());
            EXPECT_TRUE(document["current"].isInt());
            continue;
        }
        ++packages;
        ASSERT_TRUE(document.isMember("uid")) << file.path();
        auto schema = buildSchema(text);
        ASSERT_NE(nullptr, schema) << file.path();
        EXPECT_EQ(file.path().stem().string(), schema->package());
        EXPECT_EQ(document["contents"].size(), schema->size()) << file.path();
        ASSERT_TRUE(document["permissions"].isArray()) << file.path();
        for (const auto& permission : document["permissions"]) {
            EXPECT_TRUE(permission.asString() == "com.nimbus.permission.READ_SETTINGS" ||
                        permission.asString() == "com.nimbus.permission.WRITE_SETTINGS")
                    << permission.asString();
        }
    }
    EXPECT_GE(packages, 2u);
}

TEST(PreferencesDeviceConfigTest, NativeFilesArePassedOnAsTextAndBadOnesCostOnlyThemselves) {
    TempDir dir;
    ASSERT_EQ(0, mkdir(dir.file("native").c_str(), 0700));
    const std::string good = R"({"packageName": "good.daemon", "contents": []})";
    const std::string broken = R"({"packageName": "broken.daemon", "contents": [ )";
    write(dir.file("native/b-good.json"), good);
    write(dir.file("native/a-broken.json"), broken);
    write(dir.file("native/notes.txt"), "not a schema");
    write(dir.file("native/.hidden.json"), "{}");
    ASSERT_EQ(0, mkdir(dir.file("native/c-folder.json").c_str(), 0700));
    ASSERT_EQ(0, symlink("nowhere.json", dir.file("native/d-dangling.json").c_str()));

    LogCapture log;
    PreferencesDeviceConfig config(dir.path());
    EXPECT_EQ(std::set<std::string>({PreferencesDeviceConfig::kProfilerSchema, good, broken}),
              config.nativeServiceSchemas());
    EXPECT_TRUE(
            log.contains("c-folder.json: cannot read native-service schema: not a regular "
                         "file; skipped"));
    EXPECT_TRUE(log.contains("d-dangling.json: cannot read native-service schema"));
    EXPECT_FALSE(log.contains("broken"));  // its consumer decides about its content
    EXPECT_FALSE(log.contains("is missing: no native")) << log.text();
    EXPECT_EQ(Status::Absent, config.legacyKeyListStatus());
}

TEST(PreferencesDeviceConfigTest, MissingDirectoryIsADeviceWithoutConfiguration) {
    TempDir dir;
    for (const std::string& path : {dir.file("absent"), dir.path()}) {
        LogCapture log;
        PreferencesDeviceConfig config(path);
        EXPECT_EQ(std::set<std::string>({PreferencesDeviceConfig::kProfilerSchema}),
                  config.nativeServiceSchemas());
        EXPECT_EQ(Status::Absent, config.legacyKeyListStatus());
        EXPECT_TRUE(config.legacyKeyTables().empty());
        expectConsistent(config);  // one legacy schema without keys
        const std::string& text = log.text();
        const bool missing = path != dir.path();
        const size_t warnings = missing ? 1 : 0;
        size_t lines = 0;
        for (size_t at = text.find(" W "); at != std::string::npos; at = text.find(" W ", at + 1)) {
            ++lines;
        }
        EXPECT_EQ(warnings, lines) << text;
        EXPECT_EQ(missing, log.contains("device configuration directory " + path + " is missing"));
        EXPECT_FALSE(log.contains(" E ")) << text;
    }
}

TEST(PreferencesDeviceConfigTest, MalformedLegacyKeyListCostsOnlyItself) {
    struct Case {
        const char* document;
        const char* logged;
    };
    const Case cases[] = {
            {R"({"keys": [ {"index": 0, )", "legacy-keys.json: not valid JSON: "},
            {"", "legacy-keys.json: not valid JSON: "},
            {R"([{"index": 0}])", "must be an object with a \"keys\" array"},
            {R"({"keys": {"index": 0}})", "must be an object with a \"keys\" array"},
            {R"({"key": []})", "must be an object with a \"keys\" array"},
    };
    for (const Case& c : cases) {
        TempDir dir;
        ASSERT_EQ(0, mkdir(dir.file("native").c_str(), 0700));
        write(dir.file("native/daemon.json"), R"({"packageName": "d"})");
        write(dir.file("legacy-keys.json"), c.document);
        LogCapture log;
        PreferencesDeviceConfig config(dir.path());
        EXPECT_EQ(Status::Malformed, config.legacyKeyListStatus()) << c.document;
        EXPECT_TRUE(config.legacyKeyTables().empty());
        EXPECT_EQ(2u, config.nativeServiceSchemas().size()) << c.document;
        const std::string line = lineWith(log.text(), c.logged);
        EXPECT_NE(std::string::npos, line.find(dir.file("legacy-keys.json"))) << log.text();
        EXPECT_NE(std::string::npos, line.find("no legacy keys")) << log.text();
        expectConsistent(config);
    }
}

TEST(PreferencesDeviceConfigTest, BadLegacyEntriesAreSkippedOneByOne) {
    const std::string entries[] = {
            entry(0, "kept_first"),
            R"("just text")",
            entry(1, "index_text", R"(, "index": "1")"),
            entry(2, "index_negative", R"(, "index": -2)"),
            entry(3, "index_fraction", R"(, "index": 3.5)"),
            R"({"index": 4, "type": "integer", "default": "1", "scope": "system", "location": 1})",
            entry(5, "", ""),
            entry(6, "type_capital", R"(, "type": "Integer")"),
            entry(7, "type_missing", R"(, "type": null)"),
            entry(8, "default_null", R"(, "default": null)"),
            entry(9, "default_array", R"(, "default": [1])"),
            entry(10, "scope_capital", R"(, "scope": "System")"),
            entry(11, "write_text", R"(, "hasWritePermission": "yes")"),
            entry(12, "owner_number", R"(, "isOwner": 1)"),
            entry(13, "description_number", R"(, "description": 7)"),
            entry(14, "location_three", R"(, "location": 3)"),
            entry(15, "location_text", R"(, "location": "1")"),
            entry(16, "legacy_default_number", R"(, "legacyDefault": 1)"),
            entry(0, "index_taken"),
            entry(17, "kept_first"),
            entry(18, "kept_last", R"(, "location": 2, "type": "boolean", "default": true)"),
    };
    std::string document = R"({"keys": [)";
    for (const std::string& e : entries) document += (document.back() == '[' ? "" : ",") + e;
    document += "]}";

    TempDir dir;
    write(dir.file("legacy-keys.json"), document);
    LogCapture log;
    PreferencesDeviceConfig config(dir.path());
    ASSERT_EQ(Status::Loaded, config.legacyKeyListStatus());
    const PreferencesLegacyKeyTables& tables = config.legacyKeyTables();
    ASSERT_EQ(2u, tables.size());
    EXPECT_EQ("kept_first", tables.findName(0));
    EXPECT_EQ("kept_last", tables.findName(18));
    EXPECT_EQ(Type::Boolean, tables.findType(18));
    EXPECT_EQ(PreferencesLegacyKeyTables::kUserLocation, tables.findLocation(18));
    EXPECT_EQ("true", tables.findLegacyDefault(18));
    EXPECT_EQ(std::size(entries) - 2, config.legacyKeysSkipped());
    for (size_t position = 1; position + 1 < std::size(entries); ++position) {
        EXPECT_TRUE(log.contains("legacy-keys.json: legacy key entry " + std::to_string(position) +
                                 " skipped: "))
                << position;
    }
    EXPECT_TRUE(log.contains("entry 15 skipped: \"location\" must be 1"));
    EXPECT_TRUE(log.contains("entry 18 skipped: index 0 is already used by \"kept_first\""));
    EXPECT_TRUE(log.contains("entry 19 skipped: key \"kept_first\" is already listed with index 0"))
            << log.text();
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
         "hasWritePermission": false, "location": 1},
        {"index": 0, "key": "zero", "type": "double", "default": "1.25", "scope": "system",
         "location": 1, "isOwner": true},
        {"index": 25, "key": "twenty_five", "type": "boolean", "default": "true",
         "scope": "user", "location": 2, "legacyDefault": "1"},
        {"index": 9, "key": "nine", "type": "integer", "default": "-3", "scope": "system",
         "location": 1, "unknownMember": [1, 2]}
    ]})");
    PreferencesDeviceConfig config(dir.path());
    ASSERT_EQ(Status::Loaded, config.legacyKeyListStatus());
    const PreferencesLegacyKeyTables& tables = config.legacyKeyTables();
    using Names = PreferencesLegacyKeyTables::Table<std::string>;
    EXPECT_EQ(Names({{0, "zero"},
                     {3, "three"},
                     {9, "nine"},
                     {17, "seventeen"},
                     {25, "twenty_five"},
                     {40, "forty"}}),
              tables.names());
    EXPECT_EQ(Names({{0, "1.25"}, {3, "Roboto"}, {9, "-3"}, {17, "0.5"}, {25, "1"}, {40, "7"}}),
              tables.migrationList());
    EXPECT_EQ(Type::Long, tables.findType(40));
    EXPECT_EQ(Type::String, tables.findType(3));
    EXPECT_EQ(Type::Float, tables.findType(17));
    EXPECT_EQ(Type::Double, tables.findType(0));
    EXPECT_EQ(Type::Boolean, tables.findType(25));
    EXPECT_EQ(Type::Integer, tables.findType(9));
    EXPECT_EQ(1, tables.findLocation(17));
    EXPECT_EQ(2, tables.findLocation(3));
    EXPECT_EQ(std::nullopt, tables.findName(4));
    EXPECT_EQ(std::nullopt, tables.findType(41));
    EXPECT_EQ(std::nullopt, tables.findLocation(-1));
    EXPECT_EQ(std::nullopt, tables.findIndex("absent"));
    EXPECT_EQ(25, tables.findIndex("twenty_five"));
    expectConsistent(config);

    auto list = buildList(config.legacyKeySchemaList());
    const PreferencesSchema& schema = *(*list)[0];
    const PreferencesKeyInfo& forty = *schema[5];
    EXPECT_EQ("7", forty.getDefaultValue());
    EXPECT_EQ(Scope::Cross, forty.getScope());
    EXPECT_TRUE(forty.isWritable());
    EXPECT_TRUE(forty.isOwner());
    const PreferencesKeyInfo& seventeen = *schema[3];
    EXPECT_EQ("0.500000", seventeen.getDefaultValue());
    EXPECT_EQ(Scope::System, seventeen.getScope());
    EXPECT_FALSE(seventeen.isWritable());
    EXPECT_FALSE(seventeen.isOwner());
    EXPECT_EQ(Scope::User, schema[1]->getScope());
    Json::Value document;
    ASSERT_TRUE(parse(config.legacyKeySchemaList(), &document));
    const Json::Value& contents = document["schemas"][0]["contents"];
    EXPECT_EQ("d40", contents[5]["description"].asString());
    EXPECT_FALSE(contents[2].isMember("unknownMember"));
    EXPECT_FALSE(contents[2].isMember("location"));

    PreferencesLegacyKeyTables extra;
    EXPECT_TRUE(extra.add(2, "b", Type::Integer, 1, "0"));
    EXPECT_FALSE(extra.add(2, "c", Type::Integer, 1, "0"));
    EXPECT_FALSE(extra.add(3, "b", Type::Integer, 1, "0"));
    EXPECT_FALSE(extra.add(-1, "d", Type::Integer, 1, "0"));
    EXPECT_FALSE(extra.add(4, "", Type::Integer, 1, "0"));
    EXPECT_FALSE(extra.add(5, "e", Type::Integer, 0, "0"));
    EXPECT_FALSE(extra.add(6, "f", Type::Integer, 3, "0"));
    EXPECT_EQ(1u, extra.size());
}

TEST(PreferencesDeviceConfigTest, ProcessWideInstanceIsTheInstalledOne) {
    TempDir dir;
    auto config = std::make_shared<const PreferencesDeviceConfig>(dir.path());
    PreferencesDeviceConfig::setInstance(config);
    EXPECT_EQ(config, PreferencesDeviceConfig::instance());
    EXPECT_EQ(dir.path(), PreferencesDeviceConfig::instance()->directory());
    PreferencesDeviceConfig::setInstance(nullptr);
    EXPECT_NE(nullptr, PreferencesDeviceConfig::instance());  // loads the default directory
    EXPECT_EQ(PreferencesDeviceConfig::kDefaultDirectory,
              PreferencesDeviceConfig::instance()->directory());
}

}  // namespace
}  // namespace Halo::OS
