// Defends the registry of publishers and subscribers: result codes, ids, outputs, log lines and wake-ups. Clients rely
// on these numbers, operators on these lines.
#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <climits>
#include <set>
#include <stdexcept>

namespace {

using cor::ResultCode;
using message_bus::MessageBus;
using test_support::Delivered;
using test_support::Gate;
using test_support::NotDelivered;
using test_support::PendingWait;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

class RegistryTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer;

    static void Throw() { throw std::runtime_error("out of paper"); }
    static void ThrowForeign() { throw 42; }

    long Publisher(MessageBus& target, const std::string& topic) {
        long id = -5;
        EXPECT_EQ(target.RegisterPublisher(topic, id), ResultCode::Success);
        return id;
    }
    long Subscriber(MessageBus& target, const std::set<std::string>& topics, const std::string& name = "reader") {
        long id = -5;
        EXPECT_EQ(target.RegisterSubscriber(name, topics, id), ResultCode::Success);
        return id;
    }
    /// The registration's wake-up is over when this returns.
    long Subscriber(RunningBus& running, const std::set<std::string>& topics, const std::string& name = "reader") {
        long id = -5;
        EXPECT_TRUE(running.Settle([&] { id = Subscriber(*running, topics, name); }));
        return id;
    }

    MessageBus bus;
};

// ------------------------------------------------------------------------------------------------ RegisterPublisher

TEST_F(RegistryTest, RegisterPublisher_ReturnsZeroAndTheIdAndLogsTheCallersSlotBeforeTheNewId) {
    long id = 77;
    EXPECT_EQ(bus.RegisterPublisher("heat", id), ResultCode::Success);
    EXPECT_EQ(id, 1);
    EXPECT_THAT(journal.Logs(), ElementsAre("1 RegisterPublisher: [MessageBus]: RegisterPublisher id 77 topic heat",
                                            "1 RegisterPublisher: [MessageBus]: Publisher 1 registered"));
}

TEST_F(RegistryTest, RegisterPublisher_OfATakenTopic_ReturnsEightWritesMinusOneAndLogsIt) {
    Publisher(bus, "heat");
    journal.Clear();
    long id = 5;
    EXPECT_EQ(bus.RegisterPublisher("heat", id), ResultCode::Conflict);
    EXPECT_EQ(id, -1);
    EXPECT_THAT(journal.Logs(),
                ElementsAre("1 RegisterPublisher: [MessageBus]: RegisterPublisher id 5 topic heat",
                            "3 RegisterPublisher: [MessageBus]: the topic (heat) is already registered"));
}

TEST_F(RegistryTest, RegisterPublisher_OfATakenTopic_ConsumesNoIdAndLeavesTheFirstPublisherAlone) {
    const long first = Publisher(bus, "heat");
    long refused = 0;
    static_cast<void>(bus.RegisterPublisher("heat", refused));
    EXPECT_EQ(bus.GetPublisherTopicById(first), "heat");
    EXPECT_EQ(Publisher(bus, "light"), first + 1);
}

TEST_F(RegistryTest, Ids_OfPublishersAndSubscribers_ComeFromOneCounterThatBeginsAtOne) {
    EXPECT_EQ(Publisher(bus, "a"), 1);
    EXPECT_EQ(Subscriber(bus, {"a"}), 2);
    EXPECT_EQ(Publisher(bus, "b"), 3);
}

TEST_F(RegistryTest, Ids_AreNotReusedAfterUnregistration) {
    const long publisher = Publisher(bus, "a");
    const long subscriber = Subscriber(bus, {"a"});
    EXPECT_EQ(bus.UnregisterPublisher(publisher), ResultCode::Success);
    EXPECT_EQ(bus.UnregisterSubscriber(subscriber), ResultCode::Success);
    EXPECT_EQ(Publisher(bus, "a"), subscriber + 1);
}

