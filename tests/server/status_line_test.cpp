// Defends the line by which an operator judges a bus: what it counts, and how it rounds.
#include "status_line.h"

#include <gtest/gtest.h>

namespace {

using instruments::Snapshot;
using msgbus_server::StatusLine;

void AddPublisher(Snapshot& snapshot, const char* topic, double rate, instruments::Nanoseconds leftAt = 0) {
    auto& publisher = snapshot.publishers.emplace_back();
    publisher.topic = topic;
    publisher.leftAt = leftAt;
    publisher.rates = {1e6, rate, 1e6};
}

std::string LineAtRate(double rate) {
    Snapshot snapshot;
    AddPublisher(snapshot, "t", rate);
    return StatusLine(snapshot);
}

TEST(StatusLineTest, AnEmptyBus_IsAllZeros) {
    EXPECT_EQ(StatusLine({}), "0 topics, 0 subscribers, 0 values/s, 0 lost");
}

TEST(StatusLineTest, Topics_AreThoseInUse) {
    Snapshot snapshot;
    AddPublisher(snapshot, "published", 1);
    snapshot.subscribers.emplace_back().topics = {"published", "subscribed only"};
    snapshot.subscribers.emplace_back().topics = {"published", "left"};
    AddPublisher(snapshot, "left", 2, 1);
    AddPublisher(snapshot, "forgotten", 4, 1);
    EXPECT_EQ(StatusLine(snapshot), "3 topics, 2 subscribers, 7 values/s, 0 lost");
}

TEST(StatusLineTest, OneOfAKind_IsSingular) {
    Snapshot snapshot;
    snapshot.subscribers.emplace_back().topics = {"t"};
    EXPECT_EQ(StatusLine(snapshot), "1 topic, 1 subscriber, 0 values/s, 0 lost");
}

TEST(StatusLineTest, Rates_AreRoundedToOneDigitOfAThousand) {
    const auto expect = [](double rate, const std::string& text) {
        EXPECT_EQ(LineAtRate(rate), "1 topic, 0 subscribers, " + text + " values/s, 0 lost");
    };
    expect(0.4, "0");
    expect(0.5, "1");
    expect(999.4, "999");
    expect(999.6, "1.0 k");
    expect(1249, "1.2 k");
    expect(999'940, "999.9 k");
    expect(999'960, "1.0 M");
    expect(2.5e9, "2.5 G");
}

TEST(StatusLineTest, Lost_IsWhatWasDropped_ButForWhatWasLeftUnread) {
    Snapshot snapshot;
    snapshot.bus.flows.dropped = {1, 20, 300, 4'000, 50'000};
    EXPECT_EQ(StatusLine(snapshot), "0 topics, 0 subscribers, 0 values/s, 50.3 k lost");
    snapshot.bus.flows.dropped.undelivered = 0;
    EXPECT_EQ(StatusLine(snapshot), "0 topics, 0 subscribers, 0 values/s, 321 lost");
}

} // namespace
