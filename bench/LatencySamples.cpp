#include "LatencySamples.h"

#include <algorithm>
#include <cmath>

namespace Halo::OS {

void LatencySamples::append(const LatencySamples& other) {
    mNanos.insert(mNanos.end(), other.mNanos.begin(), other.mNanos.end());
}

double LatencySamples::percentileMicros(double p) const {
    if (mNanos.empty()) return 0;
    std::vector<int64_t> sorted(mNanos);
    const size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * sorted.size()));
    const size_t index = std::min(sorted.size() - 1, rank == 0 ? 0 : rank - 1);
    std::nth_element(sorted.begin(), sorted.begin() + index, sorted.end());
    return sorted[index] / 1000.0;
}

}  // namespace Halo::OS
