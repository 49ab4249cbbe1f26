// Defends how the server holds the thread that hosts the bus: until it is asked to stop, or serving has failed.
#include "forwarding_connector.h"

#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <thread>

namespace {

using cor::ResultCode;
using msgbus_server::ForwardingConnector;
using testing::ElementsAre;
namespace fault_points = test_support::fault_points;

class ForwardingConnectorTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer{};
    test_support::FakeConnector target;
    ForwardingConnector forwarding{target, [this] { journal.AddCall("hosting"); },
                                   [this] { journal.AddCall("serving"); }, [this] { journal.AddCall("drain"); }};
};

TEST_F(ForwardingConnectorTest, ShouldBeStopped_BeforeServing_AnswersAtOnceAndReportsTheHostOnce) {
    EXPECT_FALSE(forwarding.ShouldBeStopped());
    EXPECT_FALSE(forwarding.ShouldBeStopped());
    EXPECT_THAT(journal.All(), ElementsAre("hosting"));
}

TEST_F(ForwardingConnectorTest, RunServer_ReportsServingAfterTheTarget) {
    EXPECT_EQ(forwarding.RunServer(), ResultCode::Success);
    EXPECT_THAT(journal.All(), ElementsAre("RunServer", "serving"));
    EXPECT_FALSE(forwarding.HasFailed());
}

TEST_F(ForwardingConnectorTest, ShouldBeStopped_WhileServing_BlocksUntilAStopIsRequested) {
    ASSERT_EQ(forwarding.RunServer(), ResultCode::Success);
    bool answer = false;
    std::thread host([&] { answer = forwarding.ShouldBeStopped(); });
    EXPECT_TRUE(fault_points::AwaitSleepingOnCondition(host.get_id()));
    forwarding.RequestStop();
    host.join();
    EXPECT_TRUE(answer);
    EXPECT_TRUE(forwarding.ShouldBeStopped()) << "for ever";
}

TEST_F(ForwardingConnectorTest, ShouldBeStopped_AfterARequestToDrain_DrainsOnceAndIsTrue) {
    ASSERT_EQ(forwarding.RunServer(), ResultCode::Success);
    journal.Clear();
    forwarding.RequestDrain();
    EXPECT_TRUE(forwarding.ShouldBeStopped());
    EXPECT_TRUE(forwarding.ShouldBeStopped());
    EXPECT_THAT(journal.Calls("drain"), testing::SizeIs(1));
}

TEST_F(ForwardingConnectorTest, ShouldBeStopped_AfterBothRequests_DoesNotDrain) {
    ASSERT_EQ(forwarding.RunServer(), ResultCode::Success);
    forwarding.RequestDrain();
    forwarding.RequestStop();
    EXPECT_TRUE(forwarding.ShouldBeStopped());
    EXPECT_THAT(journal.Calls("drain"), testing::IsEmpty());
}

TEST_F(ForwardingConnectorTest, AwaitStop_EndsWithARequestOrItsTime) {
    EXPECT_FALSE(forwarding.AwaitStop(std::chrono::milliseconds(1)));
    std::thread stopping([&] { forwarding.RequestStop(); });
    EXPECT_TRUE(forwarding.AwaitStop(std::chrono::minutes(10)));
    stopping.join();
}

TEST_F(ForwardingConnectorTest, ShouldBeStopped_AfterARequestBeforeServing_IsTrue) {
    forwarding.RequestStop();
    EXPECT_TRUE(forwarding.ShouldBeStopped());
}

TEST_F(ForwardingConnectorTest, AFailedRunServer_EndsTheRun) {
    target.onRunServer = [] { return ResultCode::InitFailed; };
    EXPECT_EQ(forwarding.RunServer(), ResultCode::InitFailed);
    EXPECT_TRUE(forwarding.HasFailed());
    EXPECT_TRUE(forwarding.ShouldBeStopped());
    EXPECT_THAT(journal.Calls("serving"), testing::IsEmpty());
}

TEST_F(ForwardingConnectorTest, SwitchActiveIpcServer_IsTheTargets) {
    target.onSwitch = [] { return ResultCode::Failed; };
    EXPECT_EQ(forwarding.SwitchActiveIpcServer(), ResultCode::Failed);
}

} // namespace
