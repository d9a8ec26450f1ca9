#include "profiler/PreferencesProfiler.h"

#include <binder/IPCThreadState.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "process/Process.h"
#include "support/FdCapture.h"

namespace Halo::OS {
namespace {

using EventType = PreferencesProfiler::EventType;
using Range = std::pair<uint32_t, uint32_t>;
using Texts = std::vector<std::string>;
using std::chrono::microseconds;

const PreferencesProfiler::TimePoint kT0(microseconds(1715435112000000LL));

// The 27 bucket counts on the profile dump line that starts with `label`.
std::vector<uint32_t> buckets(const PreferencesProfiler& profiler, const std::string& label) {
    std::string dump = testing::capturedText([&](int fd) { profiler.dumpProfile(fd); });
    size_t start = dump.find("\n" + label + ":");
    if (start == std::string::npos) return {};
    std::istringstream line(dump.substr(start + label.size() + 2));
    std::vector<uint32_t> counts;
    for (uint32_t count; counts.size() < 27 && line >> count;) counts.push_back(count);
    return counts;
}

std::vector<uint32_t> withCounts(std::initializer_list<std::pair<size_t, uint32_t>> counts) {
    std::vector<uint32_t> all(27, 0);
    for (auto [index, count] : counts) all[index] = count;
    return all;
}

// The trace dump, one entry per line, each split at " | " without its calendar time.
std::vector<Texts> traceEntries(const PreferencesProfiler& profiler) {
    std::istringstream dump(testing::capturedText([&](int fd) { profiler.dumpTrace(fd); }));
    std::vector<Texts> entries;
    for (std::string line; std::getline(dump, line);) {
        Texts columns;
        for (size_t start = line.find(" | "), end; start != std::string::npos; start = end) {
            end = line.find(" | ", start + 3);
            columns.push_back(
                    line.substr(start + 3, end == std::string::npos ? end : end - start - 3));
        }
        entries.push_back(columns);
    }
    return entries;
}

TEST(PreferencesProfilerTest, BucketEdgesNegativeDurationsAndPercentileRanges) {
    PreferencesProfiler profiler;
    ASSERT_EQ(27u, profiler.getUpperTimeBounds().size());
    EXPECT_EQ(Range(0, 10), profiler.getPercentileRange(EventType::Write, 99));  // empty
    for (long long d : {0LL, 10LL, 11LL, 5000000000LL, -1LL}) profiler.recordWrite("k", d);
    for (long long d : {0LL, 9LL, 10LL, 5000000LL, -1LL}) profiler.recordRead("k", d);
    for (long long d : {0LL, 10LL, 1000LL, -7LL}) profiler.recordLock(d);

    // A write of 10 us counts in bucket 10, a read or lock wait of 10 us in bucket 20; a duration
    // beyond the last bound lands in the last bucket, a negative one in the totals only.
    EXPECT_EQ(withCounts({{0, 2}, {1, 1}, {26, 1}}), buckets(profiler, " write time distribution"));
    EXPECT_EQ(withCounts({{0, 2}, {1, 1}, {26, 1}}), buckets(profiler, "  read time distribution"));
    EXPECT_EQ(withCounts({{0, 1}, {1, 1}, {19, 1}}), buckets(profiler, "  lock time distribution"));
    EXPECT_EQ(5u, profiler.getReadCount("k"));
    EXPECT_EQ(5u, profiler.getWriteCount("k"));
    EXPECT_EQ(4u, profiler.getLockCount());
    // 3 of 4 lock waits are in buckets: the 75th percentile is found, the 100th is not.
    EXPECT_EQ(Range(1000, 5000), profiler.getPercentileRange(EventType::Lock, 75));
    EXPECT_EQ(Range(4294967295u, 0), profiler.getPercentileRange(EventType::Lock, 100));

    // Only reads, writes and lock waits have histograms.
    EXPECT_EQ(Range(0, 0), profiler.getPercentileRange(static_cast<EventType>(2), 50));
    EXPECT_EQ(Range(0, 0), profiler.getPercentileRange(EventType::Reset, 0));
}

TEST(PreferencesProfilerTest, DumpProfileTextAndReset) {
    PreferencesProfiler profiler;
    for (int i = 0; i < 10; ++i) profiler.recordRead("alpha", 5);
    for (long long d : {10LL, 250LL}) profiler.recordRead("alpha", d);
    profiler.recordRead("b", -1);
    for (long long d : {10LL, 20LL}) profiler.recordWrite("alpha", d);
    for (long long d : {1000LL, 1001LL}) profiler.recordWrite("cc", d);
    for (long long d : {0LL, 123456LL, -3LL, -3LL}) profiler.recordLock(d);
    // Asking for an unknown key lists it from then on.
    EXPECT_EQ(0u, profiler.getReadCount("zz"));
    profiler.recordTrace(kT0, EventType::Read, "a", "", 1, 2, 3);

    EXPECT_EQ(
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
            "total reads:  13\ntotal writes: 4\ntotal locks:  4\n"
            "\nP25  read times: 0-10 us\nP25 write times: 0-10 us\nP25  lock times: 0-10 us\n"
            "\nP50  read times: 0-10 us\nP50 write times: 10-20 us\n"
            "P50  lock times: 100000-500000 us\n"
            "\nP75  read times: 0-10 us\nP75 write times: 900-1000 us\n"
            "P75  lock times: 4294967295-0 us\n"
            "\nP90  read times: 10-20 us\nP90 write times: 900-1000 us\n"
            "P90  lock times: 4294967295-0 us\n"
            "\nP99  read times: 200-300 us\nP99 write times: 900-1000 us\n"
            "P99  lock times: 4294967295-0 us\n",
            testing::capturedText([&](int fd) { profiler.dumpProfile(fd); }));

    profiler.resetProfile();
    std::string dump = testing::capturedText([&](int fd) { profiler.dumpProfile(fd); });
    EXPECT_EQ(std::string::npos, dump.find("key counts"));
    EXPECT_NE(std::string::npos, dump.find("total reads:  0\ntotal writes: 0\ntotal locks:  0\n"));
    EXPECT_EQ(withCounts({}), buckets(profiler, "  read time distribution"));
    EXPECT_EQ(1u, profiler.getTraceSize());
}

TEST(PreferencesProfilerTest, TraceIsCappedAndKeepsItsStart) {
    PreferencesProfiler profiler;
    for (int i = 0; i <= 10000; ++i) {
        profiler.recordTrace(kT0 + microseconds(i), EventType::Write, "key" + std::to_string(i),
                             "v", TraceData::kOwnPid, 7, 1);
    }
    std::vector<Texts> entries = traceEntries(profiler);
    ASSERT_EQ(10000u, entries.size());
    EXPECT_EQ(10000u, profiler.getTraceSize());
    // Entry 0 was dropped; times still count from it.
    EXPECT_EQ((Texts{"1", "write", "key1", "v", "", "7", "1"}), entries.front());
    EXPECT_EQ((Texts{"10000", "write", "key10000", "v", "", "7", "1"}), entries.back());

    profiler.resetTrace();
    EXPECT_EQ("", testing::capturedText([&](int fd) { profiler.dumpTrace(fd); }));
    for (int at : {500, 520}) {
        profiler.recordTrace(kT0 + microseconds(at), EventType::Read, "a", "", 9, 7, 1);
    }
    entries = traceEntries(profiler);
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ("0", entries[0][0]);
    EXPECT_EQ("20", entries[1][0]);
}

TEST(PreferencesProfilerTest, LockTraceNamesTheBinderCaller) {
    PreferencesProfiler profiler;
    android::IPCThreadState* ipc = android::IPCThreadState::self();
    profiler.recordLockTrace(kT0, "read", "own", 12);
    int64_t token = ipc->clearCallingIdentity();
    ipc->setCallingIdentity(getppid(), 0);
    profiler.recordLockTrace(kT0 + microseconds(3), "write", "peer", -4);
    ipc->restoreCallingIdentity(token);

    std::string tid = std::to_string(gettid());
    std::string parent = Process::getProcessName(getppid(), true);
    ASSERT_FALSE(parent.empty());
    // This process's own pid is replaced by the all-bits-set pid, which has no name.
    EXPECT_EQ((std::vector<Texts>{{"0", "lock", "read", "own", "", tid, "12"},
                                  {"3", "lock", "write", "peer", parent, tid, "-4"}}),
              traceEntries(profiler));
}

}  // namespace
}  // namespace Halo::OS