TEST_F(RegistryTest, Topics_AreToldApartByEveryByteAndByLength) {
    const std::string withNul("a\0b", 3);
    Publisher(bus, "a");
    Publisher(bus, "A");
    Publisher(bus, "ab");
    const long id = Publisher(bus, withNul);
    EXPECT_EQ(bus.GetPublisherTopicById(id), withNul);
}

TEST_F(RegistryTest, RegisterPublisher_WhenTheFirstLineThrows_ReturnsTenLogsTheTextAndRegistersNothing) {
    log.Before("1 RegisterPublisher: [MessageBus]: RegisterPublisher", Throw);
    long id = 5;
    EXPECT_EQ(bus.RegisterPublisher("heat", id), ResultCode::Failed);
    EXPECT_EQ(id, 5);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 RegisterPublisher: [MessageBus]: out of paper"));
    EXPECT_EQ(bus.GetPublisherTopicById(1), "");
}

TEST_F(RegistryTest, RegisterPublisher_WhenTheLastLineThrows_ReturnsTenAndKeepsTheRegistration) {
    log.Before("1 RegisterPublisher: [MessageBus]: Publisher 1", Throw);
    long id = 5;
    EXPECT_EQ(bus.RegisterPublisher("heat", id), ResultCode::Failed);
    EXPECT_EQ(id, 1);
    EXPECT_EQ(bus.GetPublisherTopicById(1), "heat"); // the lock is released, too
}

