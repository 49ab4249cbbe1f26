// The order of `msgbus top`: what a user looks for comes first, and equal lines keep their places while the page
// refreshes.

#include "top/order.h"

#include "hand_made.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::ElementsAre;
using top::SortKey;

class OrderTest : public testing::Test {
protected:
    OrderTest() {
        account.publishers = {hand_made::Publisher(1, "a"), hand_made::Publisher(2, "b"), hand_made::Publisher(3, "c")};
        account.publishers[1].rates.last1 = 10;
        account.publishers[2].rates.last1 = 20;
        account.publishers[0].lastAt = hand_made::Now - 5;
        account.publishers[1].lastAt = hand_made::Now - 50;
        account.subscribers = {hand_made::Behind(4, "z", 1, 3), hand_made::Behind(5, "y", 9, 2),
                               hand_made::Subscriber(6, "x", {"c"})};
        account.subscribers[2].flows.dropped.newest = 2;
    }

    std::vector<std::string> Topics(SortKey key, bool isReversed = false) const {
        std::vector<std::string> names;
        for (const auto& row : top::TopicRows(account, key, isReversed)) {
            names.emplace_back(row.topic);
        }
        return names;
    }
    std::vector<std::int64_t> Subscribers(SortKey key, bool isReversed = false) const {
        std::vector<std::int64_t> ids;
        for (const auto* const subscriber : top::SubscriberRows(account, key, isReversed)) {
            ids.push_back(subscriber->id);
        }
        return ids;
    }

    instruments::Snapshot account = hand_made::Account();
};

TEST_F(OrderTest, Topics_ByEachKey) {
    EXPECT_THAT(Topics(SortKey::Name), ElementsAre("a", "b", "c"));
    EXPECT_THAT(Topics(SortKey::Rate), ElementsAre("c", "b", "a"));
    EXPECT_THAT(Topics(SortKey::Queued), ElementsAre("a", "b", "c")); // all that is queued is of topic a
    EXPECT_THAT(Topics(SortKey::Dropped), ElementsAre("c", "a", "b"));
    EXPECT_THAT(Topics(SortKey::Age), ElementsAre("b", "a", "c")); // c never had a value
}

TEST_F(OrderTest, Subscribers_ByEachKey) {
    EXPECT_THAT(Subscribers(SortKey::Name), ElementsAre(6, 5, 4));
    EXPECT_THAT(Subscribers(SortKey::Queued), ElementsAre(5, 4, 6));
    EXPECT_THAT(Subscribers(SortKey::Age), ElementsAre(4, 5, 6));
    EXPECT_THAT(Subscribers(SortKey::Dropped), ElementsAre(6, 4, 5));
    EXPECT_THAT(Subscribers(SortKey::Rate), ElementsAre(4, 5, 6)); // equal: as they were
}

TEST_F(OrderTest, Reversed_TurnsTheOrderAround) {
    EXPECT_THAT(Topics(SortKey::Rate, true), ElementsAre("a", "b", "c"));
    EXPECT_THAT(Subscribers(SortKey::Queued, true), ElementsAre(6, 4, 5));
}

TEST_F(OrderTest, TopicRows_AddUpTheirSubscribers) {
    const auto rows = top::TopicRows(account, SortKey::Name, false);
    EXPECT_EQ(rows[0].queued, 10u);
    EXPECT_EQ(rows[0].subscribers, 2u);
    EXPECT_EQ(rows[2].dropped, 2u);
}

TEST(SortKeyTest, EveryNameAndItsLetter_AreTheSameKey) {
    for (const auto key : {SortKey::Name, SortKey::Rate, SortKey::Queued, SortKey::Age, SortKey::Dropped}) {
        EXPECT_EQ(top::SortKeyOf(top::NameOf(key)), key);
        EXPECT_EQ(top::SortKeyOf(top::NameOf(key).front()), key);
    }
    EXPECT_FALSE(top::SortKeyOf('q'));
    EXPECT_FALSE(top::SortKeyOf(std::string_view("n")));
}

} // namespace
