// Defends the wait that never hands serving over: what it takes and for how long it blocks, that it leaves no trace
// when it has no answer, and that its answers and log lines are those of Wait.
#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <optional>
#include <set>
#include <stdexcept>

namespace {

using cor::ResultCode;
using message_bus::Message;
using message_bus::MessageBus;
using std::chrono::milliseconds;
using test_support::Delivered;
using test_support::NotDelivered;
using test_support::PendingWait;
using test_support::RunningBus;
using test_support::Waited;
using test_support::WaitOn;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

constexpr milliseconds Now{0};
constexpr milliseconds VeryLong{std::chrono::hours(1)};
constexpr auto CallLine = "1 Wait: Wait is called by subscriber (1)";
constexpr auto CancelLine = "1 Wait: [MessageBus]: Canceled";

/// Fails when TryWait returns nothing and has written an output.
std::optional<Waited> TryOn(message_bus::IReadyWorker& worker, long subscriberId, milliseconds linger) {
    Waited waited;
    const auto result = worker.TryWait(subscriberId, linger, waited.topic, waited.message);
    if (!result) {
        EXPECT_EQ(waited, NotDelivered(0)) << "the outputs are left alone";
        return std::nullopt;
    }
    waited.result = *result;
    return waited;
}

/// A TryWait on a thread of its own.
class PendingTry final {
public:
    PendingTry(message_bus::IReadyWorker& worker, long subscriberId, milliseconds linger)
        : thread([this, &worker, subscriberId, linger] { result = TryOn(worker, subscriberId, linger); }),
          id(thread.get_id()) {}
    ~PendingTry() {
        if (thread.joinable()) {
            thread.join();
        }
    }
    PendingTry(const PendingTry&) = delete;
    PendingTry& operator=(const PendingTry&) = delete;

    [[nodiscard]] bool AwaitLingering() const { return fault_points::AwaitSleepingWithDeadline(id); }

    std::optional<Waited> Get() {
        thread.join();
        return result;
    }

private:
    std::optional<Waited> result; // written by the thread, read after its join
    std::thread thread;
    std::thread::id id;
};

class TryWaitTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer;

    static void Throw() { throw std::runtime_error("out of paper"); }

    long Subscriber() {
        long id = -5;
        EXPECT_TRUE(running.Settle(
            [&] { EXPECT_EQ(running->RegisterSubscriber("reader", {"heat"}, id), ResultCode::Success); }));
        return id;
    }
    message_bus::BlockingQueue<std::shared_ptr<Message>>& QueueOf(long subscriber) {
        return running->GetSubscriberPtrById(subscriber)->queue;
    }
    /// Puts a message into the subscriber's own queue, past the events thread.
    void Give(long subscriber, const std::string& topic, long value) {
        QueueOf(subscriber).Enqueue(std::make_shared<Message>(topic, value));
    }

    RunningBus running;
    const long reader = Subscriber();
};

TEST_F(TryWaitTest, TryWait_WithMessagesQueued_TakesThemOldestFirstWithoutAHandOver) {
    Give(reader, "heat", 1);
    Give(reader, "light", 2);
    Give(reader, "heat", 3);
    journal.Clear();
    EXPECT_EQ(TryOn(*running, reader, Now), Delivered("heat", 1));
    EXPECT_EQ(TryOn(*running, reader, VeryLong), Delivered("light", 2));
    EXPECT_EQ(TryOn(*running, reader, Now), Delivered("heat", 3));
    EXPECT_THAT(journal.All(), ElementsAre(CallLine, CallLine, CallLine));
}

