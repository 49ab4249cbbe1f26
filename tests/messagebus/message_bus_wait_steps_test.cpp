// Defends the steps of a wait that never block: each message is taken once, and their lines and results are those of
// Wait. A worker that does not hand serving over is built of them.
#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <optional>
#include <stdexcept>

namespace {

using cor::ResultCode;
using message_bus::Message;
using message_bus::MessageBus;
using message_bus::Subscriber;
using test_support::PendingWait;
using test_support::RunningBus;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

constexpr auto CancelLine = "1 Wait: [MessageBus]: Canceled";

class WaitStepsTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer;

    static void Throw() { throw std::runtime_error("out of paper"); }

    void Give(const std::string& topic, long value) {
        subscriber.queue.Enqueue(std::make_shared<Message>(topic, value));
    }

    Subscriber subscriber;
    std::shared_ptr<Message> next;
};

TEST_F(WaitStepsTest, BeginWait_WritesTheFirstLineOfAWait) {
    MessageBus::BeginWait(7);
    EXPECT_THAT(journal.All(), ElementsAre("1 Wait: Wait is called by subscriber (7)"));
}

TEST_F(WaitStepsTest, TryTake_WithMessagesQueued_TakesTheOldestFirstAndSilently) {
    Give("heat", 1);
    Give("light", 2);
    EXPECT_EQ(MessageBus::TryTake(subscriber, next), ResultCode::Success);
    EXPECT_EQ(next->topic, "heat");
    EXPECT_EQ(next->value, 1);
    EXPECT_EQ(MessageBus::TryTake(subscriber, next), ResultCode::Success);
    EXPECT_EQ(next->topic, "light");
    EXPECT_EQ(next->value, 2);
    EXPECT_EQ(next.use_count(), 1) << "the queue keeps no reference";
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(WaitStepsTest, TryTake_WithoutMessages_ReturnsNothingAtOnceAndSilently) {
    EXPECT_EQ(MessageBus::TryTake(subscriber, next), std::nullopt);
    EXPECT_EQ(next, nullptr);
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(WaitStepsTest, TryTake_OfACanceledQueue_ReturnsOneAndLogsIt) {
    subscriber.queue.Cancel();
    EXPECT_EQ(MessageBus::TryTake(subscriber, next), ResultCode::NotRegistered);
    EXPECT_EQ(MessageBus::TryTake(subscriber, next), ResultCode::NotRegistered);
    EXPECT_THAT(journal.All(), ElementsAre(CancelLine, CancelLine));
}

TEST_F(WaitStepsTest, TryTake_OfACanceledQueueWithMessages_DropsTheOneItTakesAndReturnsOne) {
    Give("heat", 1);
    subscriber.queue.Cancel();
    EXPECT_EQ(MessageBus::TryTake(subscriber, next), ResultCode::NotRegistered);
    EXPECT_EQ(subscriber.queue.Size(), 0U);
    EXPECT_THAT(journal.All(), ElementsAre(CancelLine));
}

TEST_F(WaitStepsTest, TryTake_WhoseCancelLineThrows_ReturnsTenAndLogsTheText) {
    subscriber.queue.Cancel();
    log.Before(CancelLine, Throw);
    EXPECT_EQ(MessageBus::TryTake(subscriber, next), ResultCode::Failed);
    EXPECT_THAT(journal.All(), ElementsAre("4 Wait: [MessageBus]: out of paper"));
}

TEST_F(WaitStepsTest, TryTake_WithoutAnyOfItsLocks_ReturnsTenAndLogsIt) {
    constexpr long locks = 2; // pop, canceled
    for (long skip = 0; skip < locks; ++skip) {
        Give("heat", skip);
        journal.Clear();
        fault_points::FailMutexLockOnThisThread(skip);
        EXPECT_EQ(MessageBus::TryTake(subscriber, next), ResultCode::Failed) << skip;
        EXPECT_THAT(journal.All(), ElementsAre(testing::StartsWith("4 Wait: [MessageBus]: "))) << skip;
    }
    EXPECT_EQ(subscriber.queue.Size(), 1U) << "only the last one had taken its message";
}

TEST_F(WaitStepsTest, TryTake_LetsExceptionsPassThatAreNotStandardOnes) {
    subscriber.queue.Cancel();
    log.Before(CancelLine, [] { throw 42; });
    EXPECT_THROW(static_cast<void>(MessageBus::TryTake(subscriber, next)), int);
}

TEST_F(WaitStepsTest, TryTake_BesideABlockedWait_TakesOneMessageAndLeavesItTheOther) {
    RunningBus running;
    long id = 0;
    ASSERT_TRUE(
        running.Settle([&] { EXPECT_EQ(running->RegisterSubscriber("reader", {"heat"}, id), ResultCode::Success); }));
    const auto shared = running->GetSubscriberPtrById(id);
    PendingWait blocked(*running, id);
    ASSERT_TRUE(blocked.AwaitBlocked());
    EXPECT_EQ(MessageBus::TryTake(*shared, next), std::nullopt);
    shared->queue.Enqueue(std::make_shared<Message>("heat", 1));
    shared->queue.Enqueue(std::make_shared<Message>("heat", 2));
    const auto ofWait = blocked.Get();
    EXPECT_EQ(MessageBus::TryTake(*shared, next), ResultCode::Success);
    EXPECT_EQ(ofWait.message + next->value, 3);
}

TEST_F(WaitStepsTest, FailWait_WritesTheLineOfAFailedWaitAndReturnsTen) {
    EXPECT_EQ(MessageBus::FailWait(std::bad_alloc()), ResultCode::Failed);
    EXPECT_THAT(journal.All(), ElementsAre("4 Wait: [MessageBus]: std::bad_alloc"));
}

} // namespace
