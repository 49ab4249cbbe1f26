// Defends publishing: the inbound limit, the silent success of unknown publishers, the order of delivery, and what the
// events thread does with a message. A value that is lost or doubled here is lost or doubled for every client.
#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <climits>
#include <stdexcept>

namespace {

using cor::ResultCode;
using message_bus::InboundState;
using message_bus::Message;
using message_bus::MessageBus;
using test_support::AwaitIdleEventsThread;
using test_support::Delivered;
using test_support::Gate;
using test_support::LogRecord;
using test_support::PendingWait;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Ne;
namespace fault_points = test_support::fault_points;

constexpr long InboundRoom = 1025;

class PushTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer;

    static void Throw() { throw std::runtime_error("out of paper"); }

    static long Publisher(MessageBus& target, const std::string& topic) {
        long id = -5;
        EXPECT_EQ(target.RegisterPublisher(topic, id), ResultCode::Success);
        return id;
    }
    static long Subscriber(MessageBus& target, const std::set<std::string>& topics) {
        long id = -5;
        EXPECT_EQ(target.RegisterSubscriber("reader", topics, id), ResultCode::Success);
        return id;
    }
    /// The registration's wake-up is over when this returns.
    static long Subscriber(RunningBus& running, const std::set<std::string>& topics) {
        long id = -5;
        EXPECT_TRUE(running.Settle([&] { id = Subscriber(*running, topics); }));
        return id;
    }
    /// Pushes until the bus rejects a push. Returns: how many it accepted.
    static long Fill(MessageBus& target, long publisher) {
        long accepted = 0;
        while (accepted <= 2 * InboundRoom && target.Push(publisher, accepted) == ResultCode::Success) {
            ++accepted;
        }
        return accepted;
    }

    MessageBus bus;
};

TEST_F(PushTest, Push_WithAnUndrainedQueue_Accepts1025AndRefusesTheNextWithTwoAndALine) {
    const long publisher = Publisher(bus, "heat");
    for (long value = 1; value <= InboundRoom; ++value) {
        ASSERT_EQ(bus.Push(publisher, value), ResultCode::Success) << value;
    }
    journal.Clear();
    EXPECT_EQ(bus.Push(publisher, 0), ResultCode::Exhausted);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 Push: [MessageBus]: Message queue is full"));
}

TEST_F(PushTest, Push_WithAFullQueue_ReturnsTwoEvenForAnUnknownPublisher) {
    EXPECT_EQ(Fill(bus, Publisher(bus, "heat")), InboundRoom);
    EXPECT_EQ(bus.Push(-1, 0), ResultCode::Exhausted);
}

TEST_F(PushTest, Push_OfAnUnknownPublisher_ReturnsZeroLogsNothingAndQueuesNothing) {
    const long publisher = Publisher(bus, "heat");
    journal.Clear();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(bus.Push(publisher + 1, 1), ResultCode::Success);
    }
    EXPECT_THAT(journal.Logs(), IsEmpty());
    EXPECT_EQ(Fill(bus, publisher), InboundRoom);
}

