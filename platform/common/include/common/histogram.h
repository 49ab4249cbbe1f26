#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace common {

/// Counts of durations in ns, with the buckets of an HdrHistogram of three significant digits: every ns below 2048,
/// then 1024 buckets for each doubling, so that a bucket is narrower than a thousandth of its values. Recording costs
/// the same for every value and allocates nothing.
class Histogram final {
public:
    /// Counts `ns`. A negative duration counts as 0, one above `HighestNs` as `HighestNs`.
    void Record(std::int64_t ns) {
        const std::int64_t counted = std::clamp<std::int64_t>(ns, 0, HighestNs);
        ++counts[BucketOf(static_cast<std::uint64_t>(counted))];
        ++total;
        least = std::min(least, counted);
        most = std::max(most, counted);
    }

    /// Counts all that `other` has counted.
    void Add(const Histogram& other) {
        for (std::size_t bucket = 0; bucket < counts.size(); ++bucket) {
            counts[bucket] += other.counts[bucket];
        }
        total += other.total;
        least = std::min(least, other.least);
        most = std::max(most, other.most);
    }

    std::uint64_t Count() const noexcept { return total; }
    /// Returns: the least duration counted; 0 of none.
    std::int64_t LeastNs() const noexcept { return total == 0 ? 0 : least; }
    /// Returns: the greatest duration counted; 0 of none.
    std::int64_t MostNs() const noexcept { return most; }

    /// Returns: the duration that `share` (0 to 1) of all counted ones do not exceed, as the highest of its bucket, but
    /// no more than the greatest; 0 of none.
    std::int64_t QuantileNs(double share) const {
        const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(total)));
        std::uint64_t below = 0;
        for (std::size_t bucket = 0; bucket < counts.size(); ++bucket) {
            below += counts[bucket];
            if (below != 0 && below >= wanted) {
                return std::min(static_cast<std::int64_t>(LowestOf(bucket + 1)) - 1, most);
            }
        }
        return 0;
    }

    /// Returns: how many were counted in each doubling of the duration: element 0 those of 0 ns, element i those from
    /// 2^(i-1) ns to below 2^i ns. The last element is not 0.
    std::vector<std::uint64_t> Doublings() const {
        std::vector<std::uint64_t> doublings;
        for (std::size_t bucket = 0; bucket < counts.size(); ++bucket) {
            if (counts[bucket] != 0) {
                doublings.resize(static_cast<std::size_t>(std::bit_width(LowestOf(bucket))) + 1);
                doublings.back() += counts[bucket];
            }
        }
        return doublings;
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

    std::uint64_t total = 0;
    std::int64_t least = HighestNs;
    std::int64_t most = 0;
    std::vector<std::uint64_t> counts = std::vector<std::uint64_t>(BucketOf(HighestNs) + 1);
};

} // namespace common
