#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "profiler/EventType.h"
#include "profiler/TraceData.h"

namespace Halo::OS {

// Access statistics of the key manager: per-key read and write counts, duration histograms of
// reads, writes and lock waits, and a bounded trace of timestamped events. All durations are in
// microseconds.
//
// The profiler has no lock of its own. The key manager owns the one instance and calls every
// operation, dumps included, with its main mutex held; nothing else may touch it.
class PreferencesProfiler {
public:
    using TraceData = Halo::OS::TraceData;
    using TimePoint = TraceData::TimePoint;
    using EventType = preferences::profiler::EventType;

    // The trace keeps at most this many entries; older ones are dropped first.
    static constexpr size_t kMaxTraceEntries = 10000;

    PreferencesProfiler();

    // Counts one read (write) of `key` and puts `duration` in the read (write) histogram.
    // A write lands in the first bucket whose bound is not less than the duration, a read in the
    // first bucket whose bound is greater than it: a 10 us write counts in bucket 10, a 10 us
    // read in bucket 20. A negative duration is counted in the total only; one beyond the last
    // bound is counted in the last bucket.
    void recordRead(std::string key, long long duration);
    void recordWrite(std::string key, long long duration);
    // Counts one wait for the key manager's lock, bucketed like a read.
    void recordLock(long long duration);

    // Appends an entry to the trace, first dropping the oldest entries when the trace is full.
    // An entry recorded into an empty trace sets the trace start.
    void recordTrace(TimePoint time, EventType type, std::string first, std::string second,
                     unsigned int pid, unsigned int tid, unsigned long duration);
    // Appends a "lock" entry for the current thread: pid is `caller`, the calling pid of the call
    // being served (TraceData::kOwnPid when that is this process), tid the thread's id.
    void recordLockTrace(TimePoint time, std::string first, std::string second, long long duration,
                         pid_t caller);

    // The (lower, upper) bucket bounds within which percentile `percentile` of the reads
    // (Read), writes (Write) or lock waits (Lock) lies; (0, 0) for any other type. With no
    // samples the result is (0, 10); when the buckets hold fewer samples than the percentile
    // asks for (negative durations count in the total only) it is (last bound, 0).
    std::pair<uint32_t, uint32_t> getPercentileRange(EventType type, unsigned int percentile) const;

    // The 27 ascending bucket upper bounds.
    const std::vector<int64_t>& getUpperTimeBounds() const { return mUpperTimeBounds; }

    // Reads (writes) of `key` so far; 0 for an unknown key, which is then listed with 0 in the
    // profile dump from now on.
    uint32_t getReadCount(const std::string& key);
    uint32_t getWriteCount(const std::string& key);
    // All lock waits recorded, negative durations included.
    uint32_t getLockCount() const { return mTotalLocks; }
    size_t getTraceSize() const { return mTrace.size(); }

    // Writes the per-key counts, the histograms, the totals and the percentile ranges to `fd`.
    void dumpProfile(int fd) const;
    // Writes one line per trace entry, oldest first (TraceData::toString); nothing when empty.
    void dumpTrace(int fd) const;

    // Clears the counts, histograms and totals; the trace stays.
    void resetProfile();
    // Clears the trace; the next entry sets a new trace start.
    void resetTrace();

private:
    // Adds one sample to `histogram`; `inclusive` selects the write rule (bound >= duration).
    void addToHistogram(std::map<int64_t, uint32_t>& histogram, uint32_t& total, long long duration,
                        bool inclusive);

    const std::vector<int64_t> mUpperTimeBounds;
    const std::vector<uint32_t> mPercentiles;
    std::map<std::string, uint32_t> mReadCounts;
    std::map<int64_t, uint32_t> mReadHistogram;
    uint32_t mTotalReads = 0;
    std::map<std::string, uint32_t> mWriteCounts;
    std::map<int64_t, uint32_t> mWriteHistogram;
    uint32_t mTotalWrites = 0;
    std::map<int64_t, uint32_t> mLockHistogram;
    uint32_t mTotalLocks = 0;
    std::list<TraceData> mTrace;
    TimePoint mTraceStart;
};

}  // namespace Halo::OS
