// Defends the account of the bus: each value is counted where it goes, the terms add up at every moment, and clients
// that are gone stay in the sums.
#include "account/accounted_bus.h"

#include "instruments/read_account.h"
#include "parked_waits.h"
#include "push_turn.h"
#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using cor::ResultCode;
using instruments::AccountReader;
using instruments::Snapshot;
using msgbus_server::AccountedBus;
using msgbus_server::AccountKeeper;
using msgbus_server::Described;
using msgbus_server::ParkedWaits;
using msgbus_server::PushTurn;
using msgbus_server::QueueControl;
using msgbus_server::SubscriberWaits;
using test_support::RunningBus;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

constexpr instruments::AccountCapacities Small{
    .publishers = 300, .subscribers = 4, .clients = 4, .textBytes = 1U << 16, .latencyPages = 64};

/// Pushes to the bus, or fails as a bus without memory does.
class FailingProvider final : public message_bus::IProvider {
public:
    explicit FailingProvider(message_bus::IProvider& accepting) : provider(accepting) {}
    ResultCode Push(long publisherId, long message) override {
        return fails ? ResultCode::Failed : provider.Push(publisherId, message);
    }

    bool fails = false;

private:
    message_bus::IProvider& provider;
};

class AccountedBusTest : public test_support::BusTest {
protected:
    // A registration sleeps while a lost wake-up keeps values inbound; the harness would let it sleep until the stop.
    AccountedBusTest() {
        fault_points::SetSleep([](std::chrono::nanoseconds) { ::poll(nullptr, 0, 1); });
    }

    Snapshot Read() const {
        Snapshot snapshot = AccountReader(keeper.File().Memory()).Read();
        EXPECT_TRUE(snapshot.bus.AddsUp());
        for (const auto& subscriber : snapshot.subscribers) {
            EXPECT_TRUE(subscriber.flows.AddsUp());
        }
        return snapshot;
    }

    long Publisher(const std::string& topic) {
        long id = -1;
        EXPECT_EQ(bus.RegisterPublisher(topic, id), ResultCode::Success);
        return id;
    }

    long Subscriber(const std::string& name, const std::set<std::string>& topics) {
        long id = -1;
        EXPECT_EQ(bus.RegisterSubscriber(name, topics, id), ResultCode::Success);
        return id;
    }

    void PushAll(long publisher, std::initializer_list<long> values) {
        for (const long value : values) {
            EXPECT_EQ(pushes.Push(publisher, value), ResultCode::Success);
        }
    }

    /// Takes one value of a subscriber, and blocks until there is one.
    long Take(long subscriber) {
        std::string topic;
        long value = -1;
        EXPECT_EQ(waits.Wait(subscriber, topic, value), ResultCode::Success);
        return value;
    }

    void AwaitFannedOut(std::uint64_t count) const {
        while (Read().bus.fannedOut < count) {
            std::this_thread::yield();
        }
    }

    const fault_points::Disarmer disarmer{};
    RunningBus running;
    common::Mutex turn;
    AccountKeeper keeper{std::nullopt, Small, {"1.2.3", "--option", true}};
    ParkedWaits waits{*running, [this] { bus.NoteCopy(); }, Control(), false};
    FailingProvider provider{*running};
    AccountedBus bus{turn, *running, provider, keeper,
                     [this](long id, SubscriberWaits::Account account) { waits.Follow(id, 0, std::move(account)); }};
    PushTurn pushes{turn, bus};

private:
    static QueueControl Control() {
        QueueControl control;
        control.discrepancy = [](long id) { ADD_FAILURE() << "the account of subscriber " << id << " is wrong"; };
        return control;
    }
};

TEST_F(AccountedBusTest, AValue_IsCountedFromItsPushToItsTaking) {
    const long subscriber = Subscriber("reader", {"t"});
    const long publisher = Publisher("t");
    PushAll(publisher, {5, 6, 7});
    AwaitFannedOut(3);
    EXPECT_EQ(Take(subscriber), 5);
    const Snapshot snapshot = Read();
    EXPECT_EQ(snapshot.bus.accepted, 3U);
    EXPECT_EQ(snapshot.bus.inbound, 0U);
    ASSERT_THAT(snapshot.subscribers, SizeIs(1));
    const auto& flows = snapshot.subscribers[0].flows;
    EXPECT_EQ(flows.due, 3U);
    EXPECT_EQ(flows.taken, 1U);
    EXPECT_EQ(flows.queued, 2U);
    ASSERT_THAT(snapshot.publishers, SizeIs(1));
    EXPECT_EQ(snapshot.publishers[0].accepted, 3U);
    EXPECT_EQ(snapshot.publishers[0].lastValue, 7);
    EXPECT_TRUE(snapshot.publishers[0].smallestGap <= snapshot.publishers[0].largestGap);
}

