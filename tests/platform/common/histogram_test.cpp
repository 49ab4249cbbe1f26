// Defends the buckets in which durations are counted, and what is read from them.
#include "common/histogram.h"

#include <gtest/gtest.h>

namespace {

std::string JsonOf(std::initializer_list<std::int64_t> durationsNs) {
    common::Histogram histogram;
    for (const auto ns : durationsNs) {
        histogram.Record(ns);
    }
    return histogram.Json();
}

TEST(HistogramTest, Record_Below2048_CountsEveryNanosecondApart) {
    EXPECT_EQ(JsonOf({2047, 0, 1, 2046, 1}), "[[0,1],[1,2],[2046,1],[2047,1]]");
}

TEST(HistogramTest, Record_Above2047_CountsInBucketsOfAThousandth) {
    EXPECT_EQ(JsonOf({2048, 2049, 2050, 4094, 4095, 4096, 4099, 4100}),
              "[[2048,2],[2050,1],[4094,2],[4096,2],[4100,1]]");
    EXPECT_EQ(JsonOf({999'935, 999'936, 1'000'447, 1'000'448}), "[[999424,1],[999936,2],[1000448,1]]");
}

TEST(HistogramTest, Record_OutOfRange_CountsAtTheEdges) {
    const std::int64_t hourNs = 3'600'000'000'000;
    EXPECT_EQ(JsonOf({-1, 2 * hourNs}), JsonOf({0, hourNs}));
    EXPECT_NE(JsonOf({hourNs}), JsonOf({hourNs / 2}));
}

TEST(HistogramTest, Json_OfNothing_IsEmpty) {
    EXPECT_EQ(JsonOf({}), "[]");
}

TEST(HistogramTest, Quantiles_AreWithinAThousandth) {
    common::Histogram histogram;
    for (std::int64_t us = 1; us <= 10'000; ++us) {
        histogram.Record(us * 1000);
    }
    EXPECT_EQ(histogram.Count(), 10'000U);
    EXPECT_EQ(histogram.LeastNs(), 1000);
    EXPECT_EQ(histogram.MostNs(), 10'000'000);
    for (const double share : {0.001, 0.5, 0.9, 0.99, 0.999}) {
        const double exact = share * 10'000'000;
        EXPECT_NEAR(static_cast<double>(histogram.QuantileNs(share)), exact, exact / 1000) << share;
    }
    EXPECT_EQ(histogram.QuantileNs(1), 10'000'000);
    EXPECT_EQ(histogram.QuantileNs(0), 1000);
}

TEST(HistogramTest, OfNothing_EverythingIsZero) {
    const common::Histogram histogram;
    EXPECT_EQ(histogram.Count(), 0U);
    EXPECT_EQ(histogram.LeastNs(), 0);
    EXPECT_EQ(histogram.MostNs(), 0);
    EXPECT_EQ(histogram.QuantileNs(0.5), 0);
    EXPECT_TRUE(histogram.Doublings().empty());
}

TEST(HistogramTest, Add_CountsWhatBothHaveCounted) {
    common::Histogram one, other;
    one.Record(5);
    other.Record(1);
    other.Record(70);
    one.Add(other);
    EXPECT_EQ(one.Json(), "[[1,1],[5,1],[70,1]]");
    EXPECT_EQ(one.Count(), 3U);
    EXPECT_EQ(one.LeastNs(), 1);
    EXPECT_EQ(one.MostNs(), 70);
}

TEST(HistogramTest, Doublings_AreTheBitsOfTheDuration) {
    common::Histogram histogram;
    for (const std::int64_t ns : {0, 1, 2, 3, 4, 1023, 1024, 5000}) {
        histogram.Record(ns);
    }
    const std::vector<std::uint64_t> expected{1, 1, 2, 1, 0, 0, 0, 0, 0, 0, 1, 1, 0, 1};
    EXPECT_EQ(histogram.Doublings(), expected);
}

} // namespace