TEST_F(PushTest, Push_WithASubscribersId_IsThatOfAnUnknownPublisher) {
    Publisher(bus, "heat");
    const long subscriber = Subscriber(bus, {"heat"});
    journal.Clear();
    EXPECT_EQ(bus.Push(subscriber, 1), ResultCode::Success);
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(PushTest, Push_LogsTheTopicNotTheValue) {
    const long publisher = Publisher(bus, "heat");
    journal.Clear();
    EXPECT_EQ(bus.Push(publisher, 4711), ResultCode::Success);
    EXPECT_THAT(journal.Logs(), ElementsAre("1 Push: [MessageBus]: New message (heat) has been pushed to queue"));
}

TEST_F(PushTest, Push_WritesItsLineBeforeItQueuesSoThatAFailingLineQueuesNothingAndReturnsTen) {
    const long publisher = Publisher(bus, "heat");
    bool fail = true;
    log.Before("1 Push", [&] {
        if (std::exchange(fail, false)) {
            Throw();
        }
    });
    journal.Clear();
    EXPECT_EQ(bus.Push(publisher, 1), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 Push: [MessageBus]: out of paper"));
    EXPECT_EQ(Fill(bus, publisher), InboundRoom);
}

TEST_F(PushTest, Push_WithoutMemory_ReturnsTenAndReleasesItsLock) {
    const long publisher = Publisher(bus, "heat");
    log.SetThreshold(4);
    fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_EQ(bus.Push(publisher, 1), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(4), ElementsAre("4 Push: [MessageBus]: std::bad_alloc"));
    EXPECT_EQ(bus.Push(publisher, 1), ResultCode::Success);
}

TEST_F(PushTest, Push_LetsExceptionsPassThatAreNotStandardOnesAndReleasesItsLock) {
    const long publisher = Publisher(bus, "heat");
    log.Before("1 Push", [] { throw 42; });
    EXPECT_THROW(static_cast<void>(bus.Push(publisher, 1)), int);
    EXPECT_EQ(bus.Push(-1, 1), ResultCode::Success);
}

TEST_F(PushTest, Push_HoldsTheEventsLockThroughoutSoThatPushesTakeTurns) {
    const long publisher = Publisher(bus, "heat");
    Gate gate; // the last step of a push
    fault_points::BeforeNotifyOne([&] { gate.Pass(); });
    std::thread holding([&] { EXPECT_EQ(bus.Push(publisher, 1), ResultCode::Success); });
    gate.AwaitReached();
    EXPECT_EQ(journal.Count("1 Push: [MessageBus]: New message (heat) has been pushed to queue"), 1U);
    std::thread next([&] { EXPECT_EQ(bus.Push(-1, 2), ResultCode::Success); }); // wakes no thread
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(next.get_id()));
    gate.Open();
    holding.join();
    next.join();
}

TEST_F(PushTest, Push_AfterUnregistration_ReturnsZeroAndDeliversNothing) {
    RunningBus running;
    const long reader = Subscriber(running, {"heat", "light"});
    const long gone = Publisher(*running, "heat");
    const long publisher = Publisher(*running, "light");
    EXPECT_TRUE(running.Settle([&] { EXPECT_EQ(running->UnregisterPublisher(gone), ResultCode::Success); }));
    EXPECT_EQ(running->Push(gone, 1), ResultCode::Success);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(publisher, 2), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("light", 2));
}

TEST_F(PushTest, Push_WakesTheSleepingEventsThread) {
    RunningBus running;
    const long reader = Subscriber(running, {"heat"});
    const long publisher = Publisher(*running, "heat");
    for (long value : {1L, 2L, 3L}) {
        ASSERT_TRUE(running.AwaitIdle());
        EXPECT_EQ(running->Push(publisher, value), ResultCode::Success);
        EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", value));
    }
}

TEST_F(PushTest, Push_KeepsEveryBitOfTheValue) {
    RunningBus running;
    const long reader = Subscriber(running, {"heat"});
    const long publisher = Publisher(*running, "heat");
    for (long value : {LONG_MIN, LONG_MAX, -1L, 0L}) {
        ASSERT_TRUE(running.AwaitIdle());
        EXPECT_EQ(running->Push(publisher, value), ResultCode::Success);
        EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", value));
    }
}

// -------------------------------------------------------------------------------------------------- EventsProcessor

TEST_F(PushTest, EventsThread_LogsItsStartAndItsEnd) {
    bus.Start();
    ASSERT_NE(AwaitIdleEventsThread(bus), std::thread::id());
    bus.Stop();
    EXPECT_TRUE(journal.Await("2 EventsProcessor: [MessageBus]: queue thread stopped"));
    EXPECT_EQ(journal.Logs().size(), 2U);
}