TEST_F(AccountedBusTest, AValueWithoutASubscriber_IsCountedAsSuch) {
    Subscriber("reader", {"other"});
    const long publisher = Publisher("t");
    PushAll(publisher, {1, 2});
    Subscriber("late", {"t"}); // behind both
    PushAll(publisher, {3});
    AwaitFannedOut(1);
    const Snapshot snapshot = Read();
    EXPECT_EQ(snapshot.bus.accepted, 3U);
    EXPECT_EQ(snapshot.bus.withoutSubscriber, 2U);
    EXPECT_EQ(snapshot.publishers[0].withoutSubscriber, 2U);
    EXPECT_EQ(snapshot.bus.flows.due, 1U);
}

TEST_F(AccountedBusTest, AValueForSeveral_IsFannedOutOnceAndDueToEach) {
    Subscriber("a", {"t"});
    Subscriber("b", {"t", "u"});
    Subscriber("c", {"u"});
    const long t = Publisher("t");
    const long u = Publisher("u");
    PushAll(t, {1});
    PushAll(u, {2});
    PushAll(t, {3});
    AwaitFannedOut(3);
    const Snapshot snapshot = Read();
    std::vector<std::uint64_t> due;
    for (const auto& subscriber : snapshot.subscribers) {
        due.push_back(subscriber.flows.due);
    }
    EXPECT_THAT(due, ElementsAre(2, 3, 1));
    EXPECT_EQ(snapshot.bus.fannedOut, 3U);
}

TEST_F(AccountedBusTest, WhatASubscriberLeavesUnread_IsDroppedWithItAndStaysInTheSums) {
    const long subscriber = Subscriber("reader", {"t"});
    const long publisher = Publisher("t");
    PushAll(publisher, {1, 2, 3});
    AwaitFannedOut(3);
    Take(subscriber);
    EXPECT_EQ(bus.UnregisterSubscriber(subscriber), ResultCode::Success);
    const Snapshot snapshot = Read();
    EXPECT_THAT(snapshot.subscribers, IsEmpty());
    EXPECT_EQ(snapshot.bus.flows.due, 3U);
    EXPECT_EQ(snapshot.bus.flows.taken, 1U);
    EXPECT_EQ(snapshot.bus.flows.dropped.unregistered, 2U);
    EXPECT_EQ(snapshot.bus.discrepancies, 0U);
    EXPECT_EQ(snapshot.events.back().lost, 2U);
}

TEST_F(AccountedBusTest, ANewSubscriberInTheSlotOfAnother_BeginsWithNothing) {
    const long publisher = Publisher("t");
    for (int i = 0; i < 10; ++i) { // more than there are slots
        const long subscriber = Subscriber("reader", {"t"});
        PushAll(publisher, {1, 2});
        Take(subscriber);
        const Snapshot snapshot = Read();
        ASSERT_THAT(snapshot.subscribers, SizeIs(1));
        EXPECT_EQ(snapshot.subscribers[0].flows.taken, 1U);
        EXPECT_EQ(snapshot.subscribers[0].flows.dropped.Total(), 0U);
        bus.UnregisterSubscriber(subscriber);
    }
    EXPECT_EQ(Read().bus.flows.due, 20U);
    EXPECT_EQ(Read().bus.unlisted, 0U);
}

TEST_F(AccountedBusTest, ASubscriberWithoutASlot_IsServedAndCountedAsUnlisted) {
    for (int i = 0; i < 4; ++i) {
        Subscriber("listed", {});
    }
    const long subscriber = Subscriber("unlisted", {"t"});
    const long publisher = Publisher("t");
    PushAll(publisher, {9});
    EXPECT_EQ(Take(subscriber), 9);
    AwaitFannedOut(1);
    EXPECT_EQ(Read().bus.unlisted, 1U);
    EXPECT_EQ(bus.UnregisterSubscriber(subscriber), ResultCode::Success);
}

