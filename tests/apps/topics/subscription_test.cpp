// One subscription of several subscribers: every value once, each topic in order, whatever becomes of one topic or of
// the server; topics that cannot be had are reported and tried again.

#include "topics/subscription.h"

#include "msgbus/error.h"
#include "msgbus/testing.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

namespace {

using msgbus::Outcome;
using msgbus::testing::Bus;
using msgbus::testing::Request;
using topics::NewTopic;
using topics::Subscription;
using Words = std::vector<std::string>;

constexpr std::chrono::seconds Patience{20};

/// What the test lets it find.
class ScriptedSource final : public topics::ITopicSource {
public:
    struct Script {
        std::vector<NewTopic> found;
        std::string blindness;
        bool isVacant = false;
        Words forgotten;
    };

    explicit ScriptedSource(Script& read) : script(read) {}

    std::vector<NewTopic> Look() override { return std::exchange(script.found, {}); }
    bool IsVacant(std::int64_t, const Words&) const override { return script.isVacant; }
    void Forget(const Words& topics) override {
        script.forgotten.insert(script.forgotten.end(), topics.begin(), topics.end());
    }
    std::string Blindness() const override { return script.blindness; }

private:
    Script& script;
};

class SubscriptionTest : public testing::Test {
protected:
    std::unique_ptr<Subscription> Make(Words named, msgbus::Options options = {}) {
        return std::make_unique<Subscription>(
            "name", std::move(named), bus.MakeOptions(std::move(options)), std::make_unique<ScriptedSource>(script),
            [this](const std::string& sentence, bool) { reports.push_back(sentence); });
    }

    static std::string Next(Subscription& subscription) {
        const auto received = subscription.NextUntil(std::chrono::steady_clock::now() + Patience);
        return received                                ? received->topic + ' ' + std::to_string(received->value)
               : received.outcome == Outcome::Canceled ? "canceled"
                                                       : "timed out";
    }

    /// Lets it look for topics, and take what there is.
    static Words Settle(Subscription& subscription) {
        Words values;
        while (true) {
            const auto received =
                subscription.NextUntil(std::chrono::steady_clock::now() + 3 * Subscription::LookInterval);
            if (!received) {
                return values;
            }
            values.push_back(received->topic + ' ' + std::to_string(received->value));
        }
    }

