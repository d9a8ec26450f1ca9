#include "profiler/PreferencesProfiler.h"

#include <fmt/format.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace Halo::OS {
namespace {

using preferences::profiler::EventType;

uint32_t countOf(const std::map<int64_t, uint32_t>& histogram, int64_t bound) {
    auto it = histogram.find(bound);
    return it == histogram.end() ? 0 : it->second;
}

// A format text for one column: `pattern` is "{{:^{}}}" or "{{:>{}}}" and is filled with
// `width`. A zero width (only an empty key is that short) gets a plain "{}", because fmt rejects
// a zero width for text.
std::string columnFormat(const char* pattern, size_t width) {
    if (width == 0) return "{}";
    return fmt::format(fmt::runtime(pattern), width);
}

}  // namespace

PreferencesProfiler::PreferencesProfiler()
    : mUpperTimeBounds{10,   20,   30,    40,    50,     60,     70,      80,      90,
                       100,  200,  300,   400,   500,    600,    700,     800,     900,
                       1000, 5000, 10000, 50000, 100000, 500000, 1000000, 5000000, 4294967295},
      mPercentiles{25, 50, 75, 90, 99} {}

void PreferencesProfiler::addToHistogram(std::map<int64_t, uint32_t>& histogram, uint32_t& total,
                                         long long duration, bool inclusive) {
    ++total;
    if (duration < 0) return;
    auto bound = inclusive ? std::lower_bound(mUpperTimeBounds.begin(), mUpperTimeBounds.end(),
                                              static_cast<int64_t>(duration))
                           : std::upper_bound(mUpperTimeBounds.begin(), mUpperTimeBounds.end(),
                                              static_cast<int64_t>(duration));
    if (bound == mUpperTimeBounds.end()) --bound;
    ++histogram[*bound];
}

void PreferencesProfiler::recordRead(std::string key, long long duration) {
    ++mReadCounts[std::move(key)];
    addToHistogram(mReadHistogram, mTotalReads, duration, false);
}

void PreferencesProfiler::recordWrite(std::string key, long long duration) {
    ++mWriteCounts[std::move(key)];
    addToHistogram(mWriteHistogram, mTotalWrites, duration, true);
}

void PreferencesProfiler::recordLock(long long duration) {
    addToHistogram(mLockHistogram, mTotalLocks, duration, false);
}

void PreferencesProfiler::recordTrace(TimePoint time, EventType type, std::string first,
                                      std::string second, unsigned int pid, unsigned int tid,
                                      unsigned long duration) {
    while (mTrace.size() >= kMaxTraceEntries) mTrace.pop_front();
    if (mTrace.empty()) mTraceStart = time;
    mTrace.emplace_back(time, type, std::move(first), std::move(second), pid, tid,
                        static_cast<int64_t>(duration));
}

void PreferencesProfiler::recordLockTrace(TimePoint time, std::string first, std::string second,
                                          long long duration, pid_t caller) {
    uint32_t pid = caller == getpid() ? TraceData::kOwnPid : static_cast<uint32_t>(caller);
    recordTrace(time, EventType::Lock, std::move(first), std::move(second), pid,
                static_cast<uint32_t>(gettid()), static_cast<unsigned long>(duration));
}

std::pair<uint32_t, uint32_t> PreferencesProfiler::getPercentileRange(
        EventType type, unsigned int percentile) const {
    const std::map<int64_t, uint32_t>* histogram;
    uint32_t total;
    switch (type) {
        case EventType::Read:
            histogram = &mReadHistogram;
            total = mTotalReads;
            break;
        case EventType::Write:
            histogram = &mWriteHistogram;
            total = mTotalWrites;
            break;
        case EventType::Lock:
            histogram = &mLockHistogram;
            total = mTotalLocks;
            break;
        default:
            return {0, 0};
    }

    uint32_t target = total * static_cast<uint32_t>(percentile) / 100;
    uint32_t sum = 0;
    int64_t previous = 0;
    for (int64_t bound : mUpperTimeBounds) {
        sum += countOf(*histogram, bound);
        if (sum >= target) return {static_cast<uint32_t>(previous), static_cast<uint32_t>(bound)};
        previous = bound;
    }
    return {static_cast<uint32_t>(mUpperTimeBounds.back()), 0};
}