TEST_F(AccountedBusTest, AFullInboundQueue_RefusesAndIsCounted) {
    Subscriber("reader", {"t"});
    const long publisher = Publisher("t");
    std::atomic<bool> isHeld{true};
    // The events thread stops in a delivery of the bus itself, so that the queue fills behind it.
    struct Holder final : message_bus::IQueueListener {
        explicit Holder(std::atomic<bool>& flag) : isHeld(flag) {}
        void OnEnqueue() noexcept override { isHeld.wait(true); }
        void OnCancel() noexcept override {}
        std::atomic<bool>& isHeld;
    } holder(isHeld);
    long probe = -1;
    ASSERT_EQ(running->RegisterSubscriber("probe", {"held"}, probe), ResultCode::Success);
    running->GetSubscriberPtrById(probe)->queue.SetListener(&holder);
    long holding = -1;
    ASSERT_EQ(running->RegisterPublisher("held", holding), ResultCode::Success);
    ASSERT_EQ(running->Push(holding, 0), ResultCode::Success);
    while (running->InboundSize() != 0) {
        std::this_thread::yield();
    }
    std::uint64_t accepted = 0;
    while (pushes.Push(publisher, 1) == ResultCode::Success) {
        ++accepted;
    }
    EXPECT_EQ(accepted, 1025U);
    EXPECT_EQ(pushes.Push(publisher, 1), ResultCode::Exhausted);
    const Snapshot full = Read();
    EXPECT_EQ(full.bus.accepted, 1025U);
    EXPECT_EQ(full.bus.inbound, 1025U);
    EXPECT_EQ(full.bus.mostInbound, 1025U);
    EXPECT_EQ(full.bus.refusedFull, 2U);
    EXPECT_EQ(full.publishers[0].refusedFull, 2U);
    isHeld = false;
    isHeld.notify_all();
    AwaitFannedOut(1025);
    EXPECT_EQ(Read().bus.inbound, 0U);
    running->UnregisterSubscriber(probe);
}

TEST_F(AccountedBusTest, APushThatFails_LeavesNothing) {
    const long reader = Subscriber("reader", {"t"});
    const long publisher = Publisher("t");
    PushAll(publisher, {1});
    provider.fails = true;
    EXPECT_EQ(pushes.Push(publisher, 2), ResultCode::Failed);
    provider.fails = false;
    const Snapshot failed = Read();
    EXPECT_EQ(failed.bus.accepted, 1U);
    EXPECT_EQ(failed.publishers[0].accepted, 1U);
    PushAll(publisher, {3});
    EXPECT_EQ(Take(reader), 1);
    EXPECT_EQ(Take(reader), 3);
    provider.fails = true;
    EXPECT_EQ(pushes.Push(publisher, 4), ResultCode::Failed);
    provider.fails = false;
    Subscriber("another", {"t"}); // each value has two copies now
    PushAll(publisher, {5});
    EXPECT_EQ(Take(reader), 5);
    Subscriber("third", {"t"}); // when all that entered must have left
    const Snapshot snapshot = Read();
    EXPECT_EQ(snapshot.bus.fannedOut, 3U);
    EXPECT_EQ(snapshot.bus.discrepancies, 0U);
}

TEST_F(AccountedBusTest, APushOfAnUnknownPublisher_IsNotAccepted) {
    EXPECT_EQ(pushes.Push(77, 1), ResultCode::Success);
    EXPECT_EQ(Read().bus.accepted, 0U);
}

TEST_F(AccountedBusTest, ATopicThatLosesItsPublisher_KeepsItsLastValueForTheNextOne) {
    const long first = Publisher("t");
    PushAll(first, {1, 2});
    bus.UnregisterPublisher(first);
    const Snapshot left = Read();
    ASSERT_THAT(left.publishers, SizeIs(1));
    EXPECT_NE(left.publishers[0].leftAt, 0);
    EXPECT_EQ(left.publishers[0].lastValue, 2);
    const long second = Publisher("t");
    const Snapshot again = Read();
    ASSERT_THAT(again.publishers, SizeIs(1));
    EXPECT_EQ(again.publishers[0].id, second);
    EXPECT_EQ(again.publishers[0].accepted, 0U);
    EXPECT_EQ(again.publishers[0].acceptedBefore, 2U);
    EXPECT_EQ(again.publishers[0].lastValue, 2);
    EXPECT_FALSE(again.publishers[0].smallestGap);
}

