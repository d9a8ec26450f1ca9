#include "prefs/PrefsJson.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace Halo::OS {
namespace {

// Values as a JSON reader must read them back: shortest exact numbers, longs as strings.
TEST(PrefsJsonTest, ValuesReadBackExactly) {
    const std::vector<std::pair<PreferenceValue, std::string>> cases = {
            {PreferenceValue::fromInteger(-2147483647 - 1), "-2147483648"},
            {PreferenceValue::fromLong(9007199254740993), "\"9007199254740993\""},
            {PreferenceValue::fromFloat(0.85f), "0.85"},
            {PreferenceValue::fromDouble(0.1), "0.1"},
            {PreferenceValue::fromBoolean(false), "false"},
            {PreferenceValue::fromString("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\n\\u0001\""},
    };
    for (const auto& [value, json] : cases) EXPECT_EQ(json, PrefsJson::value(value));
}

}  // namespace
}  // namespace Halo::OS