TEST_F(TryWaitTest, TryWait_WithoutMessages_ReturnsNothingAtOnceAndSilently) {
    journal.Clear();
    const int sleeps = fault_points::SleepsWithDeadlineOfThisThread();
    EXPECT_EQ(TryOn(*running, reader, Now), std::nullopt);
    EXPECT_EQ(TryOn(*running, reader, milliseconds(-1)), std::nullopt);
    EXPECT_EQ(fault_points::SleepsWithDeadlineOfThisThread(), sleeps);
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(TryWaitTest, TryWait_OfAnUnknownId_ReturnsNothingAtOnceAndSilently) {
    long publisher = -5;
    EXPECT_EQ(running->RegisterPublisher("heat", publisher), ResultCode::Success);
    journal.Clear();
    const int sleeps = fault_points::SleepsWithDeadlineOfThisThread();
    for (const long id : {-1L, 99L, publisher}) {
        EXPECT_EQ(TryOn(*running, id, Now), std::nullopt) << id;
        EXPECT_EQ(TryOn(*running, id, VeryLong), std::nullopt) << id;
    }
    EXPECT_EQ(fault_points::SleepsWithDeadlineOfThisThread(), sleeps);
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(TryWaitTest, TryWait_AfterUnregistrationWithUnreadMessages_ReturnsNothing) {
    Give(reader, "heat", 1);
    EXPECT_EQ(running->UnregisterSubscriber(reader), ResultCode::Success);
    EXPECT_EQ(TryOn(*running, reader, VeryLong), std::nullopt);
}

TEST_F(TryWaitTest, TryWait_ThatLingers_TakesAMessageThatArrivesInTime) {
    journal.Clear();
    PendingTry lingering(*running, reader, VeryLong);
    EXPECT_TRUE(lingering.AwaitLingering());
    EXPECT_THAT(journal.All(), IsEmpty()) << "nothing is logged before there is a result";
    Give(reader, "heat", 7);
    EXPECT_EQ(lingering.Get(), Delivered("heat", 7));
    EXPECT_THAT(journal.Logs(), ElementsAre(CallLine));
    EXPECT_THAT(journal.Calls("SwitchActiveIpcServer"), IsEmpty());
}

TEST_F(TryWaitTest, TryWait_WhoseLingerEnds_ReturnsNothingAndSilently) {
    journal.Clear();
    const int sleeps = fault_points::SleepsWithDeadlineOfThisThread();
    EXPECT_EQ(TryOn(*running, reader, milliseconds(1)), std::nullopt);
    EXPECT_GT(fault_points::SleepsWithDeadlineOfThisThread(), sleeps);
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(TryWaitTest, TryWait_WithALingerThatIsTooLongForAPop_StillLingersWithADeadline) {
    PendingTry lingering(*running, reader, milliseconds(1LL << 32)); // 0 in 32 bits, which a pop takes as no limit
    EXPECT_TRUE(lingering.AwaitLingering());
    Give(reader, "heat", 7);
    EXPECT_EQ(lingering.Get(), Delivered("heat", 7));
}

TEST_F(TryWaitTest, TryWait_ThatLingersWhenItsSubscriberIsUnregistered_ReturnsOneAndLogsIt) {
    PendingTry lingering(*running, reader, VeryLong);
    EXPECT_TRUE(lingering.AwaitLingering());
    EXPECT_EQ(running->UnregisterSubscriber(reader), ResultCode::Success);
    EXPECT_EQ(lingering.Get(), NotDelivered(1));
    EXPECT_EQ(journal.Count(CallLine), 1U);
    EXPECT_EQ(journal.Count(CancelLine), 1U);
    EXPECT_THAT(journal.Calls("SwitchActiveIpcServer"), IsEmpty());
}

TEST_F(TryWaitTest, TryWait_WhoseQueueIsCanceledWithMessages_DropsTheMessageItTakesAndReturnsOne) {
    Give(reader, "heat", 1);
    QueueOf(reader).Cancel(); // as an unregistration after the look-up does
    journal.Clear();
    EXPECT_EQ(TryOn(*running, reader, Now), NotDelivered(1));
    EXPECT_EQ(QueueOf(reader).Size(), 0U);
    EXPECT_THAT(journal.All(), ElementsAre(CallLine, CancelLine));
}

TEST_F(TryWaitTest, TryWait_WhoseQueueIsCanceledWithoutMessages_ReturnsOneIfItLingersAndElseNothing) {
    QueueOf(reader).Cancel();
    journal.Clear();
    EXPECT_EQ(TryOn(*running, reader, Now), std::nullopt);
    EXPECT_THAT(journal.All(), IsEmpty());
    EXPECT_EQ(TryOn(*running, reader, VeryLong), NotDelivered(1));
    EXPECT_THAT(journal.All(), ElementsAre(CallLine, CancelLine));
}

TEST_F(TryWaitTest, TryWait_BesideABlockedWait_TakesOneMessageAndLeavesItTheOther) {
    PendingWait blocked(*running, reader);
    EXPECT_TRUE(blocked.AwaitBlocked());
    PendingTry lingering(*running, reader, VeryLong);
    EXPECT_TRUE(lingering.AwaitLingering());
    Give(reader, "heat", 1);
    Give(reader, "heat", 2);
    const auto ofTry = lingering.Get();
    const auto ofWait = blocked.Get();
    ASSERT_TRUE(ofTry);
    EXPECT_EQ(ofTry->result, ResultCode::Success);
    EXPECT_EQ(ofWait.result, ResultCode::Success);
    EXPECT_EQ(ofTry->message + ofWait.message, 3);
}

TEST_F(TryWaitTest, TryWait_ReleasesTheMessageWhenItReturns) {
    auto message = std::make_shared<Message>("heat", 1);
    const std::weak_ptr<Message> record = message;
    QueueOf(reader).Enqueue(std::move(message));
    EXPECT_EQ(TryOn(*running, reader, Now), Delivered("heat", 1));
    EXPECT_TRUE(record.expired());
}

TEST_F(TryWaitTest, TryWait_OnABusThatNeverRan_TakesWhatIsQueued) {
    MessageBus idle;
    long id = 0;
    EXPECT_EQ(idle.RegisterSubscriber("reader", {}, id), ResultCode::Success);
    idle.GetSubscriberPtrById(id)->queue.Enqueue(std::make_shared<Message>("heat", 1));
    EXPECT_EQ(TryOn(idle, id, Now), Delivered("heat", 1));
}

TEST_F(TryWaitTest, TryWait_WithoutMemoryForTheTopic_ReturnsTenAndLeavesTheOutputs) {
    Give(reader, std::string(100, 'x'), 1);
    log.SetThreshold(4); // the first line would need memory before the topic does
    fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_EQ(TryOn(*running, reader, Now), NotDelivered(10));
    EXPECT_EQ(journal.Count("4 Wait: [MessageBus]: std::bad_alloc"), 1U);
}

TEST_F(TryWaitTest, TryWait_WhoseFirstLineThrows_ReturnsTenAndLogsTheText) {
    Give(reader, "heat", 1);
    log.Before(CallLine, Throw);
    journal.Clear();
    EXPECT_EQ(TryOn(*running, reader, Now), NotDelivered(10));
    EXPECT_THAT(journal.All(), ElementsAre("4 Wait: [MessageBus]: out of paper"));
}

TEST_F(TryWaitTest, TryWait_WhoseCancelLineThrows_ReturnsTenAndLogsTheText) {
    QueueOf(reader).Cancel();
    log.Before(CancelLine, Throw);
    journal.Clear();
    EXPECT_EQ(TryOn(*running, reader, VeryLong), NotDelivered(10));
    EXPECT_THAT(journal.All(), ElementsAre(CallLine, "4 Wait: [MessageBus]: out of paper"));
}

TEST_F(TryWaitTest, TryWait_WithoutAnyOfItsLocks_ReturnsTenAndLogsIt) {
    constexpr long locks = 4; // look-up, size, pop, canceled
    for (long skip = 0; skip < locks; ++skip) {
        Give(reader, "heat", skip);
        journal.Clear();
        fault_points::FailMutexLockOnThisThread(skip);
        EXPECT_EQ(TryOn(*running, reader, Now), NotDelivered(10)) << skip;
        EXPECT_THAT(journal.All(), ElementsAre(testing::StartsWith("4 Wait: [MessageBus]: "))) << skip;
    }
    EXPECT_EQ(QueueOf(reader).Size(), 3U) << "only the last one had taken its message";
}

TEST_F(TryWaitTest, TryWait_LetsExceptionsPassThatAreNotStandardOnes) {
    Give(reader, "heat", 1);
    log.Before(CallLine, [] { throw 42; });
    EXPECT_THROW(static_cast<void>(TryOn(*running, reader, Now)), int);
}

} // namespace
