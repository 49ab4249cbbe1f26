// Defends that no value stays behind: the gap in which the bus loses a wake-up is forced open, a value is stranded in
// it, and FlushWake must bring it out.
#include "flush_wake.h"

#include "br_MessageBus_client.h"
#include "kn/status.h"
#include "support/bus_harness.h"
#include "support/bus_test.h"
#include "unlock_stop.h"

#include <future>
#include <memory>

namespace {

using cor::ResultCode;
using msgbus_server::FlushWake;
using test_support::Delivered;
using test_support::Gate;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
namespace fault_points = test_support::fault_points;

constexpr long Unknown = -99; // its push is answered 0 and wakes no thread
const std::string TopicInLog(FlushWake::Topic);
const std::string WakeLine = "1 Push: [MessageBus]: New message (" + TopicInLog;

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

    /// Pushes a value that arrives, and runs `action` while the events thread has looked at its queue for the last time
    /// but has not yet forgotten that it was woken: what is pushed then loses its wake-up.
    void InTheGap(const std::function<void()>& action) {
        const auto* const subscribersMutex =
            test_support::LastUnlockedBy([this] { bus->GetSubscriberPtrById(Unknown); });
        const auto gap = std::make_shared<Gate>();
        ASSERT_TRUE(bus.AwaitIdle());
        test_support::OnNextUnlock(bus.eventsThread, subscribersMutex, [gap] { gap->Pass(); });
        ASSERT_EQ(bus->Push(publisher, 0), ResultCode::Success);
        gap->AwaitReached();
        action();
        gap->Open();
    }

    /// Strands the values from 1 to `count`, behind one that arrives.
    void Strand(long count) {
        InTheGap([&] {
            for (long value = 1; value <= count; ++value) {
                ASSERT_EQ(bus->Push(publisher, value), ResultCode::Success);
            }
        });
        ASSERT_TRUE(fault_points::AwaitSleepingOnCondition(bus.eventsThread));
        ASSERT_EQ(Queued(), 1U) << "the values are not stranded";
    }

    /// How many threads `action` wakes.
    static int Wakes(const std::function<void()>& action) {
        int count = 0;
        fault_points::BeforeNotifyOne([&count, self = std::this_thread::get_id()] {
            if (std::this_thread::get_id() == self) {
                ++count;
            }
        });
        action();
        fault_points::BeforeNotifyOne(nullptr);
        return count;
    }

    void ExpectDelivered(long count) {
        for (long value = 0; value < count; ++value) {
            ASSERT_EQ(WaitOn(*bus, subscriber), Delivered("heat", value));
        }
    }
};

TEST_F(FlushWakeTest, Push_WhoseWakeUpIsLost_IsDelivered) {
    FlushWake flushWake(*bus);
    InTheGap([&] { ASSERT_EQ(flushWake.Push(publisher, 1), ResultCode::Success); });
    ExpectDelivered(2);
}

TEST_F(FlushWakeTest, Push_WhoseWakeUpIsLostAfterTheFirstLook_IsDelivered) {
    ASSERT_TRUE(bus.AwaitIdle());
    std::promise<std::thread::id> idle;
    fault_points::BeforeConditionWait([&] {
        fault_points::BeforeConditionWait(nullptr);
        idle.set_value(std::this_thread::get_id());
    });
    FlushWake flushWake(*bus);
    const auto looking = idle.get_future().get();
    const auto sleeps = fault_points::SleepsWithDeadline(looking);
    InTheGap([&] {
        ASSERT_EQ(flushWake.Push(publisher, 1), ResultCode::Success);
        // It sleeps before the first look and behind it.
        ASSERT_TRUE(fault_points::AwaitMoreSleepsWithDeadline(looking, sleeps + 1));
    });
    ExpectDelivered(2);
}

TEST_F(FlushWakeTest, Push_BehindAStrandedValue_BringsItOut) {
    Strand(1);
    FlushWake flushWake(*bus);
    EXPECT_EQ(flushWake.Push(Unknown, 0), ResultCode::Success);
    ExpectDelivered(2);
}

TEST_F(FlushWakeTest, Push_IntoAFullQueueThatNobodyDrains_BringsAllOut) {
    constexpr long inboundRoom = 1025;
    Strand(inboundRoom);
    FlushWake flushWake(*bus);
    EXPECT_EQ(flushWake.Push(publisher, 7), ResultCode::Exhausted);
    ExpectDelivered(inboundRoom + 1);
}

TEST_F(FlushWakeTest, Push_PassesTheBussResultOn) {
    FlushWake flushWake(*bus);
    EXPECT_EQ(flushWake.Push(publisher, 5), ResultCode::Success);
    EXPECT_EQ(WaitOn(*bus, subscriber), Delivered("heat", 5));
}

TEST_F(FlushWakeTest, Push_ThatFindsTheEventsThreadAsleep_WakesNoOtherThread) {
    FlushWake flushWake(*bus);
    for (long value = 0; value < 3; ++value) {
        ASSERT_TRUE(bus.AwaitIdle());
        EXPECT_EQ(Wakes([&] { flushWake.Push(publisher, value); }), 1);
    }
    ExpectDelivered(3);
}

TEST_F(FlushWakeTest, Push_InDoubt_WakesTheThreadOnceForAllThatFollowIt) {
    FlushWake flushWake(*bus);
    InTheGap([&] {
        EXPECT_EQ(Wakes([&] { flushWake.Push(publisher, 1); }), 2);
        for (long value = 2; value < 5; ++value) {
            EXPECT_EQ(Wakes([&] { flushWake.Push(publisher, value); }), 1) << value;
        }
    });
    ExpectDelivered(5);
}

TEST_F(FlushWakeTest, TheWakeValue_ReachesNobody) {
    Strand(1);
    FlushWake flushWake(*bus);
    ASSERT_EQ(flushWake.Push(Unknown, 0), ResultCode::Success);
    ASSERT_TRUE(journal.AwaitPrefix(WakeLine));
    ExpectDelivered(2);
    ASSERT_TRUE(bus.AwaitIdle());
    ASSERT_EQ(bus->Push(publisher, 2), ResultCode::Success);
    EXPECT_EQ(WaitOn(*bus, subscriber), Delivered("heat", 2));
    EXPECT_EQ(Queued(), 0U);
}

TEST_F(FlushWakeTest, TheTopic_IsRegisteredOnceAndNotBeforeAValueIsLeftBehind) {
    journal.Clear();
    FlushWake flushWake(*bus);
    ASSERT_TRUE(bus.AwaitIdle());
    ASSERT_EQ(flushWake.Push(publisher, 0), ResultCode::Success);
    ExpectDelivered(1);
    EXPECT_THAT(journal.Logs(), Not(Contains(HasSubstr(TopicInLog))));
    for (int round = 0; round < 2; ++round) {
        InTheGap([&] { ASSERT_EQ(flushWake.Push(publisher, 1), ResultCode::Success); });
        ExpectDelivered(2);
    }
    EXPECT_TRUE(journal.AwaitPrefix(WakeLine, 2));
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

TEST_F(FlushWakeTest, Destruction_EndsALookThatIsDue) {
    FlushWake flushWake(*bus);
    InTheGap([&] { ASSERT_EQ(flushWake.Push(publisher, 1), ResultCode::Success); });
}

} // namespace