TEST_F(PushTest, EventsThread_DeliversInPushOrderAcrossTopicsAndToEverySubscriberOfTheTopic) {
    const auto prepared = std::make_shared<MessageBus>();
    const long both = Subscriber(*prepared, {"heat", "light"});
    const long one = Subscriber(*prepared, {"light"});
    const long heat = Publisher(*prepared, "heat");
    const long light = Publisher(*prepared, "light");
    EXPECT_EQ(prepared->Push(heat, 1), ResultCode::Success);
    EXPECT_EQ(prepared->Push(light, 2), ResultCode::Success);
    EXPECT_EQ(prepared->Push(heat, 3), ResultCode::Success);
    RunningBus running(prepared);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(light, 4), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, both), Delivered("heat", 1));
    EXPECT_EQ(WaitOn(*running, both), Delivered("light", 2));
    EXPECT_EQ(WaitOn(*running, both), Delivered("heat", 3));
    EXPECT_EQ(WaitOn(*running, both), Delivered("light", 4));
    EXPECT_EQ(WaitOn(*running, one), Delivered("light", 2));
    EXPECT_EQ(WaitOn(*running, one), Delivered("light", 4));
}

TEST_F(PushTest, EventsThread_MatchesTopicsExactly) {
    RunningBus running;
    const long near = Subscriber(running, {"hea", "heatt", "Heat", ""});
    const long reader = Subscriber(running, {"heat"});
    const long publisher = Publisher(*running, "heat");
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
    EXPECT_EQ(running->GetSubscriberPtrById(near)->queue.Size(), 0U);
}

TEST_F(PushTest, EventsThread_SharesOneRecordAmongTheQueuesOfATopic) {
    const auto prepared = std::make_shared<MessageBus>();
    const auto first = prepared->GetSubscriberPtrById(Subscriber(*prepared, {"heat"}));
    const auto second = prepared->GetSubscriberPtrById(Subscriber(*prepared, {"heat"}));
    EXPECT_EQ(prepared->Push(Publisher(*prepared, "heat"), 5), ResultCode::Success);
    RunningBus running(prepared);
    Subscriber(running, {}); // wakes the events thread
    std::shared_ptr<Message> ofFirst;
    std::shared_ptr<Message> ofSecond;
    ASSERT_TRUE(first->queue.Pop(ofFirst, 0));
    ASSERT_TRUE(second->queue.Pop(ofSecond, 0));
    EXPECT_EQ(ofFirst, ofSecond);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(ofFirst.use_count(), 2); // the events thread has released its own reference
}

TEST_F(PushTest, EventsThread_DiscardsAMessageThatNobodyWantsWithoutALine) {
    RunningBus running;
    const long publisher = Publisher(*running, "heat");
    const long lightPublisher = Publisher(*running, "light");
    const long witness = Subscriber(running, {"light"});
    ASSERT_TRUE(running.AwaitIdle());
    journal.Clear();
    EXPECT_EQ(running->Push(publisher, 1), ResultCode::Success);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(lightPublisher, 2), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, witness), Delivered("light", 2)); // so the message before it has been handled
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_THAT(journal.Records(), Each(Field(&LogRecord::function, Ne("EventsProcessor"))));
    const long late = Subscriber(running, {"heat"});
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(publisher, 3), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, late), Delivered("heat", 3));
}

TEST_F(PushTest, EventsThread_DeliversToWhoeverIsRegisteredWhenItProcessesTheMessage) {
    const auto prepared = std::make_shared<MessageBus>();
    const long gone = Subscriber(*prepared, {"heat"});
    const long publisher = Publisher(*prepared, "heat");
    EXPECT_EQ(prepared->Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(prepared->UnregisterSubscriber(gone), ResultCode::Success);
    const long late = Subscriber(*prepared, {"heat"}); // registered after the push
    RunningBus running(prepared);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(publisher, 2), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, late), Delivered("heat", 1));
    EXPECT_EQ(WaitOn(*running, late), Delivered("heat", 2));
}

