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

TEST(StatusLineTest, Totals_AreValuesSinceTheStart) {
    Snapshot snapshot;
    snapshot.bus.accepted = 1'234;
    snapshot.bus.flows.taken = 999;
    snapshot.bus.flows.dropped = {1, 2, 3, 4, 5};
    EXPECT_EQ(msgbus_server::TotalsLine(snapshot, std::chrono::seconds(7)),
              "served for 7 s: 1.2 k values accepted, 999 delivered, 11 lost");
}

TEST(StatusLineTest, Durations_HaveTheirTwoLargestUnits) {
    using msgbus_server::DurationText;
    using std::chrono::seconds;
    EXPECT_EQ(DurationText(seconds(0)), "0 s");
    EXPECT_EQ(DurationText(seconds(59)), "59 s");
    EXPECT_EQ(DurationText(seconds(60)), "1 min");
    EXPECT_EQ(DurationText(seconds(3599)), "59 min");
    EXPECT_EQ(DurationText(seconds(2 * 3600 + 5 * 60 + 59)), "2 h 5 min");
    EXPECT_EQ(DurationText(seconds(86'399)), "23 h 59 min");
    EXPECT_EQ(DurationText(seconds(3 * 86'400 + 4 * 3600)), "3 d 4 h");
}

} // namespace
