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
    constexpr std::chrono::hours hour(1);
    for (int i = 0; i < 100; ++i) {
        const Deadline deadline = std::chrono::steady_clock::now() + hour + std::chrono::microseconds(10 * i);
        const std::chrono::milliseconds left(PollTimeout(deadline));
        EXPECT_GE(std::chrono::steady_clock::now() + left, deadline);
        EXPECT_LE(left, hour + std::chrono::milliseconds(1));
    }
}

TEST(PollTimeoutTest, WithoutLimit_IsMinusOne) {
    EXPECT_EQ(PollTimeout(DeadlineIn(WithoutLimit)), -1);
}

TEST(PollTimeoutTest, OfAFarDeadline_IsStillATimeout) {
    EXPECT_GT(PollTimeout(Deadline::max() - std::chrono::nanoseconds(1)), 1'000'000);
}

} // namespace
