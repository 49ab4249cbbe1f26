// Defends the threads that sleep until a deadline: none sleeps past one that is over, however long ago it was.
#include "base/deadline.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using borven_host::Deadline;
using borven_host::DeadlineIn;
using borven_host::PollTimeout;
using borven_host::WithoutLimit;

TEST(PollTimeoutTest, OfADeadlineThatIsOver_IsZero) {
    EXPECT_EQ(PollTimeout(std::chrono::steady_clock::now()), 0);
    EXPECT_EQ(PollTimeout(Deadline()), 0);
    EXPECT_EQ(PollTimeout(Deadline::min()), 0);
}

TEST(PollTimeoutTest, OfADeadlineToCome_IsTheTimeLeftRoundedUp) {
    constexpr int hour = 3'600'000;
    const int left = PollTimeout(DeadlineIn(hour));
    EXPECT_GT(left, 0);
    EXPECT_LE(left, hour);
}

TEST(PollTimeoutTest, WithoutLimit_IsMinusOne) {
    EXPECT_EQ(PollTimeout(DeadlineIn(WithoutLimit)), -1);
}

TEST(PollTimeoutTest, OfAFarDeadline_IsStillATimeout) {
    EXPECT_GT(PollTimeout(Deadline::max() - std::chrono::nanoseconds(1)), 1'000'000);
}

} // namespace
