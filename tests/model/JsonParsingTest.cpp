#include "model/JsonParsing.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "support/TempDir.h"

namespace Halo::OS {
namespace {

TEST(JsonParsingTest, TextAndFilesAreBoundedInDepthAndSize) {
    const auto nested = [](size_t depth) {
        return std::string(depth, '[') + "1" + std::string(depth, ']');
    };
    const struct {
        std::string text;
        unsigned int maxDepth;
        const char* reason;  // nullptr: accepted
    } cases[] = {
            {nested(kMaxJsonFileDepth - 1), kMaxJsonFileDepth, nullptr},
            {nested(kMaxJsonFileDepth), kMaxJsonFileDepth, "nested deeper than 64 levels"},
            {nested(kMaxJsonListDepth - 1), kMaxJsonListDepth, nullptr},
            {nested(100000), kMaxJsonListDepth, "nested deeper than 66 levels"},
            {std::string(100000, '{'), kMaxJsonListDepth, "not valid JSON"},
            {"{\"uid\": 1,\n\"x\": ", kMaxJsonListDepth, "not valid JSON"},
    };
    for (const auto& c : cases) {
        Json::Value out;
        std::string error;
        EXPECT_EQ(c.reason == nullptr, parseJsonText(c.text, out, &error, c.maxDepth)) << error;
        if (c.reason != nullptr) EXPECT_EQ(0u, error.find("not valid JSON")) << error;
        if (c.reason != nullptr) EXPECT_NE(std::string::npos, error.find(c.reason)) << error;
        EXPECT_EQ(std::string::npos, error.find('\n')) << error;
    }

    testing::TempDir dir;
    std::ofstream(dir.file("fits.json")) << nested(7);  // 15 bytes, 8 levels
    ASSERT_EQ(0, mkfifo(dir.file("fifo.json").c_str(), 0600));
    const std::tuple<const char*, size_t, unsigned int, const char*> files[] = {
            {"fits.json", 15, 8, nullptr},
            {"fits.json", 15, 7, "nested deeper than 7 levels"},
            {"fits.json", 14, 8, "larger than 14 bytes"},
            {"missing.json", 15, 8, "cannot be read: No such file"},
            {"fifo.json", 15, 8, "not a regular file"},
    };
    for (const auto& [name, maxBytes, maxDepth, reason] : files) {
        Json::Value out;
        std::string error;
        EXPECT_EQ(reason == nullptr, readJsonFile(dir.file(name), maxBytes, maxDepth, out, &error));
        if (reason != nullptr) EXPECT_NE(std::string::npos, error.find(reason)) << error;
    }
}

}  // namespace
}  // namespace Halo::OS
