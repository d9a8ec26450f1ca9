#include "model/PreferencesKeyInfoBuilder.h"

#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "support/JsonText.h"
#include "support/LogCapture.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::parseJson;
using Type = PreferencesKeyInfo::Type;
using Scope = PreferencesKeyInfo::PreferenceScope;

constexpr unsigned int kUid = 1010123;
const std::string kPackage = "com.example.app";

// Runs the builder over one entry; returns the key info when accepted, null otherwise.
std::unique_ptr<PreferencesKeyInfo> build(const std::string& entryJson) {
    PreferencesKeyInfoBuilder builder;
    if (!builder.process(parseJson(entryJson), kUid, kPackage)) return nullptr;
    return builder.build();
}

TEST(PreferencesKeyInfoBuilderTest, MissingMandatoryMembersAreRejectedWithTheirMessage) {
    struct Case {
        const char* json;
        const char* message;
    } cases[] = {
            {R"({"type": "integer", "default": "1"})", "Field Key value is missing"},
            {R"({"key": "k", "type": "integer"})", "Default value is missing"},
            {R"({"key": "k", "default": "1", "scope": "user", "hasWritePermission": true,
                 "isOwner": true})",
             "Unable to process key from package; the mandatory values were not specified."},
            {R"(["key", "default", "type"])", "Field Key value is missing"},
            {R"("just text")", "Field Key value is missing"},
    };
    for (const Case& c : cases) {
        LogCapture log;
        EXPECT_EQ(nullptr, build(c.json)) << c.json;
        EXPECT_TRUE(log.contains(c.message)) << c.json << " logged: " << log.text();
    }
}

TEST(PreferencesKeyInfoBuilderTest, DefaultsAreNormalisedToTheTypeEncoding) {
    struct Case {
        const char* type;
        const char* defaultJson;
        Type expectedType;
        const char* expectedDefault;
    } cases[] = {
            {"integer", "3000000000", Type::Integer, "-1294967296"},  // truncated to 32 bits
            {"integer", "\"42abc\"", Type::Integer, "42"},
            {"integer", "\"abc\"", Type::Integer, "0"},
            {"integer", "\"-7\"", Type::Integer, "-7"},
            {"long", "3000000000", Type::Long, "3000000000"},
            {"long", "\"-9000000000000\"", Type::Long, "-9000000000000"},
            {"double", "\"abc\"", Type::Double, "0.000000"},
            {"double", "0.1234567", Type::Double, "0.123457"},
            {"float", "\"0.5\"", Type::Float, "0.500000"},
            {"float", "2", Type::Float, "2.000000"},
            {"string", "\"  spaced  \"", Type::String, "  spaced  "},
            {"boolean", "true", Type::Boolean, "true"},
            {"boolean", "\"maybe\"", Type::Boolean, "maybe"},
            {"Integer", "\"12abc\"", Type::NoType, "12abc"},  // capitalised word: no type
            {"bool", "1", Type::NoType, "1"},
            {"", "1", Type::NoType, "1"},
    };
    for (const Case& c : cases) {
        std::string json = std::string(R"({"key": "k", "type": ")") + c.type + R"(", "default": )" +
                           c.defaultJson + "}";
        auto info = build(json);
        ASSERT_NE(nullptr, info) << json;
        EXPECT_EQ(c.expectedType, info->getType()) << json;
        EXPECT_EQ(c.expectedDefault, info->getDefaultValue()) << json;
    }
}

TEST(PreferencesKeyInfoBuilderTest, ScopeWordsAndFlags) {
    struct Case {
        const char* members;
        Scope scope;
    } cases[] = {
            {R"("scope": "system")", Scope::System},   {R"("scope": "user")", Scope::User},
            {R"("scope": "crossUser")", Scope::Cross}, {R"("scope": "User")", Scope::User},
            {R"("scope": "")", Scope::User},           {R"("scope": "System")", Scope::User},
            {R"("scope": "crossuser")", Scope::User},  {R"("other": 1)", Scope::System},
    };
    for (const Case& c : cases) {
        std::string json =
                std::string(R"({"key": "k", "type": "string", "default": "", )") + c.members + "}";
        auto info = build(json);
        ASSERT_NE(nullptr, info) << json;
        EXPECT_EQ(c.scope, info->getScope()) << json;
        EXPECT_FALSE(info->isWritable()) << json;
        EXPECT_FALSE(info->isOwner()) << json;
    }
}

TEST(PreferencesKeyInfoBuilderTest, MembersOfTheWrongKindRejectTheEntryWithoutThrowing) {
    EXPECT_EQ(nullptr, build(R"({"key": ["k"], "type": "integer", "default": "1"})"));
    EXPECT_EQ(nullptr, build(R"({"key": "k", "type": {"a": 1}, "default": "1"})"));
    EXPECT_EQ(nullptr, build(R"({"key": "k", "type": "integer", "default": [1]})"));
    EXPECT_EQ(nullptr, build(R"({"key": "k", "type": "integer", "default": "1",
                                 "hasWritePermission": "yes"})"));
    // Numbers and booleans convert the way the JSON library converts them.
    auto info = build(R"({"key": 12, "type": "integer", "default": false,
                          "hasWritePermission": 1, "isOwner": 1, "description": "ignored"})");
    ASSERT_NE(nullptr, info);
    EXPECT_EQ("12", info->getKey());
    EXPECT_EQ("0", info->getDefaultValue());  // "false" parsed as an integer
    EXPECT_TRUE(info->isWritable());
    EXPECT_TRUE(info->isOwner());
    EXPECT_EQ(kUid, info->getPackageUid());
    EXPECT_EQ(kPackage, info->getPackageName());
}

TEST(PreferencesKeyInfoBuilderTest, DefaultOverridePropertyReplacesTheSchemaDefault) {
    auto defaultOf = [](const std::string& key, const std::string& type) -> std::string {
        auto info =
                build(R"({"key": ")" + key + R"(", "type": ")" + type + R"(", "default": "1"})");
        return info != nullptr ? info->getDefaultValue() : "<rejected>";
    };
    android::base::SetProperty("persist.halo.prefs_default.override_k", "7");
    android::base::SetProperty("persist.halo.prefs_default.override_d", "0.25");
    EXPECT_EQ("7", defaultOf("override_k", "integer"));
    // The override is normalised like a schema default, and applies to its key only.
    EXPECT_EQ("0.250000", defaultOf("override_d", "double"));
    EXPECT_EQ("1", defaultOf("override_other", "integer"));
    // An emptied property falls back to the schema's default.
    android::base::SetProperty("persist.halo.prefs_default.override_k", "");
    EXPECT_EQ("1", defaultOf("override_k", "integer"));
}

}  // namespace
}  // namespace Halo::OS