TEST_F(AccountedBusTest, PublishersThatHaveLeft_AreForgottenOldestFirst) {
    for (std::size_t i = 0; i < AccountKeeper::MostRemembered + 20; ++i) {
        const long publisher = Publisher("t" + std::to_string(i));
        PushAll(publisher, {7});
        bus.UnregisterPublisher(publisher);
    }
    const Snapshot snapshot = Read();
    EXPECT_THAT(snapshot.publishers, SizeIs(AccountKeeper::MostRemembered));
    const auto has = [&](const std::string& topic) {
        return std::any_of(snapshot.publishers.begin(), snapshot.publishers.end(),
                           [&](const auto& publisher) { return publisher.topic == topic; });
    };
    EXPECT_FALSE(has("t0"));
    EXPECT_TRUE(has("t" + std::to_string(AccountKeeper::MostRemembered + 19)));
    EXPECT_EQ(snapshot.bus.withoutSubscriber, AccountKeeper::MostRemembered + 20);
}

TEST_F(AccountedBusTest, APublisherThatCameBack_IsForgottenLater) {
    for (std::size_t i = 0; i < AccountKeeper::MostRemembered; ++i) {
        bus.UnregisterPublisher(Publisher("t" + std::to_string(i)));
    }
    for (int times = 0; times < 3; ++times) {
        bus.UnregisterPublisher(Publisher("t0"));
    }
    bus.UnregisterPublisher(Publisher("new"));
    std::set<std::string> topics;
    for (const auto& publisher : Read().publishers) {
        topics.insert(publisher.topic);
    }
    EXPECT_THAT(topics, SizeIs(AccountKeeper::MostRemembered));
    EXPECT_TRUE(topics.contains("t0"));
    EXPECT_TRUE(topics.contains("new"));
    EXPECT_FALSE(topics.contains("t1"));
}

TEST_F(AccountedBusTest, WhatHasNoRoomForItsName_IsServedAndCountedAsUnlisted) {
    const std::string longTopic(1000, 'x');
    std::set<std::string> topics;
    for (int i = 0; i < 40; ++i) {
        topics.insert(std::to_string(i) + longTopic);
    }
    const long first = Subscriber("first", topics);
    Subscriber("second", topics); // the texts have room for one of them
    EXPECT_EQ(Read().bus.unlisted, 1U);
    EXPECT_THAT(Read().subscribers, SizeIs(1));
    for (int i = 0; i < 40; ++i) {
        PushAll(Publisher("p" + std::to_string(i) + longTopic), {5});
    }
    EXPECT_GT(Read().bus.unlisted, 1U);
    for (const auto& publisher : Read().publishers) {
        EXPECT_FALSE(publisher.topic.empty());
    }
    bus.UnregisterSubscriber(first);
    Subscriber("third", topics);
    EXPECT_THAT(Read().subscribers, SizeIs(1));
}

TEST_F(AccountedBusTest, ThreadsOfOneName_HaveTheirOwnRecordsWhileTheyLive) {
    const auto slotOfAThread = [this](const auto& meanwhile) {
        instruments::layout::Thread* slot = nullptr;
        std::thread([&] {
            ::pthread_setname_np(::pthread_self(), "same");
            slot = keeper.ThisThread();
            meanwhile();
        }).join();
        return slot;
    };
    instruments::layout::Thread* inner = nullptr;
    auto* const outer = slotOfAThread([&] { inner = slotOfAThread([] {}); });
    EXPECT_NE(outer, nullptr);
    EXPECT_NE(inner, nullptr);
    EXPECT_NE(inner, outer);
    EXPECT_THAT((std::vector{outer, inner}), testing::Contains(slotOfAThread([] {}))) << "both have ended";
}

TEST_F(AccountedBusTest, APushThatIsRefusedBeforehand_IsCounted) {
    const long publisher = Publisher("t");
    {
        const common::MutexLock lock(turn);
        bus.NoteRefused(publisher);
        bus.NoteRefused(publisher + 1);
    }
    const Snapshot snapshot = Read();
    EXPECT_EQ(snapshot.bus.refusedFull, 2U);
    EXPECT_EQ(snapshot.publishers[0].refusedFull, 1U);
}

