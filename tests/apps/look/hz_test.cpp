// The rate of `msgbus hz`: it counts what the bus has accepted between two looks, across publishers, and is never
// negative.

#include "look/hz.h"

#include "hand_made.h"

#include <gtest/gtest.h>

namespace {

look::Pace Until(instruments::Nanoseconds at, std::uint64_t accepted) {
    look::Pace pace;
    pace.at = at;
    pace.accepted = accepted;
    return pace;
}

TEST(HzTest, PaceOf_CountsEarlierPublishersToo) {
    auto account = hand_made::Account();
    account.publishers = {hand_made::Publisher(1, "a\n")};
    account.publishers[0].accepted = 10;
    account.publishers[0].acceptedBefore = 5;
    const auto pace = look::PaceOf(account, "a\n");
    ASSERT_TRUE(pace);
    EXPECT_EQ(pace->accepted, 15u);
    EXPECT_EQ(pace->at, hand_made::Now);
    EXPECT_EQ(pace->topic, "a\\n");
}

TEST(HzTest, PaceOf_ATopicWithoutPublisher_IsNothingAccepted) {
    auto account = hand_made::Account();
    account.subscribers = {hand_made::Subscriber(1, "x", {"a"})};
    EXPECT_EQ(look::PaceOf(account, "a")->accepted, 0u);
    EXPECT_FALSE(look::PaceOf(account, "b"));
}

TEST(HzTest, RateBetween_UsesTheTimeThatHasPassed) {
    EXPECT_DOUBLE_EQ(look::RateBetween(Until(0, 100), Until(2 * hand_made::Second, 400)), 150);
}

TEST(HzTest, RateBetween_WithACountThatFell_IsZero) {
    EXPECT_EQ(look::RateBetween(Until(0, 100), Until(hand_made::Second, 40)), 0);
    EXPECT_EQ(look::RateBetween(Until(hand_made::Second, 100), Until(hand_made::Second, 140)), 0);
}

} // namespace
