#include "telemetry/Telemetry.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace Halo::OS {
namespace {

TEST(TelemetryTest, CountsPerNameAndPrefixWithoutALibrary) {
    Telemetry::resetCounts();
    EXPECT_FALSE(Telemetry::isLoaded());
    Telemetry::report("key_set_success");
    Telemetry::report("key_set_success", 10123, true);
    Telemetry::report("key_set_failure", 10123, false);
    Telemetry::reportError("key_register_error", 10123, "unable to register key");
    Telemetry::report("executerawquery_error_sqlite3_exec:scope=System, query='x'");

    EXPECT_EQ(2u, Telemetry::count("key_set_success"));
    EXPECT_EQ(1u, Telemetry::count("key_set_failure"));
    EXPECT_EQ(1u, Telemetry::count("key_register_error"));
    EXPECT_EQ(0u, Telemetry::count("key_set"));  // names match whole, not by prefix
    EXPECT_EQ(3u, Telemetry::countPrefix("key_set"));
    EXPECT_EQ(1u, Telemetry::countPrefix("executerawquery_error_sqlite3_exec:"));
    EXPECT_EQ(0u, Telemetry::countPrefix("zzz"));

    Telemetry::resetCounts();
    EXPECT_EQ(0u, Telemetry::count("key_set_success"));
}

TEST(TelemetryTest, ConcurrentReportsAreAllCounted) {
    Telemetry::resetCounts();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 1000; ++i) {
                Telemetry::report("shared_event");
                Telemetry::report("event_" + std::to_string(t), t, i % 2 == 0);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(4000u, Telemetry::count("shared_event"));
    for (int t = 0; t < 4; ++t) EXPECT_EQ(1000u, Telemetry::count("event_" + std::to_string(t)));
}

TEST(TelemetryTest, LoadedLibraryReceivesEveryKindOfReport) {
    EXPECT_FALSE(Telemetry::load("/nonexistent/libtelemetry.so"));
    EXPECT_FALSE(Telemetry::isLoaded());
    // A library without the entry point is refused.
    EXPECT_FALSE(Telemetry::load("libc.so.6"));
    EXPECT_FALSE(Telemetry::isLoaded());

    ASSERT_TRUE(Telemetry::load(TEST_SINK_PATH));
    EXPECT_TRUE(Telemetry::isLoaded());
    void* handle = dlopen(TEST_SINK_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(nullptr, handle);
    auto last = reinterpret_cast<int (*)(char*, size_t)>(dlsym(handle, "test_sink_last"));
    ASSERT_NE(nullptr, last);
    char text[256];

    Telemetry::resetCounts();
    Telemetry::report("begin_transaction_success");
    EXPECT_EQ(1, last(text, sizeof(text)));
    EXPECT_STREQ("0|begin_transaction_success|-1|1|(none)", text);

    Telemetry::report("register_package_success", 1010123, true);
    EXPECT_EQ(2, last(text, sizeof(text)));
    EXPECT_STREQ("1|register_package_success|1010123|1|(none)", text);

    Telemetry::reportError("key_register_error", 10001, "failed to register key permission");
    EXPECT_EQ(3, last(text, sizeof(text)));
    EXPECT_STREQ("2|key_register_error|10001|0|failed to register key permission", text);

    // Reports to a library are still counted.
    EXPECT_EQ(1u, Telemetry::count("key_register_error"));
    dlclose(handle);
}

}  // namespace
}  // namespace Halo::OS