TEST_F(PushTest, EventsThread_DrainsWithoutTheEventsLock) {
    RunningBus running;
    const long reader = Subscriber(running, {"heat"});
    const long leaving = Subscriber(running, {"heat"});
    const long publisher = Publisher(*running, "heat");
    ASSERT_TRUE(running.AwaitIdle());
    Gate gate; // holds the subscribers' lock, so that the drain cannot begin
    log.Before("1 UnregisterSubscriber", [&] { gate.Pass(); });
    std::thread unregistering([&] { EXPECT_EQ(running->UnregisterSubscriber(leaving), ResultCode::Success); });
    gate.AwaitReached();
    EXPECT_EQ(running->Push(publisher, 1), ResultCode::Success);
    ASSERT_TRUE(fault_points::AwaitBlockedOnMutex(running.eventsThread));
    EXPECT_EQ(running->Push(publisher, 2), ResultCode::Success);
    gate.Open();
    unregistering.join();
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 2));
}

TEST_F(PushTest, EventsThread_HoldsTheSubscribersLockWhileItDelivers) {
    RunningBus running;
    const long reader = Subscriber(running, {"heat"});
    const auto record = running->GetSubscriberPtrById(reader);
    const long publisher = Publisher(*running, "heat");
    Gate gate; // holds the queue's lock, so that the delivery cannot end
    Message former("", 0);
    std::shared_ptr<Message> element(&former, [&](Message*) { gate.Pass(); });
    record->queue.Enqueue(std::make_shared<Message>("heat", 1));
    std::thread taking([&] { record->queue.Pop(element, 0); });
    gate.AwaitReached();
    EXPECT_EQ(running->Push(publisher, 2), ResultCode::Success);
    ASSERT_TRUE(fault_points::AwaitBlockedOnMutex(running.eventsThread));
    std::promise<long> found;
    std::thread looking([&] { found.set_value(running->GetSubscriberPtrById(reader)->id); });
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(looking.get_id()));
    gate.Open();
    taking.join();
    looking.join();
    EXPECT_EQ(found.get_future().get(), reader);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 2));
}

TEST_F(PushTest, EventsThread_OffersAMessageInRegistrationOrderAndEndsWithALineWhenItFails) {
    RunningBus running;
    const long publisher = Publisher(*running, "heat");
    const auto first = running->GetSubscriberPtrById(Subscriber(running, {"heat"}));
    const auto second = running->GetSubscriberPtrById(Subscriber(running, {"heat"}));
    ASSERT_TRUE(running.AwaitIdle());
    fault_points::FailAllocation(running.eventsThread, 1);
    EXPECT_EQ(running->Push(publisher, 1), ResultCode::Success);
    ASSERT_TRUE(journal.Await("4 EventsProcessor: [MessageBus]: error occurred: std::bad_alloc"));
    EXPECT_EQ(first->queue.Size(), 1U);
    EXPECT_EQ(second->queue.Size(), 0U);
    // The thread is not started again, and it has released its locks.
    EXPECT_EQ(running->UnregisterSubscriber(first->id), ResultCode::Success);
    EXPECT_EQ(Fill(*running, publisher), InboundRoom);
    running.Stop();
    EXPECT_EQ(journal.Count("2 EventsProcessor: [MessageBus]: queue thread stopped"), 0U);
}

TEST_F(PushTest, EventsThread_WhoseFirstLineThrows_EndsWithALine) {
    log.Before("2 EventsProcessor", Throw);
    bus.Start();
    EXPECT_TRUE(journal.Await("4 EventsProcessor: [MessageBus]: error occurred: out of paper"));
    EXPECT_EQ(Fill(bus, Publisher(bus, "heat")), InboundRoom);
}

TEST_F(PushTest, EventsThread_DrainsAFullQueueAndMakesRoom) {
    const auto prepared = std::make_shared<MessageBus>();
    const long publisher = Publisher(*prepared, "heat");
    EXPECT_EQ(Fill(*prepared, publisher), InboundRoom);
    EXPECT_EQ(prepared->InboundSize(), static_cast<std::size_t>(InboundRoom));
    RunningBus running(prepared);
    const long reader = Subscriber(running, {"heat"});
    for (long value = 0; value < InboundRoom; ++value) {
        ASSERT_EQ(WaitOn(*running, reader), Delivered("heat", value));
    }
    EXPECT_EQ(running->Push(publisher, 1), ResultCode::Success);
}