TEST_F(RegistryTest, RegisterPublisher_WithoutMemory_ReturnsTenAndCanBeRepeated) {
    log.SetThreshold(4);
    fault_points::FailAllocation(std::this_thread::get_id());
    long id = 5;
    EXPECT_EQ(bus.RegisterPublisher("heat", id), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 RegisterPublisher: [MessageBus]: std::bad_alloc"));
    EXPECT_EQ(bus.RegisterPublisher("heat", id), ResultCode::Success);
}

TEST_F(RegistryTest, RegisterPublisher_WithLevelsDisabled_LogsNothingAndGivesTheSameResults) {
    log.SetThreshold(5);
    EXPECT_EQ(Publisher(bus, "heat"), 1);
    long id = 5;
    EXPECT_EQ(bus.RegisterPublisher("heat", id), ResultCode::Conflict);
    EXPECT_EQ(id, -1);
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(RegistryTest, RegisterPublisher_OfTheEmptyTopic_SucceedsButItsPushesVanish) {
    const long id = Publisher(bus, "");
    journal.Clear();
    EXPECT_EQ(bus.Push(id, 1), ResultCode::Success);
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(RegistryTest, RegisterPublisher_HoldsThePublishersLockToItsLastLine) {
    Gate gate;
    log.Before("1 RegisterPublisher: [MessageBus]: Publisher 1", [&] { gate.Pass(); });
    std::thread registering([&] { Publisher(bus, "heat"); });
    gate.AwaitReached();
    std::promise<std::string> topic;
    std::thread looking([&] { topic.set_value(bus.GetPublisherTopicById(1)); });
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(looking.get_id()));
    gate.Open();
    EXPECT_EQ(topic.get_future().get(), "heat");
    registering.join();
    looking.join();
}

TEST_F(RegistryTest, RegisterPublisher_LogsItsFirstLineWithoutTheLock) {
    Gate gate;
    log.Before("1 RegisterPublisher: [MessageBus]: RegisterPublisher id 5", [&] { gate.Pass(); });
    std::thread registering([&] {
        long id = 5;
        static_cast<void>(bus.RegisterPublisher("heat", id));
    });
    gate.AwaitReached();
    EXPECT_EQ(bus.GetPublisherTopicById(1), "");
    gate.Open();
    registering.join();
}

// ----------------------------------------------------------------------------------------------- RegisterSubscriber

TEST_F(RegistryTest, RegisterSubscriber_ReturnsZeroAndTheIdAndLogsIt) {
    long id = 77;
    EXPECT_EQ(bus.RegisterSubscriber("reader", {"heat"}, id), ResultCode::Success);
    EXPECT_EQ(id, 1);
    EXPECT_THAT(journal.Logs(), ElementsAre("1 RegisterSubscriber: [MessageBus]: Subscriber with ID 1 registered"));
}

TEST_F(RegistryTest, RegisterSubscriber_KeepsNameAndTopicsWithAnEmptyOpenQueue) {
    const auto subscriber = bus.GetSubscriberPtrById(Subscriber(bus, {"heat", "light"}, "reader"));
    ASSERT_TRUE(subscriber);
    EXPECT_EQ(subscriber->id, 1);
    EXPECT_EQ(subscriber->name, "reader");
    EXPECT_THAT(subscriber->topics, testing::UnorderedElementsAre("heat", "light"));
    EXPECT_EQ(subscriber->queue.Size(), 0U);
    EXPECT_FALSE(subscriber->queue.IsCanceled());
}

TEST_F(RegistryTest, RegisterSubscriber_ThatFails_StillConsumesAnIdAndHandsItOut) {
    log.SetThreshold(4);
    const std::set<std::string> topics{"heat"};
    fault_points::FailAllocation(std::this_thread::get_id());
    long id = 77;
    EXPECT_EQ(bus.RegisterSubscriber("reader", topics, id), ResultCode::Failed);
    EXPECT_EQ(id, 1);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 RegisterSubscriber: [MessageBus]: std::bad_alloc"));
    EXPECT_FALSE(bus.GetSubscriberPtrById(1));
    EXPECT_EQ(Subscriber(bus, {"heat"}), 2);
}

TEST_F(RegistryTest, RegisterSubscriber_WhoseLineThrows_ReturnsTenWithTheSubscriberRegistered) {
    log.Before("1 RegisterSubscriber", Throw);
    long id = 77;
    EXPECT_EQ(bus.RegisterSubscriber("reader", {}, id), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 RegisterSubscriber: [MessageBus]: out of paper"));
    EXPECT_TRUE(bus.GetSubscriberPtrById(id));
}

TEST_F(RegistryTest, RegisterSubscriber_LogsWithoutTheLock) {
    Gate gate;
    log.Before("1 RegisterSubscriber", [&] { gate.Pass(); });
    std::thread registering([&] { Subscriber(bus, {}); });
    gate.AwaitReached();
    EXPECT_TRUE(bus.GetSubscriberPtrById(1));
    gate.Open();
    registering.join();
}

TEST_F(RegistryTest, RegisterSubscriber_AcceptsATakenNameAndTheFirstOfThatNameIsFound) {
    const long first = Subscriber(bus, {"heat"}, "reader");
    EXPECT_NE(Subscriber(bus, {"heat"}, "reader"), first);
    EXPECT_EQ(bus.GetSubscriberIdByName("reader"), first);
}

TEST_F(RegistryTest, RegisterSubscriber_WithoutTopics_SucceedsAndNeverReceives) {
    RunningBus running;
    const long deaf = Subscriber(running, {}, "deaf");
    const long reader = Subscriber(running, {"heat"});
    const long publisher = Publisher(*running, "heat");
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
    EXPECT_EQ(running->GetSubscriberPtrById(deaf)->queue.Size(), 0U);
}

TEST_F(RegistryTest, RegisterSubscriber_WakesTheEventsThreadAfterItIsListed) {
    const auto stranded = std::make_shared<MessageBus>();
    const long publisher = Publisher(*stranded, "heat");
    EXPECT_EQ(stranded->Push(publisher, 9), ResultCode::Success);
    RunningBus running(stranded); // Start forgets the wake-up of that push
    ASSERT_TRUE(running.AwaitIdle());
    bool wasListed = false;
    fault_points::BeforeNotifyOne([&] { wasListed = running->GetSubscriberPtrById(2) != nullptr; });
    const long late = Subscriber(*running, {"heat"});
    fault_points::BeforeNotifyOne(nullptr);
    EXPECT_TRUE(wasListed);
    EXPECT_EQ(WaitOn(*running, late), Delivered("heat", 9));
}

TEST_F(RegistryTest, RegisterSubscriber_OfATopicThatNobodyPublishesYet_ReceivesItOnceSomebodyDoes) {
    RunningBus running;
    const long reader = Subscriber(running, {"heat"});
    EXPECT_EQ(running->Push(Publisher(*running, "heat"), 1), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1));
}

// ---------------------------------------------------------------------------------------------- UnregisterPublisher

TEST_F(RegistryTest, UnregisterPublisher_ReturnsZeroAndLogsTwoLines) {
    const long id = Publisher(bus, "heat");
    journal.Clear();
    EXPECT_EQ(bus.UnregisterPublisher(id), ResultCode::Success);
    EXPECT_THAT(journal.Logs(),
                ElementsAre("1 UnregisterPublisher: [MessageBus]: The publisher ID (1) has been removed",
                            "1 UnregisterPublisher: [MessageBus]: The publisher with ID 1 unregistered"));
    EXPECT_EQ(bus.GetPublisherTopicById(id), "");
}

TEST_F(RegistryTest, UnregisterPublisher_OfAnUnknownId_ReturnsEightAndLogsIt) {
    EXPECT_EQ(bus.UnregisterPublisher(-9000), ResultCode::Conflict);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 UnregisterPublisher: [MessageBus]: The publisher ID (-9000) not found"));
}

TEST_F(RegistryTest, UnregisterPublisher_OfASubscribersId_ReturnsEight) {
    const long subscriber = Subscriber(bus, {"heat"});
    EXPECT_EQ(bus.UnregisterPublisher(subscriber), ResultCode::Conflict);
    EXPECT_TRUE(bus.GetSubscriberPtrById(subscriber));
}

TEST_F(RegistryTest, UnregisterPublisher_FreesOnlyItsOwnTopicForANewId) {
    const long first = Publisher(bus, "heat");
    const long other = Publisher(bus, "light");
    EXPECT_EQ(bus.UnregisterPublisher(first), ResultCode::Success);
    EXPECT_EQ(bus.GetPublisherTopicById(other), "light");
    EXPECT_EQ(Publisher(bus, "heat"), other + 1);
}

TEST_F(RegistryTest, UnregisterPublisher_OfAnUnknownId_StillWakesTheEventsThread) {
    const auto stranded = std::make_shared<MessageBus>();
    const long reader = Subscriber(*stranded, {"heat"});
    EXPECT_EQ(stranded->Push(Publisher(*stranded, "heat"), 9), ResultCode::Success);
    RunningBus running(stranded);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->UnregisterPublisher(-9000), ResultCode::Conflict);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 9));
}