uint32_t PreferencesProfiler::getReadCount(const std::string& key) {
    return mReadCounts[key];
}

uint32_t PreferencesProfiler::getWriteCount(const std::string& key) {
    return mWriteCounts[key];
}

void PreferencesProfiler::dumpProfile(int fd) const {
    std::map<std::string, std::pair<uint32_t, uint32_t>> counts;
    for (const auto& [key, reads] : mReadCounts) counts[key].first = reads;
    for (const auto& [key, writes] : mWriteCounts) counts[key].second = writes;
    size_t longestKey = 0;
    uint32_t mostReads = 0;
    uint32_t mostWrites = 0;
    for (const auto& [key, pair] : counts) {
        longestKey = std::max(longestKey, key.size());
        mostReads = std::max(mostReads, pair.first);
        mostWrites = std::max(mostWrites, pair.second);
    }

    std::string keyFormat = columnFormat("{{:^{}}}", longestKey);
    std::string readFormat = columnFormat("{{:>{}}}", std::to_string(mostReads).size());
    std::string writeFormat = columnFormat("{{:>{}}}", std::to_string(mostWrites).size());
    for (const auto& [key, pair] : counts) {
        dprintf(fd, "key counts %s %s %s\n", fmt::format(fmt::runtime(keyFormat), key).c_str(),
                fmt::format(fmt::runtime(readFormat), pair.first).c_str(),
                fmt::format(fmt::runtime(writeFormat), pair.second).c_str());
    }

    // Bounds, reads, writes and locks, each bucket's four texts right-aligned to a common width.
    std::array<std::string, 4> lines;
    for (int64_t bound : mUpperTimeBounds) {
        std::array<std::string, 4> texts = {std::to_string(bound),
                                            std::to_string(countOf(mReadHistogram, bound)),
                                            std::to_string(countOf(mWriteHistogram, bound)),
                                            std::to_string(countOf(mLockHistogram, bound))};
        size_t width = 0;
        for (const std::string& text : texts) width = std::max(width, text.size());
        std::string format = columnFormat("{{:>{}}}", width);
        for (size_t i = 0; i < lines.size(); ++i) {
            lines[i] += ' ';
            lines[i] += fmt::format(fmt::runtime(format), texts[i]);
        }
    }
    dprintf(fd, "\n");
    dprintf(fd, "distribution bounds (us): %s\n", lines[0].c_str());
    dprintf(fd, "  read time distribution: %s\n", lines[1].c_str());
    dprintf(fd, " write time distribution: %s\n", lines[2].c_str());
    dprintf(fd, "  lock time distribution: %s\n", lines[3].c_str());
    dprintf(fd, "\n");

    dprintf(fd, "total reads:  %u\n", mTotalReads);
    dprintf(fd, "total writes: %u\n", mTotalWrites);
    dprintf(fd, "total locks:  %u\n", mTotalLocks);

    constexpr std::pair<EventType, const char*> kKinds[] = {
            {EventType::Read, "read"}, {EventType::Write, "write"}, {EventType::Lock, "lock"}};
    for (uint32_t percentile : mPercentiles) {
        dprintf(fd, "\n");
        std::string label = fmt::format("P{:02d}", percentile);
        for (const auto& [type, word] : kKinds) {
            auto [lower, upper] = getPercentileRange(type, percentile);
            dprintf(fd, "%s %5s times: %lld-%lld us\n", label.c_str(), word,
                    static_cast<long long>(lower), static_cast<long long>(upper));
        }
    }
}

void PreferencesProfiler::dumpTrace(int fd) const {
    for (const TraceData& entry : mTrace) {
        dprintf(fd, "%s\n", entry.toString(mTraceStart).c_str());
    }
}

void PreferencesProfiler::resetProfile() {
    mReadCounts.clear();
    mWriteCounts.clear();
    mReadHistogram.clear();
    mWriteHistogram.clear();
    mLockHistogram.clear();
    mTotalReads = 0;
    mTotalWrites = 0;
    mTotalLocks = 0;
}

void PreferencesProfiler::resetTrace() {
    mTrace.clear();
}

}  // namespace Halo::OS
