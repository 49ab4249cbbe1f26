// Conditions on which a ring is written: how they are read, what they compare, and how often they count.

#include "recordings/condition.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>

namespace {

using namespace std::chrono_literals;
using recordings::ParseConditions;
using recordings::Rearming;

bool IsTrue(const std::string& condition, std::int64_t value, std::string_view description = "") {
    return ParseConditions({condition}).onValues.at(0).IsTrue(value, description);
}

TEST(ConditionTest, Words_AreEvents) {
    const auto conditions = ParseConditions({"loss", "cut"});
    EXPECT_TRUE(conditions.onLoss);
    EXPECT_TRUE(conditions.onCut);
    EXPECT_TRUE(conditions.onValues.empty());
    EXPECT_FALSE(ParseConditions({"cut"}).onLoss);
    EXPECT_FALSE(ParseConditions({}).onCut);
}

TEST(ConditionTest, TheLastSign_EndsTheTopic) {
    const auto condition = ParseConditions({"a<b>c>-1.5"}).onValues.at(0);
    EXPECT_EQ(condition.topic, "a<b>c");
    EXPECT_FALSE(condition.isBelow);
    EXPECT_EQ(condition.limit, -1.5L);
    EXPECT_EQ(condition.text, "a<b>c>-1.5");
}

TEST(ConditionTest, OtherWords_AreRefused) {
    for (const char* const word : {"", "Loss", "t", "t<", "<5", "t>5V", "t>=5", "t<x", "t<inf", "t>nan", "t< 5"}) {
        EXPECT_THROW(ParseConditions({word}), std::invalid_argument) << word;
    }
}

TEST(ConditionTest, TheLimitItself_IsInRange) {
    EXPECT_TRUE(IsTrue("t<5", 4));
    EXPECT_FALSE(IsTrue("t<5", 5));
    EXPECT_FALSE(IsTrue("t>5", 5));
    EXPECT_TRUE(IsTrue("t>5", 6));
    EXPECT_TRUE(IsTrue("t>5.5", 6));
    EXPECT_FALSE(IsTrue("t>5.5", 5));
}

TEST(ConditionTest, IntegersOf64Bits_AreComparedExactly) {
    constexpr auto largest = std::numeric_limits<std::int64_t>::max();
    EXPECT_TRUE(IsTrue("t>9223372036854775806", largest));
    EXPECT_FALSE(IsTrue("t>9223372036854775807", largest));
    EXPECT_TRUE(IsTrue("t<-9223372036854775807", std::numeric_limits<std::int64_t>::min()));
}

TEST(ConditionTest, DescribedValues_AreComparedByWhatTheyStandFor) {
    EXPECT_TRUE(IsTrue("t<11.5", 114, "fixed;step=1/10;unit=V"));
    EXPECT_FALSE(IsTrue("t<11.5", 115, "fixed;step=1/10;unit=V"));
    EXPECT_TRUE(IsTrue("t>1", std::bit_cast<std::int64_t>(1.5), "float64"));
    EXPECT_FALSE(IsTrue("t>2", std::bit_cast<std::int64_t>(1.5), "float64"));
    EXPECT_TRUE(IsTrue("t<0", std::bit_cast<std::int64_t>(-1.5), "float64"));
    const auto noNumber = std::bit_cast<std::int64_t>(std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(IsTrue("t<0", noNumber, "float64"));
    EXPECT_FALSE(IsTrue("t>0", noNumber, "float64"));
}

TEST(RearmingTest, WhatStaysTrue_PassesOnce) {
    Rearming rearming(10s);
    const Rearming::Clock::time_point start;
    EXPECT_FALSE(rearming.Passes(false, start));
    EXPECT_TRUE(rearming.Passes(true, start));
    EXPECT_FALSE(rearming.Passes(true, start + 1s));
    EXPECT_FALSE(rearming.Passes(true, start + 100s));
}

TEST(RearmingTest, WhatComesAgain_PassesWhenTheTimeIsOver) {
    Rearming rearming(10s);
    const Rearming::Clock::time_point start;
    EXPECT_TRUE(rearming.Passes(true, start));
    EXPECT_FALSE(rearming.Passes(false, start + 1s));
    EXPECT_FALSE(rearming.Passes(true, start + 2s));
    EXPECT_FALSE(rearming.Passes(true, start + 9999ms));
    EXPECT_TRUE(rearming.Passes(true, start + 10s));
    EXPECT_FALSE(rearming.Passes(true, start + 11s));
    EXPECT_FALSE(rearming.Passes(true, start + 30s));
}

} // namespace
