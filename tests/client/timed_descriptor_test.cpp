// Defends the descriptor for event loops that is readable for another one, and from a point in time on.
#include "timed_descriptor.h"

#include "pipe.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <chrono>

namespace {

using msgbus::Deadline;
using msgbus::TimedDescriptor;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class TimedDescriptorTest : public testing::Test {
protected:
    bool IsReadable(int timeoutMs = 0) const {
        pollfd polled{timed.Number(), POLLIN, 0};
        return ::poll(&polled, 1, timeoutMs) == 1;
    }

    msgbus::Pipe pipe;
    TimedDescriptor timed{pipe.ReadEnd()};
};

TEST_F(TimedDescriptorTest, IsReadableWhileTheOtherOneIs) {
    EXPECT_FALSE(IsReadable());
    char byte = 0;
    ASSERT_EQ(::write(pipe.WriteEnd(), &byte, 1), 1);
    EXPECT_TRUE(IsReadable());
    ASSERT_EQ(::read(pipe.ReadEnd(), &byte, 1), 1);
    EXPECT_FALSE(IsReadable());
}

TEST_F(TimedDescriptorTest, WakeAt_MakesItReadableThen) {
    timed.WakeAt(Clock::now() + 1ms);
    EXPECT_TRUE(IsReadable(60000));
    EXPECT_TRUE(IsReadable());
}

TEST_F(TimedDescriptorTest, WakeAt_ATimeThatHasPassed_MakesItReadable) {
    timed.WakeAt(Clock::now() - 1h);
    EXPECT_TRUE(IsReadable(60000));
}

TEST_F(TimedDescriptorTest, WakeAt_AfterItWasReadable_MakesItUnreadable) {
    timed.WakeAt(Clock::now() - 1h);
    ASSERT_TRUE(IsReadable(60000));
    timed.WakeAt(Clock::now() + 1h);
    EXPECT_FALSE(IsReadable());
    timed.WakeAt(Clock::now() - 1h);
    ASSERT_TRUE(IsReadable(60000));
    timed.WakeAt(Deadline::max());
    EXPECT_FALSE(IsReadable());
}

TEST_F(TimedDescriptorTest, WakeAt_AnEarlierTime_Counts) {
    timed.WakeAt(Clock::now() + 1h);
    timed.WakeAt(Clock::now() + 1ms);
    EXPECT_TRUE(IsReadable(60000));
}

} // namespace
