// Defends the subscriber's wait: what it returns and writes in every case, that it hands serving over before it blocks,
// and that unregistration always ends it. A wait that misses its cancel holds a worker for good.
#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <set>
#include <stdexcept>

namespace {

using cor::ResultCode;
using message_bus::Message;
using message_bus::MessageBus;
using test_support::Delivered;
using test_support::NotDelivered;
using test_support::PendingWait;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

class WaitTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer;

    static void Throw() { throw std::runtime_error("out of paper"); }

    long Publisher(const std::string& topic) {
        long id = -5;
        EXPECT_EQ(running->RegisterPublisher(topic, id), ResultCode::Success);
        return id;
    }
    long Subscriber(const std::set<std::string>& topics = {"heat"}) {
        long id = -5;
        EXPECT_TRUE(
            running.Settle([&] { EXPECT_EQ(running->RegisterSubscriber("reader", topics, id), ResultCode::Success); }));
        return id;
    }
    /// Puts a message into the subscriber's own queue, past the events thread.
    void Give(long subscriber, const std::string& topic, long value) {
        running->GetSubscriberPtrById(subscriber)->queue.Enqueue(std::make_shared<Message>(topic, value));
    }

    RunningBus running;
};

TEST_F(WaitTest, Wait_OfIdMinusOne_ReturnsTwoAtOnceWithoutTheConnector) {
    journal.Clear();
    EXPECT_EQ(WaitOn(*running, -1), NotDelivered(2));
    EXPECT_THAT(journal.Logs(), ElementsAre("1 Wait: Wait is called by subscriber (-1)",
                                            "4 Wait: [MessageBus]: The clientID is not registered"));
    EXPECT_THAT(journal.Calls("SwitchActiveIpcServer"), IsEmpty());
}

TEST_F(WaitTest, Wait_OfAnUnknownId_ReturnsOneAtOnceWithoutTheConnector) {
    journal.Clear();
    EXPECT_EQ(WaitOn(*running, 99), NotDelivered(1));
    EXPECT_THAT(journal.Logs(), ElementsAre("1 Wait: Wait is called by subscriber (99)",
                                            "4 Wait: [MessageBus]: The clientID is not registered"));
    EXPECT_THAT(journal.Calls("SwitchActiveIpcServer"), IsEmpty());
}

TEST_F(WaitTest, Wait_OfAPublishersId_ReturnsOne) {
    EXPECT_EQ(WaitOn(*running, Publisher("heat")), NotDelivered(1));
}

TEST_F(WaitTest, Wait_WithMessagesQueued_ReturnsThemAtOnceOneByOneOldestFirst) {
    const long reader = Subscriber({"heat", "light"});
    Give(reader, "heat", 1);
    Give(reader, "light", 2);
    journal.Clear();
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
    EXPECT_EQ(WaitOn(*running, reader), Delivered("light", 2));
    EXPECT_THAT(journal.All(), ElementsAre("1 Wait: Wait is called by subscriber (1)", "SwitchActiveIpcServer",
                                           "1 Wait: Wait is called by subscriber (1)", "SwitchActiveIpcServer"));
}

TEST_F(WaitTest, Wait_ReleasesTheMessageWhenItReturns) {
    const long reader = Subscriber();
    auto message = std::make_shared<Message>("heat", 1);
    const std::weak_ptr<Message> record = message;
    running->GetSubscriberPtrById(reader)->queue.Enqueue(std::move(message));
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
    EXPECT_TRUE(record.expired());
}

TEST_F(WaitTest, Wait_WithoutMessages_BlocksUntilOneIsPushed) {
    const long reader = Subscriber();
    const long publisher = Publisher("heat");
    ASSERT_TRUE(running.AwaitIdle());
    PendingWait waiting(*running, reader);
    ASSERT_TRUE(waiting.AwaitBlocked());
    EXPECT_EQ(running->Push(publisher, 7), ResultCode::Success);
    EXPECT_EQ(waiting.Get(), Delivered("heat", 7));
}

TEST_F(WaitTest, Wait_CallsTheConnectorBeforeItTakesAMessage) {
    const long reader = Subscriber();
    Give(reader, "heat", 1);
    std::size_t queued = 0;
    running.connector->onSwitch = [&] {
        queued = running->GetSubscriberPtrById(reader)->queue.Size(); // the bus holds no lock here
        return ResultCode::Failed;                                    // the bus ignores the result
    };
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
    EXPECT_EQ(queued, 1U);
}

TEST_F(WaitTest, Wait_BlockedWhenItsSubscriberIsUnregistered_ReturnsOneLogsItAndLeavesTheOutputs) {
    const long reader = Subscriber();
    PendingWait waiting(*running, reader);
    ASSERT_TRUE(waiting.AwaitBlocked());
    journal.Clear();
    EXPECT_EQ(running->UnregisterSubscriber(reader), ResultCode::Success);
    EXPECT_EQ(waiting.Get(), NotDelivered(1));
    EXPECT_EQ(journal.Count("1 Wait: [MessageBus]: Canceled"), 1U);
    EXPECT_THAT(journal.Logs(2), IsEmpty());
}

TEST_F(WaitTest, Wait_WhoseSubscriberIsUnregisteredAfterTheLookUp_DropsTheMessageItTakesAndReturnsOne) {
    const long reader = Subscriber();
    Give(reader, "heat", 1);
    running.connector->onSwitch = [&] { return running->UnregisterSubscriber(reader); };
    journal.Clear();
    EXPECT_EQ(WaitOn(*running, reader), NotDelivered(1));
    EXPECT_THAT(journal.Logs(),
                ElementsAre("1 Wait: Wait is called by subscriber (1)",
                            "1 UnregisterSubscriber: [MessageBus]: The subscriber ID (1) has been removed",
                            "1 Wait: [MessageBus]: Canceled"));
}

