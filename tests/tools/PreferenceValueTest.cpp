#include "client/PreferenceValue.h"

#include <gtest/gtest.h>

#include <string>

namespace Halo::OS {
namespace {

using Type = PreferenceValue::Type;

std::string roundTrip(Type type, const std::string& text) {
    PreferenceValue value;
    EXPECT_TRUE(PreferenceValue::parse(type, text, &value)) << text;
    EXPECT_EQ(type, value.type());
    return value.toString();
}

bool accepts(Type type, const std::string& text) {
    PreferenceValue value = PreferenceValue::fromString("untouched");
    const bool ok = PreferenceValue::parse(type, text, &value);
    if (!ok) EXPECT_EQ("untouched", value.asString()) << "a refused parse changed the value";
    return ok;
}

TEST(PreferenceValueTest, TextFormsOfEveryType) {
    EXPECT_EQ("-2147483648", roundTrip(Type::Integer, "-2147483648"));
    EXPECT_EQ("2147483647", roundTrip(Type::Integer, "2147483647"));
    EXPECT_EQ("9000000000123", roundTrip(Type::Long, "9000000000123"));
    EXPECT_EQ("-9223372036854775808", roundTrip(Type::Long, "-9223372036854775808"));
    EXPECT_EQ("0.850000", roundTrip(Type::Float, "0.85"));
    EXPECT_EQ("-3.000000", roundTrip(Type::Double, "-3"));
    EXPECT_EQ("0.123457", roundTrip(Type::Double, "0.1234567"));
    EXPECT_EQ("1500.000000", roundTrip(Type::Double, "1.5e3"));
    EXPECT_EQ("true", roundTrip(Type::Boolean, "true"));
    EXPECT_EQ("true", roundTrip(Type::Boolean, "1"));
    EXPECT_EQ("false", roundTrip(Type::Boolean, "0"));
    EXPECT_EQ("false", roundTrip(Type::Boolean, "false"));
    EXPECT_EQ(" two words ", roundTrip(Type::String, " two words "));
    EXPECT_EQ("", roundTrip(Type::String, ""));

    EXPECT_EQ("42", PreferenceValue::fromInteger(42).toString());
    EXPECT_EQ("1.500000", PreferenceValue::fromFloat(1.5f).toString());
    EXPECT_EQ("false", PreferenceValue::fromBoolean(false).toString());
    EXPECT_EQ(PreferenceValue::fromLong(7), PreferenceValue::fromLong(7));
    EXPECT_NE(PreferenceValue::fromLong(7), PreferenceValue::fromInteger(7));
    // Accessors of another type give the empty value.
    EXPECT_EQ(0, PreferenceValue::fromString("5").asInteger());
    EXPECT_EQ("", PreferenceValue::fromInteger(5).asString());
}

TEST(PreferenceValueTest, RefusesTextThatIsNotAWholeValueOfTheType) {
    EXPECT_FALSE(accepts(Type::Integer, "2147483648"));
    EXPECT_FALSE(accepts(Type::Integer, "-2147483649"));
    EXPECT_FALSE(accepts(Type::Integer, "12abc"));
    EXPECT_FALSE(accepts(Type::Integer, ""));
    EXPECT_FALSE(accepts(Type::Integer, " 1"));
    EXPECT_FALSE(accepts(Type::Integer, "1.0"));
    EXPECT_FALSE(accepts(Type::Long, "9223372036854775808"));
    EXPECT_FALSE(accepts(Type::Double, "nan"));
    EXPECT_FALSE(accepts(Type::Double, "inf"));
    EXPECT_FALSE(accepts(Type::Double, "1e999"));
    EXPECT_FALSE(accepts(Type::Double, "0.5x"));
    EXPECT_FALSE(accepts(Type::Float, "1e39"));
    EXPECT_FALSE(accepts(Type::Boolean, "True"));
    EXPECT_FALSE(accepts(Type::Boolean, "yes"));
    EXPECT_TRUE(accepts(Type::String, "anything at all"));
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