TEST_F(RegistryTest, UnregisterPublisher_WakesTheEventsThreadBeforeItTakesTheLock) {
    const auto stranded = std::make_shared<MessageBus>();
    const long reader = Subscriber(*stranded, {"heat"});
    EXPECT_EQ(stranded->Push(Publisher(*stranded, "heat"), 9), ResultCode::Success);
    RunningBus running(stranded);
    ASSERT_TRUE(running.AwaitIdle());
    Gate gate; // holds the publishers' lock
    log.Before("1 RegisterPublisher: [MessageBus]: Publisher 3", [&] { gate.Pass(); });
    std::thread registering([&] { Publisher(*running, "light"); });
    gate.AwaitReached();
    std::thread unregistering([&] { EXPECT_EQ(running->UnregisterPublisher(3), ResultCode::Success); });
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 9));
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(unregistering.get_id()));
    gate.Open();
    registering.join();
    unregistering.join();
}

TEST_F(RegistryTest, UnregisterPublisher_LeavesWhatWasPushedToBeDelivered) {
    const auto unstarted = std::make_shared<MessageBus>();
    const long reader = Subscriber(*unstarted, {"heat"});
    const long publisher = Publisher(*unstarted, "heat");
    EXPECT_EQ(unstarted->Push(publisher, 9), ResultCode::Success);
    EXPECT_EQ(unstarted->UnregisterPublisher(publisher), ResultCode::Success);
    const long successor = Publisher(*unstarted, "heat");
    RunningBus running(unstarted);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->Push(successor, 10), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 9));
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 10));
}