TEST_F(WaitTest, Wait_AfterUnregistrationWithUnreadMessages_ReturnsOneNotTheMessages) {
    const long reader = Subscriber();
    Give(reader, "heat", 1);
    EXPECT_EQ(running->UnregisterSubscriber(reader), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, reader), NotDelivered(1));
}

TEST_F(WaitTest, Wait_KeepsTheRecordAliveWhileItIsBlockedAndReleasesItAfterwards) {
    const long reader = Subscriber();
    const std::weak_ptr<message_bus::Subscriber> record = running->GetSubscriberPtrById(reader);
    running.connector->onSwitch = [&] {
        EXPECT_EQ(running->UnregisterSubscriber(reader), ResultCode::Success);
        EXPECT_FALSE(record.expired());
        return ResultCode::Success;
    };
    EXPECT_EQ(WaitOn(*running, reader), NotDelivered(1));
    EXPECT_TRUE(record.expired());
}

TEST_F(WaitTest, Wait_TwiceAtOnceForOneSubscriber_TakesOneMessageEach) {
    const long reader = Subscriber();
    PendingWait first(*running, reader);
    PendingWait second(*running, reader);
    ASSERT_TRUE(first.AwaitBlocked());
    ASSERT_TRUE(second.AwaitBlocked());
    Give(reader, "heat", 1);
    Give(reader, "heat", 2);
    const auto ofFirst = first.Get();
    const auto ofSecond = second.Get();
    EXPECT_EQ(ofFirst.message + ofSecond.message, 3);
    EXPECT_EQ(ofFirst.result, ResultCode::Success);
    EXPECT_EQ(ofSecond.result, ResultCode::Success);
}

TEST_F(WaitTest, Wait_TwiceAtOnceForOneSubscriber_IsCanceledTwice) {
    const long reader = Subscriber();
    PendingWait first(*running, reader);
    PendingWait second(*running, reader);
    ASSERT_TRUE(first.AwaitBlocked());
    ASSERT_TRUE(second.AwaitBlocked());
    EXPECT_EQ(running->UnregisterSubscriber(reader), ResultCode::Success);
    EXPECT_EQ(first.Get(), NotDelivered(1));
    EXPECT_EQ(second.Get(), NotDelivered(1));
}

TEST_F(WaitTest, Wait_WhoseConnectorThrows_ReturnsTenLogsTheTextAndTakesNoMessage) {
    const long reader = Subscriber();
    Give(reader, "heat", 1);
    running.connector->onSwitch = []() -> ResultCode { throw std::runtime_error("no worker"); };
    journal.Clear();
    EXPECT_EQ(WaitOn(*running, reader), NotDelivered(10));
    EXPECT_THAT(journal.Logs(4), ElementsAre("4 Wait: [MessageBus]: no worker"));
    running.connector->onSwitch = nullptr;
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
}

TEST_F(WaitTest, Wait_WithoutMemoryForTheTopic_ReturnsTenAndLeavesTheOutputs) {
    const long reader = Subscriber();
    Give(reader, std::string(100, 'x'), 1);
    running.connector->onSwitch = [] {
        fault_points::FailAllocation(std::this_thread::get_id());
        return ResultCode::Success;
    };
    EXPECT_EQ(WaitOn(*running, reader), NotDelivered(10));
    EXPECT_EQ(journal.Count("4 Wait: [MessageBus]: std::bad_alloc"), 1U);
}

TEST_F(WaitTest, Wait_WhoseCancelLineThrows_ReturnsTen) {
    const long reader = Subscriber();
    running.connector->onSwitch = [&] { return running->UnregisterSubscriber(reader); };
    log.Before("1 Wait: [MessageBus]: Canceled", Throw);
    EXPECT_EQ(WaitOn(*running, reader), NotDelivered(10));
    EXPECT_EQ(journal.Count("4 Wait: [MessageBus]: out of paper"), 1U);
}

TEST_F(WaitTest, Wait_LetsExceptionsPassThatAreNotStandardOnes) {
    const long reader = Subscriber();
    running.connector->onSwitch = []() -> ResultCode { throw 42; };
    EXPECT_THROW(WaitOn(*running, reader), int);
}

TEST_F(WaitTest, Wait_WhoseFirstLinesThrow_LetsTheExceptionPass) {
    const long reader = Subscriber();
    log.Before("1 Wait: Wait is called", Throw);
    EXPECT_THROW(WaitOn(*running, reader), std::runtime_error);
}

TEST_F(WaitTest, Wait_OnABusThatNeverRan_IsRefusedWithTen) {
    MessageBus idle;
    long reader = 0;
    EXPECT_EQ(idle.RegisterSubscriber("reader", {}, reader), ResultCode::Success);
    EXPECT_EQ(WaitOn(idle, reader), NotDelivered(10));
    EXPECT_EQ(journal.Count("4 Wait: [MessageBus]: Wait before the bus runs"), 1U);
}

TEST_F(WaitTest, Stop_LeavesWaitingSubscribersBlocked) {
    const long reader = Subscriber();
    PendingWait waiting(*running, reader);
    ASSERT_TRUE(waiting.AwaitBlocked());
    running.Stop();
    ASSERT_TRUE(journal.Await("2 EventsProcessor: [MessageBus]: queue thread stopped"));
    EXPECT_TRUE(waiting.AwaitBlocked());
    Give(reader, "heat", 3);
    EXPECT_EQ(waiting.Get(), Delivered("heat", 3));
}

} // namespace
