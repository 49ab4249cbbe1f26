// Defends what subscribers learn of publishers, and publishers of subscribers: each change once, in order with the
// values around it, and nothing of it can be forged or upsets the account; and that a last value joins the stream
// without a gap.
#include "topic_notices.h"

#include "instruments/read_account.h"
#include "support/bus_test.h"
#include "support/in_process_callers.h"
#include "support/served_bus.h"

#include <atomic>
#include <future>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using common::MakeReserved;
using common::Presence;
using common::PresenceValue;
using common::ReservedTopic;
using message_bus::ConnectionType;
using msgbus_server::BusServerOptions;
using msgbus_server::TopicNotices;
using test_support::Client;
using test_support::ServedBus;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string Heat = "heat";
const std::string HeatPresence = MakeReserved(ReservedTopic::Presence, Heat);
const std::string HeatCount = MakeReserved(ReservedTopic::SubscriberCount, Heat);
const std::string HeatWithLast = MakeReserved(ReservedTopic::LastValue, Heat);

using Value = std::pair<std::string, long>;

Value Came(long id) {
    return {HeatPresence, PresenceValue{Presence::Came, id}.Encode()};
}
Value Left(long id) {
    return {HeatPresence, PresenceValue{Presence::Left, id}.Encode()};
}
Value Died(long id) {
    return {HeatPresence, PresenceValue{Presence::Died, id}.Encode()};
}
const Value NoPublisher{HeatPresence, PresenceValue{}.Encode()};

class TopicNoticesTest : public test_support::BusTest, public test_support::EitherMode {
protected:
    TopicNoticesTest() {
        log.SetThreshold(2); // values are offered while debug is disabled
        platform.SetQuiet(true);
    }

    static BusServerOptions Options(std::vector<std::string> retain = {}) {
        return {.connectionType = GetParam(), .retain = std::move(retain)};
    }

    static std::vector<Value> Read(Client& client, long subscriber, std::size_t count) {
        std::vector<Value> values;
        for (std::size_t i = 0; i < count; ++i) {
            const auto [status, topic, value] = client.Wait(subscriber);
            EXPECT_EQ(status, 0);
            values.emplace_back(topic, value);
        }
        return values;
    }

    static void PushSurely(Client& provider, long publisher, long value) {
        while (provider.Push(publisher, value) != 0) {
            std::this_thread::yield();
        }
    }

    static void ExpectThatTheAccountAddsUp(const ServedBus& server) {
        const auto snapshot = instruments::AccountReader(server.account->File().Memory()).Read();
        EXPECT_TRUE(snapshot.bus.AddsUp());
        EXPECT_EQ(snapshot.bus.discrepancies, 0U);
        for (const auto& subscriber : snapshot.subscribers) {
            EXPECT_TRUE(subscriber.flows.AddsUp()) << subscriber.id;
        }
    }

    test_support::ScriptedPlatform platform;
};

INSTANTIATE_TEST_SUITE_P(EitherWay, TopicNoticesTest, testing::Values(ConnectionType::Static, ConnectionType::Dynamic),
                         test_support::ModeName);

TEST_P(TopicNoticesTest, ASubscriberThatAsks_GetsFirstThatThereIsNoPublisher) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
    EXPECT_THAT(Read(subs, subscriber, 1), ElementsAre(NoPublisher));
}

TEST_P(TopicNoticesTest, ASubscriberThatAsks_GetsFirstWhichPublisherThereIs) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto subs = Subs();
    const long publisher = ctl.RegisterPublisher(Heat);
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
    EXPECT_THAT(Read(subs, subscriber, 1), ElementsAre(Came(publisher)));
}

TEST_P(TopicNoticesTest, APublisherThatComesAndLeaves_IsReportedBesideItsValuesInOrder) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
    const long first = ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(first, 21), 0);
    EXPECT_EQ(provider.Push(first, 22), 0);
    EXPECT_EQ(ctl.UnregisterPublisher(first), 0);
    const long second = ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(second, 23), 0);
    EXPECT_THAT(Read(subs, subscriber, 7), ElementsAre(NoPublisher, Came(first), Value(Heat, 21), Value(Heat, 22),
                                                       Left(first), Came(second), Value(Heat, 23)));
    ExpectThatTheAccountAddsUp(server);
}

TEST_P(TopicNoticesTest, APublisherWhoseProcessIsGone_IsReportedAsDeadBehindItsLastValue) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
    long publisher = -1;
    {
        const test_support::ActingAs other(4711);
        auto otherCtl = Ctl();
        auto otherProvider = Provider();
        publisher = otherCtl.RegisterPublisher(Heat);
        EXPECT_EQ(otherProvider.Push(publisher, 21), 0);
    }
    EXPECT_THAT(Read(subs, subscriber, 4), ElementsAre(NoPublisher, Came(publisher), Value(Heat, 21), Died(publisher)));
}

