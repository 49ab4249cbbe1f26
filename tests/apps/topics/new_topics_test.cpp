// Which topics of an account are new: each once, whatever has made it known, and again after it was given up.

#include "topics/new_topics.h"

#include <gtest/gtest.h>

namespace {

using instruments::PublisherAccount;
using instruments::Snapshot;
using instruments::SubscriberAccount;
using topics::GlobSet;
using topics::NewTopics;

PublisherAccount Publisher(const std::string& topic, std::int64_t leftAt = 0, std::int64_t lastAt = 0) {
    PublisherAccount publisher;
    publisher.topic = topic;
    publisher.leftAt = leftAt;
    publisher.lastAt = lastAt;
    publisher.lastValue = 7;
    return publisher;
}

Snapshot WithPublishers(std::vector<PublisherAccount> publishers, std::int64_t readAt = 0) {
    Snapshot snapshot;
    snapshot.publishers = std::move(publishers);
    snapshot.readAt = readAt;
    return snapshot;
}

std::vector<std::string> Names(const std::vector<topics::NewTopic>& found) {
    std::vector<std::string> names;
    for (const auto& topic : found) {
        names.push_back(topic.name);
    }
    return names;
}

using Words = std::vector<std::string>;

TEST(NewTopicsTest, ATopic_IsNewOnce_WhetherItHasOrHadAPublisherOrASubscriber) {
    NewTopics found(GlobSet({"t*"}), {});
    Snapshot snapshot = WithPublishers({Publisher("t2"), Publisher("t1", 5), Publisher("x")});
    SubscriberAccount subscriber;
    subscriber.topics = {"t3", "y", "t2"};
    snapshot.subscribers.push_back(subscriber);
    EXPECT_EQ(Names(found.Take(snapshot)), (Words{"t1", "t2", "t3"}));
    EXPECT_EQ(Names(found.Take(snapshot)), Words{});
    snapshot.publishers.push_back(Publisher("t4"));
    EXPECT_EQ(Names(found.Take(snapshot)), Words{"t4"});
}

TEST(NewTopicsTest, ANamedTopic_IsNeverNew) {
    NewTopics found(GlobSet({"*"}), {"t1"});
    EXPECT_EQ(Names(found.Take(WithPublishers({Publisher("t1"), Publisher("t2")}))), Words{"t2"});
}

TEST(NewTopicsTest, AReservedTopic_IsNeverNew) {
    NewTopics found(GlobSet({"*"}), {});
    EXPECT_EQ(Names(found.Take(WithPublishers({Publisher("\x1FLt"), Publisher("\x1Fx")}))), Words{});
}

TEST(NewTopicsTest, AForgottenTopic_IsNewWhenItHasAPublisherAgain_AndItsOldLastValueIsNotWanted) {
    NewTopics found(GlobSet({"*"}), {});
    const auto left = WithPublishers({Publisher("t", 5, 4)}, 10);
    found.Take(left);
    found.Forget({"t"}, left);
    EXPECT_EQ(Names(found.Take(left)), Words{});
    const auto again = found.Take(WithPublishers({Publisher("t", 0, 4)}, 20));
    ASSERT_EQ(Names(again), Words{"t"});
    EXPECT_EQ(again[0].received, 7);
    EXPECT_EQ(Names(found.Take(WithPublishers({Publisher("t", 0, 4)}, 21))), Words{});
}

TEST(NewTopicsTest, AForgottenTopic_ThatHasComeAndGone_IsNewWithItsLastValue) {
    NewTopics found(GlobSet({"*"}), {});
    const auto left = WithPublishers({Publisher("t", 5, 4)}, 10);
    found.Take(left);
    found.Forget({"t"}, left);
    const auto again = found.Take(WithPublishers({Publisher("t", 15, 14)}, 20));
    ASSERT_EQ(Names(again), Words{"t"});
    EXPECT_FALSE(again[0].received);
}

TEST(NewTopicsTest, ATopicOfARestartedServer_IsComparedWithNothingOfTheOneBefore) {
    NewTopics found(GlobSet({"*"}), {});
    const auto left = WithPublishers({Publisher("t", 5, 4)}, 10);
    found.Take(left);
    found.Forget({"t"}, left);
    found.NoteRestart();
    EXPECT_FALSE(found.Take(WithPublishers({Publisher("t", 3, 2)}, 4)).at(0).received);
}

} // namespace
