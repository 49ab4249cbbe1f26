// Defends the clients of a server whose start or stop does not end: after the deadline the channels close all the same.
#include "channel_deadline.h"

#include "kn/handle.h"
#include "kn/status.h"
#include "service_locator.h"
#include "support/bus_test.h"
#include "support/fault_points.h"
#include "support/scripted_platform.h"

#include <system_error>
#include <thread>

namespace {

using msgbus_server::ChannelDeadline;

class ChannelDeadlineTest : public test_support::BusTest {
protected:
    ChannelDeadlineTest() { server = ServiceLocatorRegister("line", nullptr, 0, &iid); }

    bool IsOpen() const {
        KnHandle client = KnInvalidHandle;
        return ServiceLocatorConnect("line", 0, &client) == KnStatusOk;
    }

    const test_support::fault_points::Disarmer disarmer{};
    test_support::ScriptedPlatform platform;
    std::uint32_t iid = 0;
    KnHandle server = KnInvalidHandle;
};

TEST_F(ChannelDeadlineTest, AStepThatEndsInTime_KeepsTheServerEndsOpen) {
    {
        ChannelDeadline deadline;
        deadline.Arm(std::chrono::hours(1), "too late");
        deadline.Disarm();
        deadline.Arm(std::chrono::hours(1), "too late");
    }
    EXPECT_TRUE(IsOpen());
    EXPECT_THAT(journal.Logs(), testing::IsEmpty());
}

TEST_F(ChannelDeadlineTest, AStepThatDoesNotEndInTime_LosesItsServerEnds) {
    ChannelDeadline deadline;
    deadline.Arm(std::chrono::hours(1), "first step");
    deadline.Disarm();
    deadline.Arm(std::chrono::milliseconds(1), "second step");
    ASSERT_TRUE(journal.Await("4 Run: second step; closing the channels"));
    while (IsOpen()) {
        std::this_thread::yield(); // the line comes first
    }
}

TEST_F(ChannelDeadlineTest, Construction_WithoutAThread_Throws) {
    test_support::fault_points::stdThreadStart.Arm(0);
    EXPECT_THROW(ChannelDeadline(), std::system_error);
}

} // namespace
