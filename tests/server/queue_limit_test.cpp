// Defends how many values a subscriber may leave unread: what the rules say, and what the memory permits.
#include "queue_limit.h"

#include "message_bus.h"
#include "queue_budget.h"
#include "server_limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using msgbus_server::Limits;
using msgbus_server::QueueBudget;
using msgbus_server::QueueLimit;
using msgbus_server::QueueLimitOf;
using msgbus_server::QueueRule;
using msgbus_server::SlowSubscriber;

QueueLimit LimitOf(const std::string& name, const std::vector<QueueRule>& rules, const std::string& topic = "t",
                   const Limits& limits = {}) {
    message_bus::Subscriber subscriber;
    subscriber.name = name;
    subscriber.topics = {"u", topic};
    return QueueLimitOf(subscriber, limits, rules);
}

TEST(QueueRuleTest, Parse_ReadsPatternPolicyAndValues) {
    const auto rule = QueueRule::Parse("log*=drop-oldest:20");
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->pattern, "log*");
    EXPECT_EQ(rule->policy, SlowSubscriber::DropOldest);
    EXPECT_EQ(rule->values, 20U);
}

TEST(QueueRuleTest, Parse_TakesAPatternThatContainsTheSigns) {
    const auto rule = QueueRule::Parse("a=b:c=drop-newest");
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->pattern, "a=b:c");
    EXPECT_EQ(rule->policy, SlowSubscriber::DropNewest);
    EXPECT_FALSE(rule->values);
}

TEST(QueueRuleTest, Parse_RefusesWhatIsNoRule) {
    for (const auto* text :
         {"", "x", "=cut", "x=", "x=drop", "x=cut:", "x=cut:0", "x=cut:-1", "x=cut:1x", "x=cut:99999999999999999999"}) {
        EXPECT_FALSE(QueueRule::Parse(text)) << text;
    }
}

TEST(QueueLimitTest, WithoutARule_IsThatForAll) {
    const QueueLimit limit = LimitOf("reader", {});
    EXPECT_EQ(limit.values, Limits{}.queuedValuesPerSubscriber);
    EXPECT_EQ(limit.policy, SlowSubscriber::Cut);
}

TEST(QueueLimitTest, OfRulesThatMatch_TheLastCounts) {
    const std::vector<QueueRule> rules{{"*", SlowSubscriber::DropNewest, 7}, {"log*", SlowSubscriber::DropOldest, {}}};
    EXPECT_EQ(LimitOf("reader", rules).policy, SlowSubscriber::DropNewest);
    EXPECT_EQ(LimitOf("reader", rules).values, 7U);
    EXPECT_EQ(LimitOf("logger", rules).policy, SlowSubscriber::DropOldest);
    EXPECT_EQ(LimitOf("logger", rules).values, Limits{}.queuedValuesPerSubscriber);
}

TEST(QueueLimitTest, LongTopics_LeaveRoomForFewerValues) {
    EXPECT_EQ(LimitOf("reader", {}, std::string(15, 'x')).bytesPerValue, 112U);
    const QueueLimit limit = LimitOf("reader", {}, std::string(1000, 'x'));
    EXPECT_EQ(limit.bytesPerValue, 1112U);
    EXPECT_EQ(limit.values, Limits{}.queuedBytesPerSubscriber / 1112);
    Limits none;
    none.queuedBytesPerSubscriber = 1;
    EXPECT_EQ(LimitOf("reader", {}, "t", none).values, 1U);
}

TEST(QueueBudgetTest, Change_SaysWhatIsExceeded) {
    using Exceeded = QueueBudget::Exceeded;
    QueueBudget budget(100, 150);
    EXPECT_EQ(budget.Change(1, 0, 100), Exceeded::Nothing);
    EXPECT_EQ(budget.Change(1, 0, 1), Exceeded::OfCaller) << "of another subscriber";
    EXPECT_EQ(budget.Change(2, 0, 50), Exceeded::Total);
    EXPECT_EQ(budget.Change(1, 1, 0), Exceeded::Nothing);
    EXPECT_EQ(budget.Change(1, 100, 0), Exceeded::Nothing);
    EXPECT_EQ(budget.Change(2, 50, 100), Exceeded::Nothing);
}

} // namespace
