// Quantities as people read them: a wrong unit or a rounding that shows "1000ms" would mislead who reads a table, and a
// space would break a column.

#include "terminal/quantity.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(QuantityTest, Duration_OfEachUnit_HasThreeDigits) {
    EXPECT_EQ(terminal::Duration(0), "0s");
    EXPECT_EQ(terminal::Duration(-5), "0s");
    EXPECT_EQ(terminal::Duration(850), "850ns");
    EXPECT_EQ(terminal::Duration(1250), "1.25us");
    EXPECT_EQ(terminal::Duration(12'340'000), "12.3ms");
    EXPECT_EQ(terminal::Duration(3'200'000'000), "3.2s");
    EXPECT_EQ(terminal::Duration(245'000'000'000), "4m05s");
    EXPECT_EQ(terminal::Duration(12'000'000'000'000), "3h20m");
    EXPECT_EQ(terminal::Duration(std::int64_t{1'000'000'000} * 86400 * 12), "12d00h");
}

TEST(QuantityTest, Duration_JustBelowAUnit_IsRoundedIntoIt) {
    EXPECT_EQ(terminal::Duration(999'400), "999us");
    EXPECT_EQ(terminal::Duration(999'900), "1ms");
    EXPECT_EQ(terminal::Duration(59'990'000'000), "1m00s");
}

TEST(QuantityTest, Age_OfNever_IsADash) {
    EXPECT_EQ(terminal::Age(100, 0), "-");
    EXPECT_EQ(terminal::Age(100, 50), "50ns");
}

TEST(QuantityTest, Short_HasAtMostSixColumns) {
    EXPECT_EQ(terminal::Short(99'999), "99999");
    EXPECT_EQ(terminal::Short(123'456), "123k");
    EXPECT_EQ(terminal::Short(999'600), "1M");
    EXPECT_EQ(terminal::Short(1'250'000), "1.25M");
    EXPECT_EQ(terminal::Short(std::numeric_limits<std::uint64_t>::max()), "18.4E");
}

TEST(QuantityTest, Bytes_OfEachUnit_HaveThreeDigits) {
    EXPECT_EQ(terminal::Bytes(0), "0B");
    EXPECT_EQ(terminal::Bytes(12'500'000), "12.5MB");
}

TEST(QuantityTest, UtcTime_OfMonotonicTime_IsShiftedByTheOffset) {
    EXPECT_EQ(terminal::UtcTime(1'500'000'000, 1'700'000'000'000'000'000), "2023-11-14T22:13:21.500Z");
    EXPECT_EQ(terminal::UtcTime(0, 1'700'000'000'000'000'000), "-");
}

TEST(QuantityTest, UtcTime_OutOfRange_IsADash) {
    EXPECT_EQ(terminal::UtcTime(-5, 0), "-");
    EXPECT_EQ(terminal::UtcTime(std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::max()),
              "-");
}

} // namespace
