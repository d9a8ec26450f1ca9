#include "profiler/TraceData.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace Halo::OS {
namespace {

using preferences::profiler::EventType;
using std::chrono::microseconds;

TEST(TraceDataTest, ToStringLine) {
    // Calendar times are local; no other test in this binary depends on the time zone.
    setenv("TZ", "UTC", 1);
    tzset();
    // 2024-05-11 13:45:12 UTC.
    const TraceData::TimePoint second(microseconds(1715435112LL * 1000000));
    TraceData entry(second + microseconds(4211), EventType::Read, "some_key", "some_text",
                    static_cast<uint32_t>(getpid()), 1234, 87);
    EXPECT_EQ(
            "2024-05-11 13:45:12.004211 | 523 | read | some_key | some_text | profiler_tests | "
            "1234 | 87",
            entry.toString(second + microseconds(3688)));

    const char* words[] = {"read", "write",   "register", "callback", "unregister",
                           "lock", "gettype", "process",  "reset"};
    for (int code = 0; code <= 8; ++code) {
        TraceData other(second + microseconds(999999), static_cast<EventType>(code), "", "x",
                        TraceData::kOwnPid, 0, -2);
        EXPECT_EQ(std::string("2024-05-11 13:45:12.999999 | 0 | ") + words[code] +
                          " |  | x |  | 0 | -2",
                  other.toString(other.time));
    }
}

}  // namespace
}  // namespace Halo::OS
