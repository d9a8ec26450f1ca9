#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "model/PreferencesKeyInfo.h"
#include "model/PreferencesKeyInfoBuilder.h"
#include "support/JsonText.h"

namespace Halo::OS {
namespace {

TEST(PackageNameRegistryTest, LookupByApplicationId) {
    EXPECT_EQ("AID_SYSTEM", PreferencesKeyInfo::get(1000));
    PreferencesKeyInfo::set(1000, "android");  // 1000 is never looked up
    EXPECT_EQ("AID_SYSTEM", PreferencesKeyInfo::get(1000));
    // User 10's system uid is application id 1000 but not uid 1000.
    EXPECT_EQ("android", PreferencesKeyInfo::get(1001000));

    EXPECT_EQ("10987", PreferencesKeyInfo::get(1010987));  // application id, not the uid
    PreferencesKeyInfo::set(10987, "com.example.first");
    EXPECT_EQ("com.example.first", PreferencesKeyInfo::get(1010987));
    EXPECT_EQ("com.example.first", PreferencesKeyInfo::get(10987));
    PreferencesKeyInfo::set(2010987, "com.example.renamed");  // replaces, whatever the user
    EXPECT_EQ("com.example.renamed", PreferencesKeyInfo::get(10987));
}

TEST(PackageNameRegistryTest, AcceptedEntriesRecordTheirPackage) {
    PreferencesKeyInfoBuilder builder;
    ASSERT_TRUE(
            builder.process(testing::parseJson(R"({"key": "k", "type": "integer", "default": 0})"),
                            1010555, "com.example.recorded"));
    EXPECT_EQ("com.example.recorded", PreferencesKeyInfo::get(10555));

    PreferencesKeyInfoBuilder rejected;
    ASSERT_FALSE(rejected.process(testing::parseJson(R"({"key": "k", "default": 0})"), 10556,
                                  "com.example.rejected"));
    EXPECT_EQ("10556", PreferencesKeyInfo::get(10556));
}

TEST(PackageNameRegistryTest, ConcurrentReadersAndWriters) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const unsigned int appId = 20000 + t;
            for (int i = 0; i < kRounds; ++i) {
                std::string name = "pkg." + std::to_string(t) + "." + std::to_string(i);
                PreferencesKeyInfo::set(appId + 100000 * (i % 3), name);
                EXPECT_EQ(name, PreferencesKeyInfo::get(appId));
                PreferencesKeyInfo::get(20000 + (i % kThreads));  // another thread's entry
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ("pkg." + std::to_string(t) + "." + std::to_string(kRounds - 1),
                  PreferencesKeyInfo::get(20000 + t));
    }
}

}  // namespace
}  // namespace Halo::OS
