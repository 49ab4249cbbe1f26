// `msgbus info`: everything that the account knows of a topic or subscriber is there, and what does not add up stands
// out.

#include "look/info.h"

#include "hand_made.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

std::string InfoOf(const instruments::Snapshot& account, std::string_view word) {
    return look::InfoText(account, look::Find(account, word));
}

TEST(InfoTest, Topic_WithAPublisher_ShowsWhatItDid) {
    auto account = hand_made::Account();
    auto publisher = hand_made::Publisher(7, "a");
    publisher.accepted = 10;
    publisher.withoutSubscriber = 2;
    publisher.acceptedBefore = 4;
    publisher.refusedFull = 3;
    publisher.lastValue = 42;
    publisher.lastAt = hand_made::Now - hand_made::Second;
    publisher.smallestGap = 1000;
    publisher.largestGap = 5 * hand_made::Second;
    publisher.rates = {1, 2, 3};
    account.publishers = {publisher};
    account.descriptions = {{"a", "fixed;step=1/1000;unit=V"}};
    account.subscribers = {hand_made::Behind(9, "slow", 5, 2)};
    EXPECT_EQ(InfoOf(account, "a"), "topic a\n"
                                    "  description   fixed;step=1/1000;unit=V\n"
                                    "  last value    42 (0.042 V), 2023-11-14T22:29:59.000Z, 1s ago\n"
                                    "  publisher     id 7, process 300 (sensor)\n"
                                    "  since         2023-11-14T22:29:00.000Z, 1m00s ago\n"
                                    "  rate          1.0/s in 1 s, 2.0/s in 10 s, 3.0/s in 60 s\n"
                                    "  gaps          1us to 5s\n"
                                    "  accepted      10, 2 of them without a subscriber; 4 of earlier publishers\n"
                                    "  refused       3 pushes, because the inbound queue was full\n"
                                    "  subscribers   1\n"
                                    "    ID  QUEUED  OLDEST  DROPPED  NAME\n"
                                    "     9       5      2s        0  slow\n");
}

TEST(InfoTest, Topic_OfAPublisherThatLeft_SaysSince) {
    auto account = hand_made::Account();
    account.publishers = {hand_made::Publisher(7, "a")};
    account.publishers[0].leftAt = hand_made::Now - 3 * hand_made::Second;
    EXPECT_THAT(InfoOf(account, "a"),
                AllOf(HasSubstr("none; the last one left: 2023-11-14T22:29:57.000Z, 3s ago"), Not(HasSubstr("id 7"))));
}

TEST(InfoTest, Topic_ThatIsOnlyWanted_HasNoPublisher) {
    auto account = hand_made::Account();
    account.subscribers = {hand_made::Subscriber(9, "early", {"soon"})};
    EXPECT_THAT(InfoOf(account, "soon"), AllOf(HasSubstr("publisher     none\n"), HasSubstr("subscribers   1\n")));
}

TEST(InfoTest, Subscriber_ShowsWhereItsValuesAre) {
    auto account = hand_made::Account();
    auto subscriber = hand_made::Behind(9, "slow", 5, 2);
    subscriber.topics = {"a", "b"};
    subscriber.flows.dropped.oldest = 3;
    subscriber.flows.due += 3;
    subscriber.latency.Append(100, 4);
    account.subscribers = {subscriber};
    EXPECT_THAT(
        InfoOf(account, "slow"),
        AllOf(HasSubstr("due           13 = 5 taken + 0 offered + 5 queued + 0 being handed over + 3 dropped\n"),
              HasSubstr("dropped       3 oldest, 0 newest, 0 cut, 0 unregistered, 0 undelivered\n"),
              HasSubstr("oldest unread 2s\n"), HasSubstr("99 %: 100ns"), HasSubstr("of 4 samples\n"),
              HasSubstr("topics        2\n    a\n    b\n")));
}

TEST(InfoTest, Subscriber_ThatDoesNotAddUp_SaysSo) {
    auto account = hand_made::Account();
    account.subscribers = {hand_made::Behind(9, "slow", 5, 2)};
    EXPECT_THAT(InfoOf(account, "slow"), Not(HasSubstr("ADD UP")));
    account.subscribers[0].flows.taken += 1;
    EXPECT_THAT(InfoOf(account, "slow"), HasSubstr("THIS DOES NOT ADD UP"));
}

TEST(InfoTest, AWordForSeveral_ShowsAll) {
    auto account = hand_made::Account();
    account.publishers = {hand_made::Publisher(7, "x")};
    account.subscribers = {hand_made::Subscriber(9, "x", {"a"}), hand_made::Subscriber(10, "x", {"a"})};
    EXPECT_THAT(InfoOf(account, "x"), AllOf(HasSubstr("topic x\n"), HasSubstr("\nsubscriber x\n  id            9\n"),
                                            HasSubstr("\nsubscriber x\n  id            10\n")));
}

} // namespace
