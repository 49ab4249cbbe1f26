// Defends the short way of a wait: what is queued is taken with the bus's results, outputs and lines, and without a
// hand-over; whatever may block is the bus's.
#include "fast_wait.h"

#include "support/bus_harness.h"
#include "support/bus_test.h"

namespace {

using cor::ResultCode;
using msgbus_server::FastWait;
using test_support::Delivered;
using test_support::NotDelivered;
using test_support::PendingWait;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::ElementsAre;
namespace fault_points = test_support::fault_points;

/// Passes waits on, and notes how often their thread had slept with a deadline before they came here.
class NotingWorker final : public message_bus::IWorker {
public:
    explicit NotingWorker(message_bus::IWorker& worker) : next(worker) {}

    ResultCode Wait(long subscriberId, std::string& topic, long& message) override {
        timedSleeps = fault_points::SleepsWithDeadlineOfThisThread();
        return next.Wait(subscriberId, topic, message);
    }

    std::atomic<int> timedSleeps{-1};

private:
    message_bus::IWorker& next;
};

class FastWaitTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer{};
    long publisher = -1;
    long subscriber = -1;
    long later = -1; // what it has got, the one before has got
    RunningBus bus{MakeBus()};
    NotingWorker blocking{*bus};
    FastWait fastWait{*bus, blocking, FastWait::Linger::Never};
    FastWait lingeringWait{*bus, blocking, FastWait::Linger::InAStream};

    void SetUp() override { ASSERT_TRUE(bus.isReady); }

    /// Registers before the events thread runs: a registration wakes it, and a push could meet that.
    std::shared_ptr<message_bus::MessageBus> MakeBus() {
        auto made = std::make_shared<message_bus::MessageBus>();
        EXPECT_EQ(made->RegisterPublisher("heat", publisher), ResultCode::Success);
        EXPECT_EQ(made->RegisterSubscriber("reader", {"heat"}, subscriber), ResultCode::Success);
        EXPECT_EQ(made->RegisterSubscriber("later", {"heat"}, later), ResultCode::Success);
        return made;
    }

    void TakeAStream(long id);
    int TimedSleepsOfWait(FastWait& worker, long id);

    /// Waits until it is in the subscriber's queue, and forgets how it got there.
    void Deliver(long value) {
        ASSERT_EQ(bus->Push(publisher, value), ResultCode::Success);
        ASSERT_EQ(WaitOn(*bus, later), Delivered("heat", value));
        ASSERT_TRUE(fault_points::AwaitSleepingOnCondition(bus.eventsThread));
        journal.Clear();
    }
};

/// Lets `id` take so many values in a row, from its queue, that more are due any moment.
void FastWaitTest::TakeAStream(long id) {
    const auto queued = bus->GetSubscriberPtrById(id);
    for (long i = 0; i < 16; ++i) {
        queued->queue.Enqueue(std::make_shared<message_bus::Message>("heat", i));
    }
    for (long i = 0; i < 16; ++i) {
        ASSERT_EQ(WaitOn(lingeringWait, id), Delivered("heat", i));
    }
}

/// How often a wait that finds nothing sleeps with a time-out before it hands over.
int FastWaitTest::TimedSleepsOfWait(FastWait& worker, long id) {
    journal.Clear();
    PendingWait waiting(worker, id);
    EXPECT_TRUE(journal.Await("SwitchActiveIpcServer"));
    bus->GetSubscriberPtrById(id)->queue.Enqueue(std::make_shared<message_bus::Message>("heat", 99));
    EXPECT_EQ(waiting.Get(), Delivered("heat", 99));
    return blocking.timedSleeps;
}

TEST_F(FastWaitTest, Wait_WithQueuedValues_TakesThemInOrderWithoutAHandOver) {
    Deliver(1);
    Deliver(2);
    EXPECT_EQ(WaitOn(fastWait, subscriber), Delivered("heat", 1));
    EXPECT_EQ(WaitOn(fastWait, subscriber), Delivered("heat", 2));
    const std::string line = "1 Wait: Wait is called by subscriber (" + std::to_string(subscriber) + ")";
    EXPECT_THAT(journal.All(), ElementsAre(line, line));
}

