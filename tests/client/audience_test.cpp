// Defends what a publisher learns of its subscribers: their number when it asks, and each time that it has become none
// or one.
#include "audience.h"

#include "common/reserved_topics.h"
#include "msgbus/error.h"
#include "msgbus/publisher.h"
#include "msgbus/testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using msgbus::Options;
using msgbus::Publisher;
using msgbus::Subscriber;
using msgbus::testing::Bus;
using msgbus::testing::Request;
using testing::ElementsAre;
using namespace std::chrono_literals;

class AudienceTest : public testing::Test {
protected:
    Subscriber MakeSubscriber() { return {"reader", {"heat", "cold"}, bus.MakeOptions()}; }

    Options Recording() {
        Options options;
        options.onSubscribers = [this](std::size_t count) { counts.push_back(count); };
        options.reconnectFor = 60s;
        return bus.MakeOptions(options);
    }

    Bus bus;
    std::vector<std::size_t> counts;
};

TEST_F(AudienceTest, Subscribers_ReturnsHowManyThereAre) {
    Publisher publisher("heat", bus.MakeOptions());
    EXPECT_EQ(publisher.Subscribers(), 0U);
    const auto first = MakeSubscriber();
    std::optional<Subscriber> second(MakeSubscriber());
    EXPECT_EQ(publisher.Subscribers(), 2U);
    second.reset();
    EXPECT_EQ(publisher.Subscribers(), 1U);
}

TEST_F(AudienceTest, Subscribers_IsNoSubscriberItself) {
    Publisher publisher("heat", bus.MakeOptions());
    EXPECT_EQ(publisher.Subscribers(), 0U);
    EXPECT_EQ(bus.RegisteredCount(), 1U);
}

TEST_F(AudienceTest, OnSubscribers_GetsTheFirstNumberAndEachThatBecomesNoneOrOne) {
    const auto first = MakeSubscriber();
    std::optional<Subscriber> second(MakeSubscriber());
    Publisher publisher("heat", Recording());
    EXPECT_THAT(counts, ElementsAre(2));
    const auto third = MakeSubscriber();
    publisher.Push(21);
    EXPECT_THAT(counts, ElementsAre(2));
}

TEST_F(AudienceTest, OnSubscribers_IsCalledBehindAPush) {
    Publisher publisher("heat", Recording());
    std::optional<Subscriber> subscriber(MakeSubscriber());
    EXPECT_THAT(counts, ElementsAre(0));
    publisher.Push(21);
    EXPECT_THAT(counts, ElementsAre(0, 1));
    std::optional<Subscriber> second(MakeSubscriber());
    subscriber.reset();
    second.reset();
    EXPECT_TRUE(publisher.TryPush(22));
    EXPECT_THAT(counts, ElementsAre(0, 1, 1, 0));
}

TEST_F(AudienceTest, AfterARestart_OnlyANewNumberIsReported) {
    Publisher publisher("heat", Recording());
    std::optional<Subscriber> subscriber(MakeSubscriber());
    publisher.Push(21);
    bus.Restart();
    publisher.Push(22);
    while (publisher.Subscribers() != 0) {
    }
    EXPECT_THAT(counts, ElementsAre(0, 1, 0));
    bus.Restart();
    publisher.Push(23);
    EXPECT_EQ(publisher.Subscribers(), 0U);
    EXPECT_THAT(counts, ElementsAre(0, 1, 0));
}

TEST_F(AudienceTest, Subscribers_OutlivesARestart) {
    Publisher publisher("heat", Recording());
    bus.Restart();
    EXPECT_NO_THROW(publisher.Subscribers()) << "without a push before, which would have connected again";
    bus.Restart();
    EXPECT_NO_THROW(publisher.Subscribers());
}

TEST_F(AudienceTest, AFailureToCount_IsNoneOfThePush) {
    Publisher publisher("heat", Recording());
    bus.FailNext(Request::Receive, 1);
    publisher.Push(21);
    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(21));
    const auto subscriber = MakeSubscriber();
    publisher.Push(22);
    EXPECT_THAT(counts, ElementsAre(0, 1)) << "from a new connection";
}

TEST_F(AudienceTest, AFunctionThatThrows_LeavesNoPublisherBehind) {
    Options options;
    options.onSubscribers = [](std::size_t) { throw std::runtime_error("no"); };
    EXPECT_THROW(Publisher("heat", bus.MakeOptions(options)), std::runtime_error);
    EXPECT_EQ(bus.RegisteredCount(), 0U);
}

TEST_F(AudienceTest, Subscribers_AfterClose_Throws) {
    Publisher publisher("heat", bus.MakeOptions());
    publisher.Close();
    EXPECT_THROW(publisher.Subscribers(), msgbus::PlatformError);
}

TEST_F(AudienceTest, APublisherOfAReservedTopic_IsRefused) {
    EXPECT_THROW(Publisher("\x1FPheat", bus.MakeOptions()), msgbus::RefusedError);
}

TEST_F(AudienceTest, PushAll_WithAReportThatThrows_CountsTheValueBeforeIt) {
    std::optional<Subscriber> subscriber;
    Options options;
    options.onSubscribers = [](std::size_t count) {
        if (count == 1) {
            throw msgbus::RefusedError(2, "as if the bus were full");
        }
    };
    Publisher publisher("heat", bus.MakeOptions(options));
    subscriber.emplace(MakeSubscriber());
    const std::vector<std::int64_t> values{1, 2, 3};

    EXPECT_EQ(publisher.PushAll(values.data(), values.size()), 1U);

    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(1));
}

} // namespace
