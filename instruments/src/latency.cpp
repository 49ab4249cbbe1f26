#include "instruments/latency.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cmath>

namespace instruments {

std::size_t LatencyBuckets::Of(std::uint64_t nanoseconds) noexcept {
    constexpr int linearBits = 11; // below 2 * PerPage every nanosecond has a bucket
    const auto width = static_cast<int>(std::bit_width(nanoseconds));
    if (width <= linearBits) {
        return nanoseconds;
    }
    const auto octave = static_cast<std::size_t>(width - linearBits); // 1: [2048, 4096)
    const std::size_t bucket = (octave + 1) * PerPage + (nanoseconds >> octave) - PerPage;
    return std::min(bucket, Count - 1);
}

std::uint64_t LatencyBuckets::Highest(std::size_t bucket) noexcept {
    assert(bucket < Count);
    if (bucket < 2 * PerPage) {
        return bucket;
    }
    const std::size_t octave = bucket / PerPage - 1;
    return ((PerPage + bucket % PerPage + 1) << octave) - 1;
}

void Latency::Append(std::size_t index, std::uint64_t count) {
    assert(buckets.empty() || buckets.back().index < index);
    if (count != 0) {
        buckets.push_back({index, count});
        total += count;
    }
}

std::uint64_t Latency::Quantile(double quantile) const noexcept {
    const double wanted = std::max(1.0, std::ceil(std::clamp(quantile, 0.0, 1.0) * static_cast<double>(total)));
    std::uint64_t sum = 0;
    for (const auto& [index, count] : buckets) {
        sum += count;
        if (static_cast<double>(sum) >= wanted) {
            return LatencyBuckets::Highest(index);
        }
    }
    return buckets.empty() ? 0 : LatencyBuckets::Highest(buckets.back().index);
}

} // namespace instruments