TEST_F(RegistryTest, UnregisterPublisher_HoldsThePublishersLockToItsLastLine) {
    const long id = Publisher(bus, "heat");
    Gate gate;
    log.Before("1 UnregisterPublisher: [MessageBus]: The publisher with ID", [&] { gate.Pass(); });
    std::thread unregistering([&] { EXPECT_EQ(bus.UnregisterPublisher(id), ResultCode::Success); });
    gate.AwaitReached();
    std::thread looking([&] { EXPECT_EQ(bus.GetPublisherTopicById(id), ""); });
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(looking.get_id()));
    gate.Open();
    unregistering.join();
    looking.join();
}

TEST_F(RegistryTest, UnregisterPublisher_WhoseLineThrows_ReturnsTenAndReleasesTheLock) {
    const long id = Publisher(bus, "heat");
    log.Before("1 UnregisterPublisher: [MessageBus]: The publisher ID", Throw);
    EXPECT_EQ(bus.UnregisterPublisher(id), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(4), ElementsAre("4 UnregisterPublisher: [MessageBus]: out of paper"));
    EXPECT_EQ(bus.GetPublisherTopicById(id), "");
}

// --------------------------------------------------------------------------------------------- UnregisterSubscriber

TEST_F(RegistryTest, UnregisterSubscriber_ReturnsZeroCancelsTheQueueAndLogsOneLine) {
    const long id = Subscriber(bus, {"heat"});
    const auto subscriber = bus.GetSubscriberPtrById(id);
    journal.Clear();
    EXPECT_EQ(bus.UnregisterSubscriber(id), ResultCode::Success);
    EXPECT_THAT(journal.Logs(),
                ElementsAre("1 UnregisterSubscriber: [MessageBus]: The subscriber ID (1) has been removed"));
    EXPECT_TRUE(subscriber->queue.IsCanceled());
    EXPECT_FALSE(bus.GetSubscriberPtrById(id));
}

TEST_F(RegistryTest, UnregisterSubscriber_OfAnUnknownId_ReturnsEightAndLogsIt) {
    EXPECT_EQ(bus.UnregisterSubscriber(12), ResultCode::Conflict);
    EXPECT_THAT(journal.Logs(),
                ElementsAre("4 UnregisterSubscriber: [MessageBus]: The subscriber with ID (12) not found"));
}

TEST_F(RegistryTest, UnregisterSubscriber_OfAPublishersId_ReturnsEight) {
    const long publisher = Publisher(bus, "heat");
    EXPECT_EQ(bus.UnregisterSubscriber(publisher), ResultCode::Conflict);
    EXPECT_EQ(bus.GetPublisherTopicById(publisher), "heat");
}

TEST_F(RegistryTest, UnregisterSubscriber_DropsTheRegistrysReferenceAndTheUnreadMessages) {
    const long id = Subscriber(bus, {"heat"});
    const long other = Subscriber(bus, {"heat"});
    const std::weak_ptr<message_bus::Subscriber> record = bus.GetSubscriberPtrById(id);
    auto message = std::make_shared<message_bus::Message>("heat", 1);
    const std::weak_ptr<message_bus::Message> unread = message;
    record.lock()->queue.Enqueue(std::move(message));
    EXPECT_EQ(bus.UnregisterSubscriber(id), ResultCode::Success);
    EXPECT_TRUE(record.expired());
    EXPECT_TRUE(unread.expired());
    EXPECT_TRUE(bus.GetSubscriberPtrById(other));
}

