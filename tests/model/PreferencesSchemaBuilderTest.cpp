#include "model/PreferencesSchemaBuilder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "model/PreferencesSchemaListBuilder.h"
#include "support/JsonText.h"

namespace Halo::OS {
namespace {

using testing::parseJson;

std::unique_ptr<PreferencesSchemaList> buildList(const std::string& json) {
    PreferencesSchemaListBuilder builder;
    EXPECT_TRUE(builder.process(parseJson(json)));
    return builder.build();
}

TEST(PreferencesSchemaListBuilderTest, NonObjectsAndMembersOfTheWrongKindGiveAnEmptyList) {
    // The last document: "add": "yes" is no flag (false), "restart": 1 reads as true.
    for (const char* json : {"{}", "[]", "12", "null", R"({"schemas": 5, "other": true})",
                             R"({"add": "yes", "restart": 1, "schemas": []})"}) {
        auto list = buildList(json);
        ASSERT_NE(nullptr, list) << json;
        EXPECT_EQ(0u, list->size()) << json;
        EXPECT_FALSE(list->isInstalled()) << json;
        EXPECT_EQ(std::string(json).find("restart") != std::string::npos, list->isRestarted())
                << json;
    }
}

TEST(PreferencesSchemaListBuilderTest, FlagsAndDocumentOrderAreKept) {
    // Member order in the objects is deliberately unlike the name order the JSON library walks.
    auto list = buildList(R"({
        "schemas": [
            {"packageName": "z.pkg", "uid": 10010, "contents": [
                {"type": "integer", "key": "zz", "default": 1},
                {"type": "integer", "key": "aa", "default": 2},
                {"type": "integer", "key": "mm", "default": 3}]},
            {"uid": 10020, "packageName": "a.pkg"}
        ],
        "restart": true,
        "add": true})");
    ASSERT_EQ(2u, list->size());
    EXPECT_TRUE(list->isInstalled());
    EXPECT_TRUE(list->isRestarted());
    EXPECT_EQ("z.pkg", (*list)[0]->package());
    EXPECT_EQ("a.pkg", (*list)[1]->package());
    const PreferencesSchema& first = *(*list)[0];
    ASSERT_EQ(3u, first.size());
    EXPECT_EQ("zz", first[0]->getKey());
    EXPECT_EQ("aa", first[1]->getKey());
    EXPECT_EQ("mm", first[2]->getKey());
    EXPECT_EQ(0u, (*list)[1]->size());
}

TEST(PreferencesSchemaListBuilderTest, RejectedSchemasAndEntriesAreDroppedAndSiblingsKept) {
    auto list = buildList(R"({"add": false, "schemas": [
        {"uid": 10001, "version": "1"},
        {"uid": 10002, "packageName": ""},
        {"uid": -1, "packageName": "minus.one"},
        {"uid": "abc", "packageName": "text.uid"},
        {"uid": 10003, "packageName": ["array"]},
        "not an object",
        {"uid": 10004, "packageName": "kept", "version": 1, "date": "18/11/2021"},
        {"uid": 10005, "packageName": "also.kept", "contents": "not an array"},
        {"uid": 10077, "packageName": "entries", "contents": [
            {"key": "no_type", "default": "1"},
            {"key": "good", "type": "long", "default": "5"},
            {"default": "1", "type": "integer"},
            7]},
        {"uid": 1, "packageName": "none.left", "contents": [{"key": "no_type", "default": "1"}]}
    ]})");
    ASSERT_EQ(4u, list->size());
    const PreferencesSchema& kept = *(*list)[0];
    EXPECT_EQ("kept", kept.package());
    EXPECT_EQ(10004u, kept.uid());
    EXPECT_EQ("1", kept.version());  // a number becomes its text
    EXPECT_EQ("18/11/2021", kept.revTime());
    EXPECT_EQ(0u, kept.size());  // no "contents": a removal-style schema
    EXPECT_EQ("also.kept", (*list)[1]->package());
    EXPECT_EQ(0u, (*list)[1]->size());
    // Rejected entries are dropped and the schema kept, also when none is left.
    const PreferencesSchema& entries = *(*list)[2];
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("good", entries[0]->getKey());
    EXPECT_EQ("none.left", (*list)[3]->package());
    EXPECT_EQ(0u, (*list)[3]->size());
    EXPECT_FALSE(list->isInstalled());
}

TEST(PreferencesSchemaBuilderTest, MissingUidIsTheCallingUid) {
    PreferencesSchemaBuilder builder;
    ASSERT_TRUE(builder.process(parseJson(R"({"packageName": "no.uid", "contents": [
        {"key": "k", "type": "string", "default": "x"}]})")));
    auto schema = builder.build();
    // Outside a Binder transaction the calling uid is the process's own.
    EXPECT_EQ(getuid(), schema->uid());
    ASSERT_EQ(1u, schema->size());
    EXPECT_EQ(getuid(), (*schema)[0]->getPackageUid());
    EXPECT_EQ("no.uid", (*schema)[0]->getPackageName());
}

}  // namespace
}  // namespace Halo::OS
