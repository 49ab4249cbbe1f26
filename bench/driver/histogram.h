#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// Counts of durations in ns, with the buckets of an HdrHistogram of three significant digits: every ns below 2048,
/// then 1024 buckets for each doubling, so that a bucket is narrower than a thousandth of its values. Recording costs
/// the same for every value and allocates nothing.
class Histogram final {
public:
    /// Counts `ns`. A negative duration counts as 0, one above `HighestNs` as `HighestNs`.
    void Record(std::int64_t ns) {
        ++counts[BucketOf(static_cast<std::uint64_t>(std::clamp<std::int64_t>(ns, 0, HighestNs)))];
    }

    /// Returns: a JSON array of [lowest ns of the bucket, count] for the buckets that are not empty, in ascending
    /// order.
    std::string Json() const {
        std::string json;
        for (std::size_t bucket = 0; bucket < counts.size(); ++bucket) {
            if (counts[bucket] != 0) {
                json += json.empty() ? "[" : ",[";
                json += std::to_string(LowestOf(bucket)) + "," + std::to_string(counts[bucket]) + "]";
            }
        }
        return "[" + json + "]";
    }

private:
    static constexpr int SubBucketBits = 11;
    static constexpr std::size_t HalfOfSubBuckets = std::size_t{1} << (SubBucketBits - 1);
    static constexpr std::int64_t HighestNs = 3'600'000'000'000;

    static constexpr std::size_t BucketOf(std::uint64_t ns) {
        const auto shift = static_cast<std::size_t>(std::max(static_cast<int>(std::bit_width(ns)) - SubBucketBits, 0));
        return shift * HalfOfSubBuckets + static_cast<std::size_t>(ns >> shift);
    }
    static constexpr std::uint64_t LowestOf(std::size_t bucket) {
        const auto shift = bucket < 2 * HalfOfSubBuckets ? 0 : bucket / HalfOfSubBuckets - 1;
        return std::uint64_t{bucket - shift * HalfOfSubBuckets} << shift;
    }

    std::vector<std::uint64_t> counts = std::vector<std::uint64_t>(BucketOf(HighestNs) + 1);
};

} // namespace bench
