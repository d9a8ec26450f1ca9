#include "profiler/PreferencesProfiler.h"

#include <binder/IPCThreadState.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "process/Process.h"
#include "profiler/FdText.h"

namespace Halo::OS {
namespace {

using testing::textWrittenTo;
using EventType = PreferencesProfiler::EventType;
using Range = std::pair<uint32_t, uint32_t>;
using std::chrono::microseconds;

constexpr size_t kBucketCount = 27;

// The per-bucket counts printed on the dump line that starts with `label`.
std::vector<uint32_t> bucketCounts(const PreferencesProfiler& profiler, const std::string& label) {
    std::string dump = textWrittenTo([&](int fd) { profiler.dumpProfile(fd); });
    size_t start = dump.find("\n" + label);
    if (start == std::string::npos) return {};
    start += label.size() + 1;
    std::istringstream line(dump.substr(start, dump.find('\n', start) - start));
    std::vector<uint32_t> counts;
    for (uint32_t count; line >> count;) counts.push_back(count);
    return counts;
}

std::vector<uint32_t> withBuckets(std::initializer_list<std::pair<size_t, uint32_t>> buckets) {
    std::vector<uint32_t> counts(kBucketCount, 0);
    for (auto [index, count] : buckets) counts[index] = count;
    return counts;
}

TEST(PreferencesProfilerTest, WritesIncludeTheBoundReadsAndLocksDoNot) {
    PreferencesProfiler profiler;
    ASSERT_EQ(kBucketCount, profiler.getUpperTimeBounds().size());
    profiler.recordWrite("k", 0);
    profiler.recordWrite("k", 10);
    profiler.recordWrite("k", 11);
    profiler.recordRead("k", 0);
    profiler.recordRead("k", 9);
    profiler.recordRead("k", 10);
    profiler.recordRead("k", 5000000);
    profiler.recordLock(0);
    profiler.recordLock(10);
    profiler.recordLock(1000);
    // Beyond the last bound: kept in the last bucket.
    profiler.recordWrite("k", 5000000000LL);

    EXPECT_EQ(withBuckets({{0, 2}, {1, 1}, {26, 1}}),
              bucketCounts(profiler, " write time distribution:"));
    EXPECT_EQ(withBuckets({{0, 2}, {1, 1}, {26, 1}}),
              bucketCounts(profiler, "  read time distribution:"));
    EXPECT_EQ(withBuckets({{0, 1}, {1, 1}, {19, 1}}),
              bucketCounts(profiler, "  lock time distribution:"));
    EXPECT_EQ(4u, profiler.getReadCount("k"));
    EXPECT_EQ(4u, profiler.getWriteCount("k"));
    EXPECT_EQ(3u, profiler.getLockCount());
}

TEST(PreferencesProfilerTest, NegativeDurationsCountOnlyInTotals) {
    PreferencesProfiler profiler;
    profiler.recordRead("k", 5);
    profiler.recordRead("k", -1);
    profiler.recordRead("k", -1000);
    profiler.recordRead("k", -1);
    profiler.recordLock(-7);

    EXPECT_EQ(4u, profiler.getReadCount("k"));
    EXPECT_EQ(1u, profiler.getLockCount());
    EXPECT_EQ(withBuckets({{0, 1}}), bucketCounts(profiler, "  read time distribution:"));
    EXPECT_EQ(withBuckets({}), bucketCounts(profiler, "  lock time distribution:"));
    // 1 of 4 samples is in a bucket: the 25th percentile is found, the 50th is not.
    EXPECT_EQ(Range(0, 10), profiler.getPercentileRange(EventType::Read, 25));
    EXPECT_EQ(Range(4294967295u, 0), profiler.getPercentileRange(EventType::Read, 50));
    EXPECT_EQ(Range(0, 10), profiler.getPercentileRange(EventType::Lock, 99));
}

TEST(PreferencesProfilerTest, PercentileRangesFromKnownHistograms) {
    PreferencesProfiler profiler;
    for (unsigned p : {25u, 50u, 75u, 90u, 99u}) {
        EXPECT_EQ(Range(0, 10), profiler.getPercentileRange(EventType::Write, p)) << p;
    }

    for (int i = 0; i < 4; ++i) profiler.recordRead("r", 3);
    for (unsigned p : {25u, 50u, 75u, 90u, 99u}) {
        EXPECT_EQ(Range(0, 10), profiler.getPercentileRange(EventType::Read, p)) << p;
    }

    // 100 writes: 50 in bucket 10, 40 in 200, 9 in 700, 1 in 5000000.
    for (int i = 0; i < 50; ++i) profiler.recordWrite("w", 5);
    for (int i = 0; i < 40; ++i) profiler.recordWrite("w", 150);
    for (int i = 0; i < 9; ++i) profiler.recordWrite("w", 700);
    profiler.recordWrite("w", 2000000);
    EXPECT_EQ(Range(0, 10), profiler.getPercentileRange(EventType::Write, 25));
    EXPECT_EQ(Range(0, 10), profiler.getPercentileRange(EventType::Write, 50));
    EXPECT_EQ(Range(100, 200), profiler.getPercentileRange(EventType::Write, 51));
    EXPECT_EQ(Range(100, 200), profiler.getPercentileRange(EventType::Write, 90));
    EXPECT_EQ(Range(600, 700), profiler.getPercentileRange(EventType::Write, 99));
    EXPECT_EQ(Range(1000000, 5000000), profiler.getPercentileRange(EventType::Write, 100));

    // Only reads, writes and locks have histograms.
    EXPECT_EQ(Range(0, 0), profiler.getPercentileRange(EventType::Register, 50));
    EXPECT_EQ(Range(0, 0), profiler.getPercentileRange(static_cast<EventType>(2), 50));
    EXPECT_EQ(Range(0, 0), profiler.getPercentileRange(EventType::Reset, 0));
}

TEST(PreferencesProfilerTest, DumpProfileText) {
    PreferencesProfiler profiler;
    for (int i = 0; i < 10; ++i) profiler.recordRead("alpha", 5);
    profiler.recordRead("alpha", 10);
    profiler.recordRead("alpha", 250);
    profiler.recordRead("b", -1);
    profiler.recordWrite("alpha", 10);
    profiler.recordWrite("alpha", 20);
    profiler.recordWrite("cc", 1000);
    profiler.recordWrite("cc", 1001);
    profiler.recordLock(0);
    profiler.recordLock(123456);
    profiler.recordLock(-3);
    profiler.recordLock(-3);
    EXPECT_EQ(0u, profiler.getReadCount("zz"));

    const std::string expected =
            "key counts alpha 12 2\n"
            "key counts   b    1 0\n"
            "key counts  cc    0 2\n"
            "key counts  zz    0 0\n"
            "\n"
            "distribution bounds (us):  10 20 30 40 50 60 70 80 90 100 200 300 400 500 600 700 "
            "800 900 1000 5000 10000 50000 100000 500000 1000000 5000000 4294967295\n"
            "  read time distribution:  10  1  0  0  0  0  0  0  0   0   0   1   0   0   0   0 "
            "  0   0    0    0     0     0      0      0       0       0          0\n"
            " write time distribution:   1  1  0  0  0  0  0  0  0   0   0   0   0   0   0   0 "
            "  0   0    1    1     0     0      0      0       0       0          0\n"
            "  lock time distribution:   1  0  0  0  0  0  0  0  0   0   0   0   0   0   0   0 "
            "  0   0    0    0     0     0      0      1       0       0          0\n"
            "\n"
            "total reads:  13\n"
            "total writes: 4\n"
            "total locks:  4\n"
            "\n"
            "P25  read times: 0-10 us\n"
            "P25 write times: 0-10 us\n"
            "P25  lock times: 0-10 us\n"
            "\n"
            "P50  read times: 0-10 us\n"
            "P50 write times: 10-20 us\n"
            "P50  lock times: 100000-500000 us\n"
            "\n"
            "P75  read times: 0-10 us\n"
            "P75 write times: 900-1000 us\n"
            "P75  lock times: 4294967295-0 us\n"
            "\n"
            "P90  read times: 10-20 us\n"
            "P90 write times: 900-1000 us\n"
            "P90  lock times: 4294967295-0 us\n"
            "\n"
            "P99  read times: 200-300 us\n"
            "P99 write times: 900-1000 us\n"
            "P99  lock times: 4294967295-0 us\n";
    EXPECT_EQ(expected, textWrittenTo([&](int fd) { profiler.dumpProfile(fd); }));
}

TEST(PreferencesProfilerTest, ResetProfileKeepsTheTrace) {
    PreferencesProfiler profiler;
    profiler.recordRead("a", 1);
    profiler.recordWrite("b", 1);
    profiler.recordLock(1);
    profiler.recordTrace(PreferencesProfiler::TimePoint(microseconds(1)), EventType::Read, "a", "",
                         1, 2, 3);
    profiler.resetProfile();

    EXPECT_EQ(0u, profiler.getLockCount());
    EXPECT_EQ(1u, profiler.getTraceSize());
    std::string dump = textWrittenTo([&](int fd) { profiler.dumpProfile(fd); });
    EXPECT_EQ(std::string::npos, dump.find("key counts")) << dump;
    EXPECT_NE(std::string::npos, dump.find("total reads:  0\ntotal writes: 0\ntotal locks:  0\n"));
    EXPECT_EQ(withBuckets({}), bucketCounts(profiler, "  read time distribution:"));
    EXPECT_EQ(withBuckets({}), bucketCounts(profiler, " write time distribution:"));
}

// The " | "-separated columns of a trace line after the first (the calendar time).
std::vector<std::string> traceColumns(const std::string& line) {
    std::vector<std::string> columns;
    size_t start = line.find(" | ");
    if (start == std::string::npos) return columns;
    start += 3;
    for (size_t end; (end = line.find(" | ", start)) != std::string::npos; start = end + 3) {
        columns.push_back(line.substr(start, end - start));
    }
    columns.push_back(line.substr(start));
    return columns;
}

std::vector<std::string> traceLines(const PreferencesProfiler& profiler) {
    std::istringstream dump(textWrittenTo([&](int fd) { profiler.dumpTrace(fd); }));
    std::vector<std::string> lines;
    for (std::string line; std::getline(dump, line);) lines.push_back(line);
    return lines;
}

TEST(PreferencesProfilerTest, TraceIsCappedAndKeepsItsStart) {
    PreferencesProfiler profiler;
    const PreferencesProfiler::TimePoint t0(microseconds(1715435112000000LL));
    for (int i = 0; i <= 10000; ++i) {
        profiler.recordTrace(t0 + microseconds(i), EventType::Write, "key" + std::to_string(i), "v",
                             TraceData::kOwnPid, 7, 1);
    }
    EXPECT_EQ(10000u, profiler.getTraceSize());

    std::vector<std::string> lines = traceLines(profiler);
    ASSERT_EQ(10000u, lines.size());
    // Entry 0 was dropped; times still count from it.
    EXPECT_EQ((std::vector<std::string>{"1", "write", "key1", "v", "", "7", "1"}),
              traceColumns(lines.front()));
    EXPECT_EQ("10000", traceColumns(lines.back()).at(0));
    EXPECT_EQ("key10000", traceColumns(lines.back()).at(2));

    profiler.resetTrace();
    EXPECT_EQ(0u, profiler.getTraceSize());
    EXPECT_EQ("", textWrittenTo([&](int fd) { profiler.dumpTrace(fd); }));
    profiler.recordTrace(t0 + microseconds(500), EventType::Read, "a", "b", TraceData::kOwnPid, 7,
                         1);
    profiler.recordTrace(t0 + microseconds(520), EventType::Read, "a", "b", TraceData::kOwnPid, 7,
                         1);
    lines = traceLines(profiler);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("0", traceColumns(lines[0]).at(0));
    EXPECT_EQ("20", traceColumns(lines[1]).at(0));
}

TEST(PreferencesProfilerTest, LockTraceNamesTheBinderCaller) {
    PreferencesProfiler profiler;
    const PreferencesProfiler::TimePoint t0(microseconds(1715435112000000LL));
    android::IPCThreadState* ipc = android::IPCThreadState::self();
    profiler.recordLockTrace(t0, "read", "own", 12);
    int64_t token = ipc->clearCallingIdentity();
    ipc->setCallingIdentity(getppid(), 0);
    profiler.recordLockTrace(t0 + microseconds(3), "write", "peer", -4);
    ipc->restoreCallingIdentity(token);

    std::vector<std::string> lines = traceLines(profiler);
    ASSERT_EQ(2u, lines.size());
    const std::string tid = std::to_string(gettid());
    // This process's own pid is replaced by the all-bits-set pid, which has no name.
    EXPECT_EQ((std::vector<std::string>{"0", "lock", "read", "own", "", tid, "12"}),
              traceColumns(lines[0]));
    std::string parent = Process::getProcessName(getppid(), true);
    ASSERT_FALSE(parent.empty());
    EXPECT_EQ((std::vector<std::string>{"3", "lock", "write", "peer", parent, tid, "-4"}),
              traceColumns(lines[1]));
}

}  // namespace
}  // namespace Halo::OS
