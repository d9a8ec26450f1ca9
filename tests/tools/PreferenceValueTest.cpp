#include "client/PreferenceValue.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace Halo::OS {
namespace {

using Type = PreferenceValue::Type;

TEST(PreferenceValueTest, TextFormsOfEveryTypeAndTextThatIsNotAWholeValue) {
    const std::tuple<Type, const char*, const char*> forms[] = {
            {Type::Integer, "-2147483648", "-2147483648"},
            {Type::Integer, "2147483647", "2147483647"},
            {Type::Long, "9000000000123", "9000000000123"},
            {Type::Long, "-9223372036854775808", "-9223372036854775808"},
            {Type::Float, "0.85", "0.850000"},
            {Type::Double, "-3", "-3.000000"},
            {Type::Double, "0.1234567", "0.123457"},
            {Type::Double, "1.5e3", "1500.000000"},
            {Type::Boolean, "true", "true"},
            {Type::Boolean, "1", "true"},
            {Type::Boolean, "0", "false"},
            {Type::Boolean, "false", "false"},
            {Type::String, " two words ", " two words "},
            {Type::String, "", ""},
    };
    for (const auto& [type, text, printed] : forms) {
        PreferenceValue value;
        ASSERT_TRUE(PreferenceValue::parse(type, text, &value)) << text;
        EXPECT_EQ(type, value.type());
        EXPECT_EQ(printed, value.toString());
    }
    const std::pair<Type, const char*> refused[] = {
            {Type::Integer, "2147483648"},
            {Type::Integer, "-2147483649"},
            {Type::Integer, "12abc"},
            {Type::Integer, ""},
            {Type::Integer, " 1"},
            {Type::Integer, "1.0"},
            {Type::Long, "9223372036854775808"},
            {Type::Double, "nan"},
            {Type::Double, "inf"},
            {Type::Double, "1e999"},
            {Type::Double, "0.5x"},
            {Type::Float, "1e39"},
            {Type::Boolean, "True"},
            {Type::Boolean, "yes"},
    };
    for (const auto& [type, text] : refused) {
        PreferenceValue value = PreferenceValue::fromString("untouched");
        EXPECT_FALSE(PreferenceValue::parse(type, text, &value)) << text;
        EXPECT_EQ("untouched", value.asString()) << "a refused parse changed the value";
    }

    EXPECT_EQ("42", PreferenceValue::fromInteger(42).toString());
    EXPECT_EQ("1.500000", PreferenceValue::fromFloat(1.5f).toString());
    EXPECT_EQ("false", PreferenceValue::fromBoolean(false).toString());
    EXPECT_EQ(PreferenceValue::fromLong(7), PreferenceValue::fromLong(7));
    EXPECT_NE(PreferenceValue::fromLong(7), PreferenceValue::fromInteger(7));
    // Accessors of another type give the empty value.
    EXPECT_EQ(0, PreferenceValue::fromString("5").asInteger());
    EXPECT_EQ("", PreferenceValue::fromInteger(5).asString());
}

TEST(PreferenceValueTest, TypeWordsAndCodes) {
    const std::pair<const char*, int> words[] = {{"integer", 0}, {"double", 1},  {"string", 2},
                                                 {"long", 3},    {"boolean", 4}, {"float", 5}};
    for (const auto& [word, code] : words) {
        Type byName;
        Type byCode;
        ASSERT_TRUE(PreferenceValue::typeFromName(word, &byName)) << word;
        ASSERT_TRUE(PreferenceValue::typeFromCode(code, &byCode)) << code;
        EXPECT_EQ(byName, byCode);
        EXPECT_EQ(code, static_cast<int>(byName));
        EXPECT_STREQ(word, PreferenceValue::typeName(byName));
    }
    Type type = Type::Long;
    EXPECT_FALSE(PreferenceValue::typeFromName("Integer", &type));
    EXPECT_FALSE(PreferenceValue::typeFromName("int", &type));
    EXPECT_FALSE(PreferenceValue::typeFromCode(6, &type));
    EXPECT_FALSE(PreferenceValue::typeFromCode(-1, &type));
    EXPECT_EQ(Type::Long, type);
}

}  // namespace
}  // namespace Halo::OS
