// Defends that clients see each topic with the type of its values, in order, and none of a type that is not known yet.
#include "stream/live_topics.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using namespace stream;
using namespace std::chrono_literals;

class LiveTopicsTest : public testing::Test {
protected:
    bool Take(const std::string& topic, std::int64_t value) { return topics.Take(topic, 1, value, now); }

    std::vector<std::pair<std::size_t, std::int64_t>> delivered;
    LiveTopics topics{{"a", "b\xff"},
                      [this](const LiveValue& value) { delivered.emplace_back(value.topic, value.value); }};
    Clock::time_point now = Clock::now();
};

using Delivered = std::vector<std::pair<std::size_t, std::int64_t>>;

TEST_F(LiveTopicsTest, Channels_HaveNamesThatAreUtf8) {
    ASSERT_EQ(topics.Channels().size(), 2U);
    EXPECT_EQ(topics.Channels()[0].name, "a");
    EXPECT_EQ(topics.Channels()[1].name, "b\\xff");
    EXPECT_NE(topics.Channels()[0].id, topics.Channels()[1].id);
    EXPECT_EQ(topics.TopicOf(topics.Channels()[1].id), 1U);
    EXPECT_EQ(topics.TopicOf(99), std::nullopt);
}

TEST_F(LiveTopicsTest, FirstValues_WaitForADescription) {
    EXPECT_TRUE(Take("a", 1));
    EXPECT_FALSE(Take("a", 2)); // the look at it is due already
    EXPECT_TRUE(topics.Settle(now));
    EXPECT_TRUE(delivered.empty());

    EXPECT_FALSE(topics.Settle(now + LiveTopics::Patience));
    EXPECT_EQ(delivered, (Delivered{{0, 1}, {0, 2}}));
    EXPECT_FALSE(Take("a", 3));
    EXPECT_EQ(delivered.back(), (std::pair<std::size_t, std::int64_t>{0, 3}));
}

TEST_F(LiveTopicsTest, ADescribedTopic_DoesNotWait) {
    EXPECT_TRUE(topics.Describe({{"b\xff", "fixed;step=1/10"}}).empty());
    EXPECT_FALSE(Take("b\xff", 1));
    EXPECT_EQ(delivered, (Delivered{{1, 1}}));
}

TEST_F(LiveTopicsTest, Doubles_GetAChannelOfTheirOwnBeforeTheirFirstValue) {
    const auto before = topics.Channels()[0].id;
    EXPECT_TRUE(Take("a", 1));
    const auto changes = topics.Describe({{"a", "float64;unit=V"}});
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].topic, 0U);
    EXPECT_EQ(changes[0].oldChannel, before);
    EXPECT_TRUE(topics.Channels()[0].isFloat);
    EXPECT_NE(topics.Channels()[0].id, before);
    EXPECT_EQ(topics.TopicOf(before), std::nullopt);
    EXPECT_TRUE(delivered.empty());
    EXPECT_FALSE(topics.Settle(now));
    EXPECT_EQ(delivered, (Delivered{{0, 1}}));
}

TEST_F(LiveTopicsTest, ChangedTypes_NeverGetAChannelThatWas) {
    const auto first = topics.Channels()[0].id;
    topics.Describe({{"a", "float64"}});
    const auto second = topics.Channels()[0].id;
    EXPECT_TRUE(topics.Describe({}).empty()); // its publisher has left
    EXPECT_EQ(topics.Channels()[0].id, second);
    EXPECT_EQ(topics.Describe({{"a", "fixed;step=1/10"}}).size(), 1U);
    EXPECT_FALSE(topics.Channels()[0].isFloat);
    EXPECT_NE(topics.Channels()[0].id, first);
    EXPECT_NE(topics.Channels()[0].id, second);
}

TEST_F(LiveTopicsTest, WhatIsHeldBack_IsBounded) {
    bool isDue = false;
    for (std::size_t value = 0; value < LiveTopics::MostHeld; ++value) {
        isDue = Take(value % 2 == 0 ? "a" : "b\xff", static_cast<std::int64_t>(value));
    }
    EXPECT_TRUE(isDue);
    EXPECT_TRUE(delivered.empty());
    EXPECT_FALSE(topics.Settle(now));
    EXPECT_EQ(delivered.size(), LiveTopics::MostHeld);
    EXPECT_EQ(delivered.front().second, 0);
    EXPECT_FALSE(Take("a", 1));
}

TEST_F(LiveTopicsTest, TopicsThatArriveCutAlike_AreOneChannel) {
    const std::string start(1022, 'x');
    LiveTopics cut({start + "1", start + "2"},
                   [this](const LiveValue& value) { delivered.emplace_back(value.topic, 0); });
    EXPECT_EQ(cut.Channels().size(), 1U);
    cut.Describe({{start, "fixed;step=1"}});
    cut.Take(start, 1, 0, now);
    EXPECT_EQ(delivered.size(), 1U);
}

} // namespace