TEST_P(TopicNoticesTest, APublisherThatLeavesWhileTheInboundQueueIsLong_IsReportedBehindItsLastValue) {
    constexpr long values = 20'000;
    ServedBus server(Options());
    auto ctl = Ctl();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
    const long publisher = ctl.RegisterPublisher(Heat);
    std::thread pushing([&] {
        auto provider = Provider();
        for (long i = 1; i <= values; ++i) {
            PushSurely(provider, publisher, i);
        }
        EXPECT_EQ(ctl.UnregisterPublisher(publisher), 0);
    });
    const auto got = Read(subs, subscriber, values + 3);
    pushing.join();
    EXPECT_EQ(got[1], Came(publisher));
    for (long i = 1; i <= values; ++i) {
        ASSERT_EQ(got[static_cast<std::size_t>(i) + 1], Value(Heat, i));
    }
    EXPECT_EQ(got.back(), Left(publisher));
    ExpectThatTheAccountAddsUp(server);
}

TEST_P(TopicNoticesTest, ASubscriberThatDoesNotAsk_GetsValuesOnly) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    ctl.Subscribe("curious", {Heat, HeatPresence, HeatCount, HeatWithLast});
    const long subscriber = ctl.Subscribe("reader", {Heat});
    EXPECT_EQ(ctl.UnregisterPublisher(ctl.RegisterPublisher(Heat)), 0);
    EXPECT_EQ(provider.Push(ctl.RegisterPublisher(Heat), 21), 0);
    EXPECT_THAT(Read(subs, subscriber, 1), ElementsAre(Value(Heat, 21)));
}

TEST_P(TopicNoticesTest, TheNumberOfSubscribers_IsReportedFirstAndWheneverItChanges) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto subs = Subs();
    ctl.Subscribe("reader", {Heat});
    const long watcher = ctl.Subscribe("watcher", {HeatCount});
    const long second = ctl.Subscribe("reader", {Heat, "cold"});
    ctl.Subscribe("reader", {"cold"});
    EXPECT_EQ(ctl.Unregister(second), 0);
    EXPECT_THAT(Read(subs, watcher, 3), ElementsAre(Value(HeatCount, 1), Value(HeatCount, 2), Value(HeatCount, 1)));
}

TEST_P(TopicNoticesTest, ASubscriberOfNoticesOnly_IsNotListed) {
    ServedBus server(Options());
    auto ctl = Ctl();
    ctl.Subscribe("watcher", {HeatCount});
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence, HeatWithLast});
    const auto snapshot = instruments::AccountReader(server.account->File().Memory()).Read();
    ASSERT_EQ(snapshot.subscribers.size(), 1U);
    EXPECT_EQ(snapshot.subscribers[0].id, subscriber);
    EXPECT_THAT(snapshot.subscribers[0].topics, ElementsAre(Heat));
    EXPECT_EQ(snapshot.bus.unlisted, 0U);
}

TEST_P(TopicNoticesTest, APublisherOfAReservedTopic_IsRefused) {
    ServedBus server(Options());
    auto ctl = Ctl();
    std::int64_t id = 0;
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(ctl.Transport(), HeatPresence, id),
              br_MessageBus_ErrorResult(static_cast<std::uint16_t>(cor::ResultCode::Conflict)));
    const auto snapshot = instruments::AccountReader(server.account->File().Memory()).Read();
    EXPECT_EQ(snapshot.bus.refusedRegistrations, 1U);
    EXPECT_THAT(snapshot.publishers, IsEmpty());
}

TEST_P(TopicNoticesTest, WithoutNotices_AReservedTopicIsAsAnyOther) {
    auto options = Options();
    options.notices = false;
    ServedBus server(options);
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
    ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(ctl.RegisterPublisher(HeatPresence), 5), 0);
    EXPECT_THAT(Read(subs, subscriber, 1), ElementsAre(Value(HeatPresence, 5)));
}

TEST_P(TopicNoticesTest, ASubscriberThatAsksForTheLastValue_GetsItFirst) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long publisher = ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(publisher, 20), 0);
    EXPECT_EQ(provider.Push(publisher, 21), 0);
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatWithLast});
    const long other = ctl.Subscribe("other", {Heat});
    EXPECT_EQ(provider.Push(publisher, 22), 0);
    EXPECT_THAT(Read(subs, subscriber, 2), ElementsAre(Value(Heat, 21), Value(Heat, 22)));
    EXPECT_THAT(Read(subs, other, 1), ElementsAre(Value(Heat, 22)));
    ExpectThatTheAccountAddsUp(server);
}

TEST_P(TopicNoticesTest, ARetainedTopic_StartsWithItsLastValueAlsoWhenItsPublisherHasLeft) {
    ServedBus server(Options({"he*"}));
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long cold = ctl.RegisterPublisher("cold");
    EXPECT_EQ(provider.Push(cold, 1), 0);
    const long publisher = ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(publisher, 21), 0);
    EXPECT_EQ(ctl.UnregisterPublisher(publisher), 0);
    const long subscriber = ctl.Subscribe("reader", {Heat, "cold"});
    EXPECT_EQ(provider.Push(cold, 2), 0);
    EXPECT_THAT(Read(subs, subscriber, 2), ElementsAre(Value(Heat, 21), Value("cold", 2)));
}

