// Defends what is derived from an account: which topics there are, who belongs to each, when the numbers add up, and
// the names of kinds and states, which programs compare.
#include "instruments/snapshot.h"

#include "instruments/sample_snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using instruments::BusAccount;
using instruments::EventKind;
using instruments::Flows;
using instruments::NameOf;
using instruments::PublisherAccount;
using instruments::ServerState;
using instruments::Snapshot;
using instruments::SubscriberAccount;
using instruments::TopicsOf;
using testing::ElementsAre;

PublisherAccount Publisher(std::string topic, instruments::Nanoseconds leftAt = 0) {
    PublisherAccount publisher;
    publisher.topic = std::move(topic);
    publisher.leftAt = leftAt;
    return publisher;
}

SubscriberAccount Subscriber(std::vector<std::string> topics) {
    SubscriberAccount subscriber;
    subscriber.topics = std::move(topics);
    return subscriber;
}

TEST(SnapshotTest, Topics_AreThoseWithAPublisherOrASubscriberInTheOrderOfTheirBytes) {
    Snapshot snapshot;
    snapshot.publishers = {Publisher("b"), Publisher("gone", 5)};
    snapshot.subscribers = {Subscriber({"a", "b"}), Subscriber({"b", "\xff"})};

    const auto topics = TopicsOf(snapshot);

    ASSERT_EQ(topics.size(), 4U);
    EXPECT_EQ(topics[0].topic, "a");
    EXPECT_EQ(topics[0].publisher, std::nullopt);
    EXPECT_THAT(topics[0].subscribers, ElementsAre(0));
    EXPECT_EQ(topics[1].topic, "b");
    EXPECT_EQ(topics[1].publisher, 0U);
    EXPECT_THAT(topics[1].subscribers, ElementsAre(0, 1));
    EXPECT_EQ(topics[2].topic, "gone");
    EXPECT_EQ(topics[2].publisher, 1U);
    EXPECT_THAT(topics[2].subscribers, ElementsAre());
    EXPECT_EQ(topics[3].topic, "\xff");
}

TEST(SnapshotTest, TopicWithARegisteredPublisherAndOneThatLeft_HasTheRegisteredOne) {
    for (const bool isFirst : {true, false}) {
        Snapshot snapshot;
        snapshot.publishers = {Publisher("t", isFirst ? 0 : 5), Publisher("t", isFirst ? 5 : 0)};

        EXPECT_EQ(TopicsOf(snapshot).at(0).publisher, isFirst ? 0U : 1U);
    }
}

TEST(SnapshotTest, Description_BelongsToItsTopicAndMakesNone) {
    Snapshot snapshot;
    snapshot.publishers = {Publisher("a")};
    snapshot.descriptions = {{"a", "bool"}, {"b", "int8"}};

    const auto topics = TopicsOf(snapshot);

    ASSERT_EQ(topics.size(), 1U);
    EXPECT_EQ(topics[0].description, "bool");
}

TEST(SnapshotTest, Flows_AddUpOnlyWhenEachValueIsSomewhere) {
    Flows flows{15, 1, 2, 3, 4, {1, 1, 1, 1, 1}};
    EXPECT_TRUE(flows.AddsUp());

    for (auto* const part :
         {&flows.due, &flows.taken, &flows.offered, &flows.queued, &flows.handedOver, &flows.dropped.oldest,
          &flows.dropped.newest, &flows.dropped.cut, &flows.dropped.unregistered, &flows.dropped.undelivered}) {
        ++*part;
        EXPECT_FALSE(flows.AddsUp());
        --*part;
    }
}

TEST(SnapshotTest, Bus_AddsUpOnlyWhenEachAcceptedValueIsSomewhere) {
    BusAccount bus;
    bus.accepted = 6;
    bus.fannedOut = 1;
    bus.inbound = 2;
    bus.withoutSubscriber = 3;
    EXPECT_TRUE(bus.AddsUp());

    for (auto* const part : {&bus.accepted, &bus.fannedOut, &bus.inbound, &bus.withoutSubscriber, &bus.flows.due}) {
        ++*part;
        EXPECT_FALSE(bus.AddsUp());
        --*part;
    }
}

TEST(SnapshotTest, KindsAndStates_HaveNamesOfTheirOwn) {
    std::set<std::string_view> names;
    for (std::uint32_t kind = 1; kind <= static_cast<std::uint32_t>(EventKind::Stopping); ++kind) {
        EXPECT_TRUE(names.insert(NameOf(static_cast<EventKind>(kind))).second) << kind;
    }
    EXPECT_TRUE(names.contains("publisher-registered"));
    EXPECT_TRUE(names.contains("subscriber-cut"));
    EXPECT_FALSE(names.contains("unknown"));

    std::set<std::string_view> states;
    for (std::uint32_t state = 0; state <= static_cast<std::uint32_t>(ServerState::Stopped); ++state) {
        EXPECT_TRUE(states.insert(NameOf(static_cast<ServerState>(state))).second) << state;
    }
    EXPECT_TRUE(states.contains("serving"));
    EXPECT_FALSE(states.contains("unknown"));
}

TEST(SnapshotTest, KindsAndStatesOfANewerServer_AreUnknown) {
    EXPECT_EQ(NameOf(static_cast<EventKind>(0)), "unknown");
    EXPECT_EQ(NameOf(static_cast<EventKind>(999)), "unknown");
    EXPECT_EQ(NameOf(static_cast<ServerState>(999)), "unknown");
}

} // namespace
