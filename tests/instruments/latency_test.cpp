// Defends the histogram of latencies: every duration lies in the bucket that stands for it, exact to three digits, and
// quantiles are durations that the stated share does not exceed.
#include "instruments/latency.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

using instruments::Latency;
using instruments::LatencyBuckets;

constexpr std::uint64_t Longest = (std::uint64_t{1} << 42) - 1;

TEST(LatencyTest, ShortDurations_HaveABucketForEachNanosecond) {
    for (std::uint64_t duration = 0; duration < 2048; ++duration) {
        ASSERT_EQ(LatencyBuckets::Of(duration), duration);
        ASSERT_EQ(LatencyBuckets::Highest(duration), duration);
    }
}

TEST(LatencyTest, EveryBucket_BeginsBehindTheLastOneAndEndsAtItsHighestDuration) {
    for (std::size_t bucket = 1; bucket < LatencyBuckets::Count; ++bucket) {
        ASSERT_EQ(LatencyBuckets::Of(LatencyBuckets::Highest(bucket)), bucket);
        ASSERT_EQ(LatencyBuckets::Of(LatencyBuckets::Highest(bucket - 1) + 1), bucket);
    }
}

TEST(LatencyTest, EveryBucket_IsExactToThreeDigits) {
    for (std::size_t bucket = 2048; bucket < LatencyBuckets::Count; ++bucket) {
        const std::uint64_t lowest = LatencyBuckets::Highest(bucket - 1) + 1;
        ASSERT_LE(LatencyBuckets::Highest(bucket) - lowest, lowest / 1000) << bucket;
    }
}

TEST(LatencyTest, DurationsBeyondTheRange_GoToTheLastBucket) {
    EXPECT_EQ(LatencyBuckets::Highest(LatencyBuckets::Count - 1), Longest);
    EXPECT_EQ(LatencyBuckets::Of(Longest + 1), LatencyBuckets::Count - 1);
    EXPECT_EQ(LatencyBuckets::Of(std::numeric_limits<std::uint64_t>::max()), LatencyBuckets::Count - 1);
}

TEST(LatencyTest, WithoutSamples_EverythingIsZero) {
    const Latency latency;

    EXPECT_EQ(latency.Count(), 0U);
    EXPECT_EQ(latency.Quantile(0.5), 0U);
    EXPECT_EQ(latency.Highest(), 0U);
    EXPECT_TRUE(latency.Buckets().empty());
}

TEST(LatencyTest, Quantiles_AreTheDurationsThatTheShareDoesNotExceed) {
    Latency latency;
    latency.Append(100, 90);
    latency.Append(200, 9);
    latency.Append(300, 1);

    EXPECT_EQ(latency.Count(), 100U);
    EXPECT_EQ(latency.Quantile(0), 100U);
    EXPECT_EQ(latency.Quantile(0.9), 100U);
    EXPECT_EQ(latency.Quantile(0.91), 200U);
    EXPECT_EQ(latency.Quantile(0.99), 200U);
    EXPECT_EQ(latency.Quantile(0.999), 300U);
    EXPECT_EQ(latency.Highest(), 300U);
}

TEST(LatencyTest, EmptyBuckets_AreNotKept) {
    Latency latency;
    latency.Append(100, 0);
    latency.Append(101, 1);

    ASSERT_EQ(latency.Buckets().size(), 1U);
    EXPECT_EQ(latency.Buckets().front().index, 101U);
}

} // namespace