TEST_P(TopicNoticesTest, ALastValue_OutlivesAPublisherThatPushesNothing) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long publisher = ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(publisher, 21), 0);
    EXPECT_EQ(ctl.UnregisterPublisher(publisher), 0);
    for (std::size_t i = 0; i <= msgbus_server::AccountKeeper::MostRemembered; ++i) { // the account forgets the topic
        EXPECT_EQ(ctl.UnregisterPublisher(ctl.RegisterPublisher("other" + std::to_string(i))), 0);
    }
    ctl.RegisterPublisher(Heat);
    EXPECT_THAT(Read(subs, ctl.Subscribe("reader", {HeatWithLast}), 1), ElementsAre(Value(Heat, 21)));
}

TEST_P(TopicNoticesTest, SubscribersThatJoinAStreamWithItsLastValue_GetEveryNumberFromThereOn) {
    constexpr int joins = 30;
    constexpr std::size_t read = 500;
    ServedBus server(Options({Heat}));
    auto ctl = Ctl();
    auto provider = Provider();
    const long publisher = ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(publisher, 1), 0);
    std::atomic<bool> isEnding = false;
    std::thread pushing([&] {
        for (long i = 2; !isEnding; ++i) {
            PushSurely(provider, publisher, i);
        }
    });
    for (int join = 0; join < joins; ++join) {
        auto subs = Subs();
        const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
        const auto got = Read(subs, subscriber, read);
        EXPECT_EQ(got[0], Came(publisher));
        for (std::size_t i = 2; i < got.size(); ++i) {
            ASSERT_EQ(got[i].second, got[i - 1].second + 1);
        }
        EXPECT_EQ(ctl.Unregister(subscriber), 0);
    }
    isEnding = true;
    pushing.join();
    ExpectThatTheAccountAddsUp(server);
}

TEST_P(TopicNoticesTest, WithWaitsThatBlockInTheBus_NoticesComeAllTheSame) {
    auto options = Options();
    options.parkedWaits = false;
    ServedBus server(options);
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence});
    EXPECT_THAT(Read(subs, subscriber, 1), ElementsAre(NoPublisher));
    auto next = std::async(std::launch::async, [&] { return Read(subs, subscriber, 3); });
    const long publisher = ctl.RegisterPublisher(Heat);
    EXPECT_EQ(provider.Push(publisher, 21), 0);
    EXPECT_EQ(ctl.UnregisterPublisher(publisher), 0);
    EXPECT_THAT(next.get(), ElementsAre(Came(publisher), Value(Heat, 21), Left(publisher)));
    ExpectThatTheAccountAddsUp(server);
}

TEST_P(TopicNoticesTest, AStop_ReportsNothingToThoseWhoAsked) {
    ServedBus server(Options());
    auto ctl = Ctl();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {Heat, HeatPresence, HeatCount});
    ctl.RegisterPublisher(Heat);
    ctl.Subscribe("other", {Heat});
    EXPECT_THAT(Read(subs, subscriber, 4),
                ElementsAre(NoPublisher, Value(HeatCount, 1), testing::_, Value(HeatCount, 2)));
    server.ShutDown();
    EXPECT_NE(std::get<0>(subs.Wait(subscriber)), 0);
}

TEST(TopicNoticesReadTest, Read_WithoutReservedTopics_ReturnsNothing) {
    EXPECT_FALSE(TopicNotices::Read({"heat", "\x1E", " "}).has_value());
}

TEST(TopicNoticesRemoveTest, Remove_OfOne_LeavesTheOthersTheirNotices) {
    std::vector<long> receivers;
    TopicNotices notices([&receivers](long id, const auto&) { receivers.push_back(id); }, {});
    const auto wishes = *TopicNotices::Read({HeatCount});
    notices.Add(1, wishes);
    notices.Add(2, wishes);
    notices.Remove(1, wishes);
    EXPECT_TRUE(notices.IsAsked(ReservedTopic::SubscriberCount, Heat));
    notices.Report(ReservedTopic::SubscriberCount, Heat, 3);
    EXPECT_THAT(receivers, ElementsAre(2));
    notices.Remove(2, wishes);
    EXPECT_FALSE(notices.IsAsked(ReservedTopic::SubscriberCount, Heat));
}

TEST(TopicNoticesReadTest, Read_TakesForAReservedTopicOnlyWhatNamesATopic) {
    const auto wishes = TopicNotices::Read({"heat", "\x1FP",
                                            "\x1FX"
                                            "heat",
                                            HeatCount});
    ASSERT_TRUE(wishes.has_value());
    EXPECT_THAT(wishes->topics, UnorderedElementsAre("heat", "\x1FP",
                                                     "\x1FX"
                                                     "heat"));
    EXPECT_THAT(wishes->asked, ElementsAre(HeatCount));
}

TEST(PresenceValueTest, Decode_ReversesEncode) {
    for (const auto presence : {Presence::None, Presence::Came, Presence::Left, Presence::Died}) {
        const auto decoded = PresenceValue::Decode(PresenceValue{presence, 123'456'789'012}.Encode());
        EXPECT_EQ(decoded.presence, presence);
        EXPECT_EQ(decoded.id, 123'456'789'012);
    }
}

} // namespace