TEST_F(PushTest, Inbound_IsEmptyOrAnnouncedOrLeftBehind) {
    const auto prepared = std::make_shared<MessageBus>();
    const long publisher = Publisher(*prepared, "heat");
    EXPECT_EQ(prepared->Inbound(), InboundState::Empty);
    ASSERT_EQ(prepared->Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(prepared->Inbound(), InboundState::Announced);
    RunningBus running(prepared); // forgets the wake-up
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(prepared->Inbound(), InboundState::LeftBehind);
    ASSERT_TRUE(running.Settle([&] { prepared->Push(publisher, 2); }));
    EXPECT_EQ(prepared->Inbound(), InboundState::Empty);
}

TEST_F(PushTest, DoubtfulPushes_LeavesOutAPushWithoutAWakeUpBeforeIt) {
    const long publisher = Publisher(bus, "heat");
    EXPECT_EQ(bus.Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(bus.DoubtfulPushes(), 0U);
}

TEST_F(PushTest, DoubtfulPushes_LeavesOutAPushBehindAQueuedMessage) {
    const long publisher = Publisher(bus, "heat");
    EXPECT_EQ(bus.Push(publisher, 1), ResultCode::Success); // and wakes
    EXPECT_EQ(bus.Push(publisher, 2), ResultCode::Success);
    EXPECT_EQ(bus.DoubtfulPushes(), 0U);
}

TEST_F(PushTest, DoubtfulPushes_CountsAPushToAnEmptyQueueThatMeetsAnEarlierWakeUp) {
    const long publisher = Publisher(bus, "heat");
    Subscriber(bus, {}); // wakes
    EXPECT_EQ(bus.Push(publisher + 9, 1), ResultCode::Success);
    EXPECT_EQ(bus.DoubtfulPushes(), 0U) << "nothing was queued";
    EXPECT_EQ(bus.Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(bus.DoubtfulPushes(), 1U);
    EXPECT_EQ(bus.Push(publisher, 2), ResultCode::Success);
    EXPECT_EQ(bus.DoubtfulPushes(), 1U);
}

TEST_F(PushTest, DoubtfulPushes_LeavesOutAPushThatFindsTheEventsThreadAsleep) {
    RunningBus running;
    const long publisher = Publisher(*running, "heat");
    const long reader = Subscriber(running, {"heat"});
    for (long value = 1; value <= 3; ++value) {
        ASSERT_TRUE(running.AwaitIdle());
        EXPECT_EQ(running->Push(publisher, value), ResultCode::Success);
        EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", value));
    }
    EXPECT_EQ(running->DoubtfulPushes(), 0U);
}

TEST_F(PushTest, SubscriberQueues_HaveNoLimit) {
    RunningBus running;
    log.SetThreshold(2);
    constexpr long rounds = 3;
    constexpr long perRound = 1000;
    const auto reader = running->GetSubscriberPtrById(Subscriber(running, {"heat"}));
    const long witness = Subscriber(running, {"light"});
    const long publisher = Publisher(*running, "heat");
    const long lightPublisher = Publisher(*running, "light");
    for (long round = 0; round < rounds; ++round) {
        for (long value = 0; value < perRound; ++value) {
            ASSERT_EQ(running->Push(publisher, value), ResultCode::Success);
        }
        ASSERT_TRUE(running.AwaitIdle());
        ASSERT_EQ(running->Push(lightPublisher, round), ResultCode::Success);
        ASSERT_EQ(WaitOn(*running, witness), Delivered("light", round)); // the last of the round
    }
    EXPECT_EQ(reader->queue.Size(), static_cast<std::size_t>(rounds * perRound));
}

} // namespace
