// Defends the counts of the last seconds: they are noted in their ring also when the system has just started.
#include "account/rate_history.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

namespace {

constexpr std::int64_t Second = 1'000'000'000;

TEST(RateHistoryTest, InTheFirstMinuteOfTheSystem_CountsStayInTheRing) {
    struct {
        std::array<std::uint64_t, 64> before{};
        instruments::layout::RateHistory record;
    } memory;
    msgbus_server::RateHistory history(memory.record);
    history.Reset(5 * Second, 7);
    for (const auto& count : memory.record.counts) {
        EXPECT_EQ(count, 7U);
    }
    EXPECT_EQ(memory.record.second, 5);
    EXPECT_EQ(memory.before, (std::array<std::uint64_t, 64>{}));
}

} // namespace
