#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Halo::OS {

// Durations of single operations, in nanoseconds, with their percentiles.
class LatencySamples {
public:
    using Clock = std::chrono::steady_clock;

    void reserve(size_t count) { mNanos.reserve(count); }
    void add(Clock::duration duration) {
        mNanos.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
    }
    void addNanos(int64_t nanos) { mNanos.push_back(nanos); }
    void append(const LatencySamples& other);
    size_t size() const { return mNanos.size(); }

    // The p-th percentile (0 < p <= 100, nearest rank) in microseconds; 0 without samples.
    double percentileMicros(double p) const;
    double medianMicros() const { return percentileMicros(50); }

private:
    std::vector<int64_t> mNanos;
};

}  // namespace Halo::OS