TEST_F(AccountedBusTest, ADescription_EndsWithItsPublisher) {
    const long publisher = Publisher("t");
    EXPECT_EQ(bus.Describe("t", ::getpid(), "unit=K"), Described::Done);
    EXPECT_EQ(bus.Describe("t", ::getpid(), "unit=C"), Described::Done);
    Snapshot snapshot = Read();
    ASSERT_THAT(snapshot.descriptions, SizeIs(1));
    EXPECT_EQ(snapshot.descriptions[0].topic, "t");
    EXPECT_EQ(snapshot.descriptions[0].text, "unit=C");
    bus.UnregisterPublisher(publisher);
    EXPECT_THAT(Read().descriptions, IsEmpty());
    EXPECT_EQ(bus.Describe("t", ::getpid(), "unit=K"), Described::NoPublisher);
}

TEST_F(AccountedBusTest, ADescriptionThatHasEnded_GivesItsRoomBackOnce) {
    const long publisher = Publisher("t");
    EXPECT_EQ(bus.Describe("t", ::getpid(), "unit=K"), Described::Done);
    bus.UnregisterPublisher(publisher);
    Publisher("u"); // lies where the description was
    Publisher("t");
    Publisher("v");
    const Snapshot snapshot = Read();
    ASSERT_THAT(snapshot.publishers, SizeIs(3));
    EXPECT_EQ(snapshot.publishers[0].topic, "t");
    EXPECT_EQ(snapshot.publishers[1].topic, "u");
    EXPECT_EQ(snapshot.publishers[2].topic, "v");
}

TEST_F(AccountedBusTest, APublisherOfAnUnknownProcess_IsDescribedByNone) {
    Publisher("t");
    auto& identity = keeper.File().At<instruments::layout::Publisher>(keeper.File().Regions().publishers, 0).identity;
    auto unknown = identity.Read();
    unknown.program.pid = 0;
    identity.Write(unknown);
    EXPECT_EQ(bus.Describe("t", 0, "unit=K"), Described::OtherOwner);
    EXPECT_EQ(bus.Describe("t", ::getpid(), "unit=K"), Described::OtherOwner);
}

TEST_F(AccountedBusTest, ADescription_ComesFromTheOwnerOfThePublisher) {
    Publisher("t");
    Subscriber("reader", {"u"});
    EXPECT_EQ(bus.Describe("t", ::getpid() + 1, "unit=K"), Described::OtherOwner);
    EXPECT_EQ(bus.Describe("t", 0, "unit=K"), Described::OtherOwner);
    EXPECT_EQ(bus.Describe("u", ::getpid(), "unit=K"), Described::NoPublisher);
    EXPECT_EQ(bus.Describe("v", ::getpid(), "unit=K"), Described::NoPublisher);
    EXPECT_EQ(bus.Describe("t", ::getpid(), std::string(Small.textBytes, 'x')), Described::NoRoom);
    EXPECT_THAT(Read().descriptions, IsEmpty());
}

TEST_F(AccountedBusTest, Registrations_AreEvents) {
    const long publisher = Publisher("t");
    const long subscriber = Subscriber("reader", {"t"});
    const auto events = Read().events;
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[0].kind, instruments::EventKind::PublisherRegistered);
    EXPECT_EQ(events[0].id, publisher);
    EXPECT_EQ(events[0].name, "t");
    EXPECT_EQ(events[1].kind, instruments::EventKind::SubscriberRegistered);
    EXPECT_EQ(events[1].id, subscriber);
    EXPECT_EQ(events[1].name, "reader");
}

TEST_F(AccountedBusTest, WithoutAnEventsThread_ARegistrationEndsTheAccountAndDoesNotHang) {
    Subscriber("reader", {"t"});
    const long publisher = Publisher("t");
    running.Stop();
    ASSERT_TRUE(journal.Await("2 EventsProcessor: [MessageBus]: queue thread stopped"));
    PushAll(publisher, {1});
    bus.NoteStop(); // else it waits for seconds
    Subscriber("late", {"t"});
    const Snapshot snapshot = Read();
    EXPECT_EQ(snapshot.bus.inbound, 1U);
    PushAll(publisher, {2});
    EXPECT_EQ(Read().bus.accepted, 1U);
}

} // namespace
