// Defends the clients of a server whose stop does not end: after the deadline the channels close all the same.
#include "stop_deadline.h"

#include "kn/handle.h"
#include "kn/status.h"
#include "service_locator.h"
#include "support/bus_test.h"
#include "support/fault_points.h"
#include "support/scripted_platform.h"

#include <future>

namespace {

using msgbus_server::StopDeadline;

class StopDeadlineTest : public test_support::BusTest {
protected:
    StopDeadlineTest() { server = ServiceLocatorRegister("line", nullptr, 0, &iid); }

    bool IsOpen() const {
        KnHandle client = KnInvalidHandle;
        return ServiceLocatorConnect("line", 0, &client) == KnStatusOk;
    }

    const test_support::fault_points::Disarmer disarmer{};
    test_support::ScriptedPlatform platform;
    std::uint32_t iid = 0;
    KnHandle server = KnInvalidHandle;
};

TEST_F(StopDeadlineTest, AScopeThatIsLeftInTime_KeepsTheServerEndsOpen) {
    { const StopDeadline deadline(std::chrono::hours(1)); }
    EXPECT_TRUE(IsOpen());
    EXPECT_THAT(journal.Logs(), testing::IsEmpty());
}

TEST_F(StopDeadlineTest, AScopeThatIsNotLeftInTime_LosesItsServerEnds) {
    const StopDeadline deadline(std::chrono::milliseconds(1));
    ASSERT_TRUE(journal.Await("4 Run: A thread does not end; closing the channels all the same"));
    while (IsOpen()) {
        std::this_thread::yield(); // the line comes first
    }
}

TEST_F(StopDeadlineTest, WithoutAThread_ClosesAtOnce) {
    test_support::fault_points::stdThreadStart.Arm(0);
    const StopDeadline deadline(std::chrono::hours(1));
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(journal.Logs().size(), 1U);
}

} // namespace
