// Defends the bus as its clients see it: from their stubs through records, dispatch, workers and queues and back, in
// static and in dynamic mode.
#include "support/bus_harness.h"
#include "support/bus_test.h"
#include "support/served_bus.h"

#include <future>

namespace {

using message_bus::ConnectionType;
using test_support::Client;
using test_support::ServedBus;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

constexpr std::int32_t NotRegistered = -49152;
constexpr std::int32_t Exhausted = -81920;
constexpr std::int32_t Conflict = -278528;
constexpr auto ThisWait = "1 Wait: BosConnector: started";

using Outcome = std::tuple<std::int32_t, std::string, long>;

class WholeBusTest : public test_support::BusTest, public test_support::EitherMode {
protected:
    /// Pushes when the events thread sleeps, so that its wake-up is not lost.
    void Push(Client& client, long publisher, long value) {
        test_support::AwaitIdleEventsThread(*served.bus);
        EXPECT_EQ(client.Push(publisher, value), 0);
    }
    /// A wait of `subscriber`, started on a thread and a connection of its own.
    std::future<Outcome> WaitBeside(long subscriber) {
        const auto before = journal.Count(ThisWait);
        auto waiting = std::async(std::launch::async, [subscriber] { return Subs().Wait(subscriber); });
        EXPECT_TRUE(journal.Await(ThisWait, before + 1));
        return waiting;
    }

    const fault_points::Disarmer disarmer;
    test_support::ScriptedPlatform platform;
    ServedBus served{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(EitherWay, WholeBusTest, testing::Values(ConnectionType::Static, ConnectionType::Dynamic),
                         test_support::ModeName);

TEST_P(WholeBusTest, Values_ReachEverySubscriberOfTheirTopicInPushOrder) {
    auto ctl = Ctl();
    auto provider = Provider();
    const long first = ctl.Subscribe("first", {"heat", "light"});
    const long second = ctl.Subscribe("second", {"heat"});
    const long heat = ctl.RegisterPublisher("heat");
    const long light = ctl.RegisterPublisher("light");
    Push(provider, heat, 1);
    Push(provider, light, 2);
    Push(provider, heat, 3);
    auto subs = Subs();
    EXPECT_EQ(subs.Wait(first), Outcome(0, "heat", 1));
    EXPECT_EQ(subs.Wait(first), Outcome(0, "light", 2));
    EXPECT_EQ(subs.Wait(first), Outcome(0, "heat", 3));
    EXPECT_EQ(subs.Wait(second), Outcome(0, "heat", 1));
    EXPECT_EQ(subs.Wait(second), Outcome(0, "heat", 3));
    EXPECT_EQ(journal.Logs(4), std::vector<std::string>{});
}

TEST_P(WholeBusTest, BlockedWaits_KeepNobodyElseFromBeingServed) {
    auto ctl = Ctl();
    auto provider = Provider();
    const long publisher = ctl.RegisterPublisher("heat");
    std::vector<long> subscribers;
    std::vector<std::future<Outcome>> waits;
    for (int i = 0; i < 5; ++i) {
        subscribers.push_back(ctl.Subscribe("reader", {"heat"}));
        waits.push_back(WaitBeside(subscribers.back()));
    }
    Push(provider, publisher, 7);
    for (auto& wait : waits) {
        EXPECT_EQ(wait.get(), Outcome(0, "heat", 7));
    }
}

TEST_P(WholeBusTest, AWait_HoldsOneWorkerThatEndsAfterItsReply) {
    auto ctl = Ctl();
    auto provider = Provider();
    const long publisher = ctl.RegisterPublisher("heat");
    const long subscriber = ctl.Subscribe("reader", {"heat"});
    Push(provider, publisher, 7);
    Subs().Wait(subscriber);
    const auto before = journal.Calls("boost thread").size();
    constexpr std::size_t waits = 10;
    auto subs = Subs();
    for (std::size_t i = 0; i < waits; ++i) {
        Push(provider, publisher, 8);
        EXPECT_EQ(subs.Wait(subscriber), Outcome(0, "heat", 8));
    }
    // One replacement and one remover for each wait; the remover of the first wait may start late.
    EXPECT_TRUE(journal.AwaitPrefix("boost thread", before + 2 * waits));
}

TEST_P(WholeBusTest, Unregistration_EndsABlockedWait) {
    auto ctl = Ctl();
    const long subscriber = ctl.Subscribe("reader", {"heat"});
    auto wait = WaitBeside(subscriber);
    EXPECT_EQ(ctl.Unregister(subscriber), 0);
    EXPECT_EQ(std::get<0>(wait.get()), NotRegistered);
    EXPECT_EQ(std::get<0>(Subs().Wait(subscriber)), NotRegistered);
}

TEST_P(WholeBusTest, Refusals_ReachTheClientAsTheirCodes) {
    auto ctl = Ctl();
    ctl.RegisterPublisher("heat");
    std::int64_t id = 0;
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(ctl.Transport(), "heat", id), Conflict);
    EXPECT_EQ(br_MessageBusCtl_UnregisterPublisher_call(ctl.Transport(), 99), Conflict);
    EXPECT_EQ(ctl.Unregister(99), Conflict);
    EXPECT_EQ(std::get<0>(Subs().Wait(-1)), Exhausted);
    EXPECT_EQ(std::get<0>(Subs().Wait(99)), NotRegistered);
    EXPECT_EQ(Provider().Push(99, 1), 0);
}

TEST_P(WholeBusTest, ALongTopic_ArrivesCutButIsMatchedWhole) {
    const std::string topic(1023, 't');
    auto ctl = Ctl();
    auto provider = Provider();
    const long subscriber = ctl.Subscribe("reader", {topic});
    const long other = ctl.Subscribe("other", {topic.substr(1)});
    const long publisher = ctl.RegisterPublisher(topic);
    Push(provider, publisher, 5);
    EXPECT_EQ(Subs().Wait(subscriber), Outcome(0, topic.substr(1), 5));
    EXPECT_EQ(served.bus->GetSubscriberPtrById(other)->queue.Size(), 0U);
}

TEST_P(WholeBusTest, ShutDown_EndsBlockedWaitsAndRefusesFurtherCalls) {
    auto ctl = Ctl();
    auto wait = WaitBeside(ctl.Subscribe("reader", {"heat"}));
    served.ShutDown();
    const auto status = std::get<0>(wait.get());
    EXPECT_TRUE(status == NotRegistered || status == KnStatusClosed) << status;
    std::int64_t id = 0;
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(ctl.Transport(), "heat", id), KnStatusClosed);
}

} // namespace
