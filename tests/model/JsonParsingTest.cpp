#include "model/JsonParsing.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "support/TempDir.h"

namespace Halo::OS {
namespace {

// `depth` arrays inside one another around `inner`.
std::string nested(size_t depth, const std::string& inner = "1") {
    return std::string(depth, '[') + inner + std::string(depth, ']');
}

TEST(JsonParsingTest, DeepOrMalformedTextIsRefusedWithAOneLineReason) {
    const struct {
        std::string text;
        unsigned int maxDepth;
        const char* reason;  // nullptr: accepted
    } cases[] = {
            {nested(kMaxJsonFileDepth - 1), kMaxJsonFileDepth, nullptr},
            {nested(kMaxJsonFileDepth), kMaxJsonFileDepth, "nested deeper than 64 levels"},
            {nested(kMaxJsonFileDepth), kMaxJsonListDepth, nullptr},
            {nested(kMaxJsonListDepth), kMaxJsonListDepth, "nested deeper than 66 levels"},
            {std::string(100000, '['), kMaxJsonListDepth, "nested deeper"},
            {nested(100000, "{\"a\": 1}"), kMaxJsonListDepth, "nested deeper"},
            {std::string(100000, '{'), kMaxJsonListDepth, "not valid JSON"},
            {"{\"uid\": 1,\n\"x\": ", kMaxJsonListDepth, "not valid JSON"},
            {"", kMaxJsonListDepth, "not valid JSON"},
    };
    for (const auto& c : cases) {
        Json::Value out;
        std::string error;
        const std::string shown = c.text.substr(0, 80);
        EXPECT_EQ(c.reason == nullptr, parseJsonText(c.text, out, &error, c.maxDepth)) << shown;
        if (c.reason == nullptr) continue;
        EXPECT_NE(std::string::npos, error.find(c.reason)) << shown << ": " << error;
        EXPECT_EQ(std::string::npos, error.find('\n')) << error;
    }
}

TEST(JsonParsingTest, FilesAreBoundedInSizeAndDepth) {
    testing::TempDir dir;
    std::ofstream(dir.file("fits.json")) << "[1," << std::string(90, ' ') << "2]";  // 95 bytes
    std::ofstream(dir.file("deep.json")) << nested(10);
    ASSERT_EQ(0, mkfifo(dir.file("fifo.json").c_str(), 0600));

    const std::pair<const char*, const char*> cases[] = {
            {"fits.json", nullptr},
            {"deep.json", "nested deeper than 8 levels"},
            {"missing.json", "cannot be read: No such file"},
            {"fifo.json", "not a regular file"},
    };
    for (const auto& [name, reason] : cases) {
        Json::Value out;
        std::string error;
        EXPECT_EQ(reason == nullptr, readJsonFile(dir.file(name), 95, 8, out, &error)) << name;
        if (reason != nullptr) EXPECT_NE(std::string::npos, error.find(reason)) << error;
    }
    Json::Value out;
    std::string error;
    EXPECT_FALSE(readJsonFile(dir.file("fits.json"), 94, 8, out, &error));
    EXPECT_EQ("larger than 94 bytes", error);
}

}  // namespace
}  // namespace Halo::OS
