#pragma once

#include <gtest/gtest.h>
#include <json/reader.h>

#include <memory>
#include <string>

namespace Halo::OS::testing {

// Parses JSON text for a test; a syntax error fails the test.
inline Json::Value parseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
    return value;
}

}  // namespace Halo::OS::testing