TEST_F(FastWaitTest, Wait_WithAnEmptyQueue_BlocksInTheBusAfterItsHandOver) {
    journal.Clear();
    PendingWait waiting(fastWait, subscriber);
    ASSERT_TRUE(journal.Await("SwitchActiveIpcServer"));
    EXPECT_EQ(journal.Logs(),
              std::vector<std::string>{"1 Wait: Wait is called by subscriber (" + std::to_string(subscriber) + ")"});
    ASSERT_EQ(bus->Push(publisher, 3), ResultCode::Success);
    EXPECT_EQ(waiting.Get(), Delivered("heat", 3));
}

TEST_F(FastWaitTest, Wait_OfSomebodyUnknown_IsRefusedByTheBus) {
    journal.Clear();
    EXPECT_EQ(WaitOn(fastWait, -1), NotDelivered(2));
    EXPECT_EQ(WaitOn(fastWait, 4711), NotDelivered(1));
    EXPECT_THAT(journal.All(), ElementsAre("1 Wait: Wait is called by subscriber (-1)",
                                           "4 Wait: [MessageBus]: The clientID is not registered",
                                           "1 Wait: Wait is called by subscriber (4711)",
                                           "4 Wait: [MessageBus]: The clientID is not registered"));
}

TEST_F(FastWaitTest, Wait_OnACanceledQueueWithValues_ReturnsOneAndLeavesTheOutputsAlone) {
    Deliver(1);
    bus->GetSubscriberPtrById(subscriber)->queue.Cancel();
    EXPECT_EQ(WaitOn(fastWait, subscriber), NotDelivered(1));
    EXPECT_THAT(journal.All(), ElementsAre("1 Wait: Wait is called by subscriber (" + std::to_string(subscriber) + ")",
                                           "1 Wait: [MessageBus]: Canceled"));
}

TEST_F(FastWaitTest, Wait_ThatFailsInside_ReturnsTenAndLogsWhy) {
    Deliver(1);
    log.Before("1 Wait: Wait is called", [] { throw std::runtime_error("out of paper"); });
    EXPECT_EQ(WaitOn(fastWait, subscriber), NotDelivered(10));
    EXPECT_THAT(journal.All(), ElementsAre("4 Wait: [MessageBus]: out of paper"));
}

TEST_F(FastWaitTest, Wait_WithoutMemoryForTheTopic_ReturnsTenAndLeavesTheOutputsAlone) {
    const std::string topic(100, 'x');
    bus->GetSubscriberPtrById(subscriber)->queue.Enqueue(std::make_shared<message_bus::Message>(topic, 1));
    log.SetThreshold(5); // a line would need memory before the topic does
    fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_EQ(WaitOn(fastWait, subscriber), NotDelivered(10));
}

TEST_F(FastWaitTest, Wait_InAStream_HoldsItsWorkerForAMomentBeforeItHandsOver) {
    // On a busy machine values may be too far apart for a stream; then there is another one.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool hasLingered = false;
    while (!hasLingered && std::chrono::steady_clock::now() < deadline) {
        TakeAStream(subscriber);
        hasLingered = TimedSleepsOfWait(lingeringWait, subscriber) == 1;
    }
    EXPECT_TRUE(hasLingered);
    EXPECT_EQ(TimedSleepsOfWait(lingeringWait, subscriber), 0) << "the stream has ended";
}

TEST_F(FastWaitTest, Wait_OfAnotherSubscriberThanTheStreams_HandsOverAtOnce) {
    TakeAStream(subscriber);
    EXPECT_EQ(TimedSleepsOfWait(lingeringWait, later), 0);
}

TEST_F(FastWaitTest, Wait_InAStreamWhereLingeringIsOff_HandsOverAtOnce) {
    for (int i = 0; i < 16; ++i) {
        bus->GetSubscriberPtrById(subscriber)->queue.Enqueue(std::make_shared<message_bus::Message>("heat", i));
        ASSERT_EQ(WaitOn(fastWait, subscriber), Delivered("heat", i));
    }
    EXPECT_EQ(TimedSleepsOfWait(fastWait, subscriber), 0);
}

} // namespace