TEST_F(RegistryTest, UnregisterSubscriber_WhoseLineThrows_ReturnsTenAndReleasesTheLock) {
    const long id = Subscriber(bus, {"heat"});
    log.Before("1 UnregisterSubscriber", Throw);
    EXPECT_EQ(bus.UnregisterSubscriber(id), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(4), ElementsAre("4 UnregisterSubscriber: [MessageBus]: out of paper"));
    EXPECT_FALSE(bus.GetSubscriberPtrById(id));
}

TEST_F(RegistryTest, UnregisterSubscriber_HoldsTheSubscribersLockToItsLastLine) {
    const long id = Subscriber(bus, {"heat"});
    Gate gate;
    log.Before("1 UnregisterSubscriber", [&] { gate.Pass(); });
    std::thread unregistering([&] { static_cast<void>(bus.UnregisterSubscriber(id)); });
    gate.AwaitReached();
    std::thread registering([&] { Subscriber(bus, {}); });
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(registering.get_id()));
    gate.Open();
    unregistering.join();
    registering.join();
}

// --------------------------------------------------------------------------------------- exceptions that are not std

TEST_F(RegistryTest, Registration_LetsExceptionsPassThatAreNotStandardOnesAndReleasesItsLocks) {
    const long publisher = Publisher(bus, "heat");
    const long subscriber = Subscriber(bus, {"heat"});
    log.Before("1 ", ThrowForeign);
    long id = 0;
    EXPECT_THROW(static_cast<void>(bus.RegisterPublisher("light", id)), int);
    EXPECT_THROW(static_cast<void>(bus.RegisterSubscriber("reader", {}, id)), int);
    EXPECT_THROW(static_cast<void>(bus.UnregisterPublisher(publisher)), int);
    EXPECT_THROW(static_cast<void>(bus.UnregisterSubscriber(subscriber)), int);
    EXPECT_EQ(bus.GetPublisherTopicById(publisher), "");
    EXPECT_FALSE(bus.GetSubscriberPtrById(subscriber));
}

// ---------------------------------------------------------------------------------------------------------- look-ups

TEST_F(RegistryTest, GetPublisherTopicById_OfAnUnknownId_IsEmpty) {
    EXPECT_EQ(bus.GetPublisherTopicById(Subscriber(bus, {"heat"})), "");
    EXPECT_EQ(bus.GetPublisherTopicById(-1), "");
}

TEST_F(RegistryTest, GetSubscriberPtrById_SharesTheRecord) {
    const long id = Subscriber(bus, {"heat"});
    EXPECT_EQ(bus.GetSubscriberPtrById(id), bus.GetSubscriberPtrById(id));
    EXPECT_EQ(bus.GetSubscriberPtrById(id + 1), nullptr);
}

TEST_F(RegistryTest, GetSubscriberIdByName_WithoutAMatch_IsMinusOne) {
    EXPECT_EQ(bus.GetSubscriberIdByName("reader"), -1);
    Subscriber(bus, {}, std::string("reader\0x", 8));
    EXPECT_EQ(bus.GetSubscriberIdByName("reader"), -1);
    EXPECT_EQ(bus.GetSubscriberIdByName("Reader"), -1);
    EXPECT_EQ(bus.GetSubscriberIdByName(std::string("reader\0x", 8)), 1);
}

TEST_F(RegistryTest, GetSubscriberIdByName_TakesNoLock) {
    const long kept = Subscriber(bus, {}, "kept");
    const long removed = Subscriber(bus, {}, "removed");
    Gate gate; // holds the subscribers' lock
    log.Before("1 UnregisterSubscriber", [&] { gate.Pass(); });
    std::thread unregistering([&] { static_cast<void>(bus.UnregisterSubscriber(removed)); });
    gate.AwaitReached();
    EXPECT_EQ(bus.GetSubscriberIdByName("kept"), kept);
    gate.Open();
    unregistering.join();
}

} // namespace
