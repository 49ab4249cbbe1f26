// Defends the buckets in which the benchmarks count durations.
#include "histogram.h"

#include <gtest/gtest.h>

namespace {

std::string JsonOf(std::initializer_list<std::int64_t> durationsNs) {
    bench::Histogram histogram;
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

} // namespace
