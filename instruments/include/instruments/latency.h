#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace instruments {

/// Buckets of a log-linear histogram of durations in nanoseconds: each is exact to three digits. The first two octaves
/// have buckets of 1 ns up to 2047 ns; each further octave [2^k, 2^(k+1)) has 1024 equal buckets. Longer durations than
/// 2^42 ns (73 minutes) go to the last bucket.
struct LatencyBuckets {
    static constexpr std::size_t PerPage = 1024; ///< one octave; the first two pages are [0, 1024) and [1024, 2048)
    static constexpr std::size_t Pages = 33;
    static constexpr std::size_t Count = Pages * PerPage;

    /// Returns: the bucket of a duration.
    static std::size_t Of(std::uint64_t nanoseconds) noexcept;
    /// Returns: the largest duration of a bucket.
    static std::uint64_t Highest(std::size_t bucket) noexcept;
};

/// A histogram that was read.
class Latency final {
public:
    struct Bucket {
        std::size_t index = 0;
        std::uint64_t count = 0;
    };

    /// Adds a bucket. Requires: its index is higher than that of the last one.
    void Append(std::size_t index, std::uint64_t count);

    std::uint64_t Count() const noexcept { return total; }
    const std::vector<Bucket>& Buckets() const noexcept { return buckets; } ///< those that are not empty

    /// Returns: a duration in nanoseconds that the share `quantile`, from 0 to 1, of all does not exceed, exact to
    /// three digits; 0 when there is none.
    std::uint64_t Quantile(double quantile) const noexcept;
    std::uint64_t Highest() const noexcept { return Quantile(1); }

private:
    std::vector<Bucket> buckets;
    std::uint64_t total = 0;
};

} // namespace instruments
