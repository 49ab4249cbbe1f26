// Defends that no value stays behind: the gap in which the bus loses a wake-up is forced open, a value is stranded in
// it, and FlushWake must bring it out.
#include "flush_wake.h"

#include "br_MessageBus_client.h"
#include "kn/status.h"
#include "support/bus_harness.h"
#include "support/bus_test.h"
#include "unlock_stop.h"

namespace {

using cor::ResultCode;
using msgbus_server::FlushWake;
using test_support::Delivered;
using test_support::Gate;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

constexpr long Unknown = -99; // its push is answered 0 and wakes no thread
const std::string TopicInLog(FlushWake::Topic);

class FlushWakeTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer{};
    long publisher = -1;
    long subscriber = -1;
    RunningBus bus{MakeBus()};

    void SetUp() override { ASSERT_TRUE(bus.isReady); }

    /// Registers before the events thread runs: a registration wakes it, and a push could meet that.
    std::shared_ptr<message_bus::MessageBus> MakeBus() {
        auto made = std::make_shared<message_bus::MessageBus>();
        EXPECT_EQ(made->RegisterPublisher("heat", publisher), ResultCode::Success);
        EXPECT_EQ(made->RegisterSubscriber("reader", {"heat"}, subscriber), ResultCode::Success);
        return made;
    }

    std::size_t Queued() const { return bus->GetSubscriberPtrById(subscriber)->queue.Size(); }

    /// Pushes one value that arrives, and `count` values while the events thread has looked at its queue for the last
    /// time but has not yet forgotten that it was woken.
    void Strand(long count) {
        const auto* const subscribersMutex =
            test_support::LastUnlockedBy([this] { bus->GetSubscriberPtrById(Unknown); });
        Gate gap;
        test_support::OnNextUnlock(bus.eventsThread, subscribersMutex, [&] { gap.Pass(); });
        ASSERT_EQ(bus->Push(publisher, 0), ResultCode::Success);
        gap.AwaitReached();
        for (long value = 1; value <= count; ++value) {
            ASSERT_EQ(bus->Push(publisher, value), ResultCode::Success);
        }
        gap.Open();
        ASSERT_TRUE(fault_points::AwaitSleepingOnCondition(bus.eventsThread));
        ASSERT_EQ(Queued(), 1U) << "the values are not stranded";
    }
};

TEST_F(FlushWakeTest, Push_AfterAStrandedValue_BringsItOut) {
    Strand(1);
    FlushWake flushWake(*bus, *bus);
    EXPECT_EQ(flushWake.Push(Unknown, 0), ResultCode::Success);
    EXPECT_EQ(WaitOn(*bus, subscriber), Delivered("heat", 0));
    EXPECT_EQ(WaitOn(*bus, subscriber), Delivered("heat", 1));
}

TEST_F(FlushWakeTest, Push_IntoAFullQueueThatNobodyDrains_BringsAllOut) {
    constexpr long inboundRoom = 1025;
    Strand(inboundRoom);
    FlushWake flushWake(*bus, *bus);
    EXPECT_EQ(flushWake.Push(publisher, 7), ResultCode::Exhausted);
    for (long value = 0; value <= inboundRoom; ++value) {
        ASSERT_EQ(WaitOn(*bus, subscriber), Delivered("heat", value));
    }
}

TEST_F(FlushWakeTest, Push_PassesTheBussResultOn) {
    FlushWake flushWake(*bus, *bus);
    EXPECT_EQ(flushWake.Push(publisher, 5), ResultCode::Success);
    EXPECT_EQ(WaitOn(*bus, subscriber), Delivered("heat", 5));
}

TEST_F(FlushWakeTest, TheWakeValue_ReachesNobody) {
    FlushWake flushWake(*bus, *bus);
    ASSERT_EQ(flushWake.Push(publisher, 1), ResultCode::Success);
    ASSERT_TRUE(journal.AwaitPrefix("1 Push: [MessageBus]: New message (" + TopicInLog));
    ASSERT_EQ(bus->Push(publisher, 2), ResultCode::Success);
    EXPECT_EQ(WaitOn(*bus, subscriber), Delivered("heat", 1));
    EXPECT_EQ(WaitOn(*bus, subscriber), Delivered("heat", 2));
    EXPECT_EQ(Queued(), 0U);
}

TEST_F(FlushWakeTest, TheTopic_IsRegisteredOnceAndNotBeforeAPush) {
    journal.Clear();
    FlushWake flushWake(*bus, *bus);
    EXPECT_THAT(journal.Logs(), IsEmpty());
    const std::string wake = "1 Push: [MessageBus]: New message (" + TopicInLog + ") has been pushed to queue";
    ASSERT_EQ(flushWake.Push(publisher, 1), ResultCode::Success);
    ASSERT_TRUE(journal.Await(wake, 2)); // the burst, and before it goes idle
    ASSERT_EQ(flushWake.Push(publisher, 2), ResultCode::Success);
    ASSERT_TRUE(journal.Await(wake, 3));
    EXPECT_EQ(journal.Count("1 RegisterPublisher: [MessageBus]: RegisterPublisher id -1 topic " + TopicInLog), 1U);
    long next = -1;
    ASSERT_EQ(bus->RegisterPublisher("next", next), ResultCode::Success);
    EXPECT_EQ(next, subscriber + 2) << "it takes one id";
}

TEST_F(FlushWakeTest, TheTopic_CannotBeNamedByAClient) {
    // A server reads a text up to its first NUL, and the stubs refuse one that has a NUL in it.
    EXPECT_NE(FlushWake::Topic.find('\0'), std::string_view::npos);
    NkBosTransport transport{};
    std::int64_t id = -1;
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, FlushWake::Topic, id), KnStatusInvalidArgument);
}

TEST_F(FlushWakeTest, Destruction_EndsABurstThatIsBeingWatched) {
    FlushWake flushWake(*bus, *bus);
    EXPECT_EQ(flushWake.Push(publisher, 1), ResultCode::Success);
}

} // namespace