    Bus bus;
    ScriptedSource::Script script;
    Words reports;
};

TEST_F(SubscriptionTest, ANewTopic_StartsWithItsLastValue) {
    const auto subscription = Make({"a"});
    bus.Push("b", 1);
    bus.Push("b", 2);
    script.found = {{"b"}};
    EXPECT_EQ(Next(*subscription), "b 2");
    bus.Push("b", 3);
    bus.Push("a", 4);
    Words rest{Next(*subscription), Next(*subscription)};
    std::sort(rest.begin(), rest.end());
    EXPECT_EQ(rest, (Words{"a 4", "b 3"}));
    EXPECT_EQ(reports, Words{"receiving topic 'b' too"});
    EXPECT_FALSE(subscription->HasGap());
}

TEST_F(SubscriptionTest, ATopicWhoseLastValueWasReceived_StartsWithTheNextOne) {
    const auto subscription = Make({});
    bus.Push("b", 1);
    script.found = {{"b", 1}};
    EXPECT_EQ(Settle(*subscription), Words{});
    bus.Push("b", 2);
    bus.Push("b", 1);
    EXPECT_EQ(Next(*subscription), "b 2");
    EXPECT_EQ(Next(*subscription), "b 1");
}

TEST_F(SubscriptionTest, ATopicThatHasAnotherLastValueMeanwhile_StartsWithIt) {
    const auto subscription = Make({});
    bus.Push("b", 2);
    script.found = {{"b", 1}};
    EXPECT_EQ(Next(*subscription), "b 2");
    bus.Push("b", 1);
    EXPECT_EQ(Next(*subscription), "b 1");
}

TEST_F(SubscriptionTest, TopicsTooLongForTheirLastValue_AreReceivedWithoutIt) {
    const auto subscription = Make({});
    const std::string longTopic(1022, 'x');
    script.found = {{longTopic}, {"b"}};
    EXPECT_EQ(Settle(*subscription), Words{});
    bus.Push(longTopic, 1);
    EXPECT_EQ(Next(*subscription), longTopic + " 1");
    EXPECT_EQ(bus.RegisteredCount(), 3U);
}

TEST_F(SubscriptionTest, ValuesOfManySubscribers_KeepTheOrderOfEachTopic_AndNoneWaitsForTheOthers) {
    const auto subscription = Make({"t0"});
    for (int batch = 1; batch <= 5; ++batch) {
        script.found = {{"t" + std::to_string(batch)}};
        Settle(*subscription);
    }
    constexpr int count = 500;
    for (int value = 0; value < count; ++value) {
        for (int topic = 0; topic <= 5; ++topic) {
            bus.Push("t" + std::to_string(topic), value);
        }
    }
    std::map<std::string, std::vector<std::int64_t>> values;
    for (int i = 0; i < count * 6; ++i) {
        auto received = subscription->NextUntil(std::chrono::steady_clock::now() + Patience);
        ASSERT_TRUE(received);
        values[received->topic].push_back(received->value);
        if (i == count - 1) {
            EXPECT_EQ(values.size(), 6U) << "one of them had all turns";
        }
    }
    for (const auto& [topic, taken] : values) {
        ASSERT_EQ(taken.size(), static_cast<std::size_t>(count)) << topic;
        for (int value = 0; value < count; ++value) {
            ASSERT_EQ(taken[static_cast<std::size_t>(value)], value) << topic;
        }
    }
}

TEST_F(SubscriptionTest, ARefusedTopic_IsReportedOnce_AndTriedAgain) {
    const auto subscription = Make({});
    bus.FailNext(Request::RegisterSubscriber, 3);
    bus.Push("b", 1);
    script.found = {{"b"}};
    EXPECT_EQ(Next(*subscription), "b 1");
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_NE(reports[0].find("topic 'b' cannot be received for now: "), std::string::npos) << reports[0];
    EXPECT_EQ(reports[1], "receiving topic 'b' too");
    EXPECT_TRUE(subscription->HasGap());
}

TEST_F(SubscriptionTest, ASourceThatCannotSee_IsReportedOnce) {
    const auto subscription = Make({});
    script.blindness = "no account";
    Settle(*subscription);
    Settle(*subscription);
    EXPECT_EQ(reports, Words{"no account"});
    EXPECT_TRUE(subscription->HasGap());
}

TEST_F(SubscriptionTest, ARestartedServer_HasAllTopicsAgain_AndOneSubscriberReportsIt) {
    int notices = 0;
    msgbus::Options options;
    options.reconnectFor = Patience;
    options.onNotice = [&notices](msgbus::Notice notice, const std::string&) {
        notices += notice == msgbus::Notice::RegisteredAgain ? 1 : 0;
    };
    const auto subscription = Make({"a"}, options);
    script.found = {{"b"}};
    Settle(*subscription);
    bus.Restart();
    while (bus.RegisteredCount() != 2) {
        ASSERT_EQ(Settle(*subscription), Words{});
    }
    bus.Push("a", 1);
    bus.Push("b", 2);
    Words values{Next(*subscription), Next(*subscription)};
    std::sort(values.begin(), values.end());
    EXPECT_EQ(values, (Words{"a 1", "b 2"}));
    EXPECT_EQ(notices, 1);
    EXPECT_EQ(subscription->Lost().reconnections, 1U);
}

TEST_F(SubscriptionTest, WithManySubscribers_ThoseWithoutPublishersAreGivenUp) {
    const auto subscription = Make({"a"});
    for (std::size_t batch = 1; batch < Subscription::ManySubscribers; ++batch) {
        script.found = {{"t" + std::to_string(batch)}};
        Settle(*subscription);
    }
    ASSERT_EQ(bus.RegisteredCount(), Subscription::ManySubscribers);
    script.isVacant = true;
    script.found = {{"last"}};
    Settle(*subscription);
    EXPECT_EQ(bus.RegisteredCount(), 2U);
    EXPECT_EQ(script.forgotten.size(), Subscription::ManySubscribers - 1);
    bus.Push("a", 1);
    EXPECT_EQ(Next(*subscription), "a 1");
    bus.Push("last", 2);
    EXPECT_EQ(Next(*subscription), "last 2");
}

TEST_F(SubscriptionTest, Cancel_EndsAWait_AndUnregistersAll) {
    const auto subscription = Make({"a"});
    script.found = {{"b"}};
    Settle(*subscription);
    std::thread other([&subscription] { subscription->Cancel(); });
    EXPECT_EQ(Next(*subscription), "canceled");
    other.join();
    EXPECT_EQ(bus.RegisteredCount(), 0U);
}

TEST_F(SubscriptionTest, WithoutASource_ItIsOneSubscriber) {
    Subscription subscription("name", {"a", "b"}, bus.MakeOptions());
    bus.Push("b", 1);
    bus.Push("a", 2);
    EXPECT_EQ(Next(subscription), "b 1");
    EXPECT_EQ(Next(subscription), "a 2");
    EXPECT_EQ(bus.RegisteredCount(), 1U);
}

} // namespace
