// Defends the subscriber of the client library: registration, the wait and how it ends, and the loss of the server.
#include "msgbus/subscriber.h"

#include "fake_server.h"
#include "msgbus/error.h"
#include "support/scripted_platform.h"

#include <future>
#include <optional>
#include <stdexcept>

namespace {

using msgbus::Options;
using msgbus::RefusedError;
using msgbus::Subscriber;
using test_support::FakeServer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const Options OnStatic{.route = msgbus::Route::Static};

class SubscriberTest : public test_support::BusTest {
protected:
    test_support::ScriptedPlatform platform;
};

TEST_F(SubscriberTest, Life_HandshakesWaitsAndUnregisters) {
    FakeServer server;
    server.Deliver("cold", 5);
    {
        Subscriber subscriber("reader", {"heat", "cold"}, OnStatic);
        EXPECT_EQ(subscriber.Id(), FakeServer::SubscriberId);
        const auto message = subscriber.Next();
        ASSERT_TRUE(message);
        EXPECT_EQ(message->topic, "cold");
        EXPECT_EQ(message->value, 5);
    }
    EXPECT_THAT(server.Asked(), ElementsAre("StartSubs(reader)", "Subscribe(7, heat)", "Subscribe(7, cold)",
                                            "FinishSubs(7, 1)", "Wait(12)", "UnregisterSubscriber(12)"));
}

TEST_F(SubscriberTest, Construction_WithTextThatCannotBeSent_ThrowsAndSendsNothing) {
    FakeServer server;
    for (const auto& text : {std::string(), std::string(1024, 'x'), std::string("a\0b", 3)}) {
        EXPECT_THROW(Subscriber(text, {"heat"}, OnStatic), std::invalid_argument);
        EXPECT_THROW(Subscriber("reader", {"heat", text}, OnStatic), std::invalid_argument);
    }
    EXPECT_THAT(server.Asked(), IsEmpty());
}

TEST_F(SubscriberTest, Construction_WithATopicNamedTwice_SaysSoAndCancelsTheHandshake) {
    FakeServer server;
    server.Answer("Subscribe", 8);
    try {
        Subscriber("reader", {"heat", "heat"}, OnStatic);
        FAIL() << "nothing was thrown";
    } catch (const RefusedError& error) {
        EXPECT_EQ(error.Code(), 8);
        EXPECT_STREQ(error.what(), "topic 'heat' is named twice");
    }
    EXPECT_THAT(server.Asked(), ElementsAre("StartSubs(reader)", "Subscribe(7, heat)", "FinishSubs(7, 0)"));
}

TEST_F(SubscriberTest, EveryRefusalOfARegistration_ComesWithItsNumberAndASentence) {
    FakeServer server;
    for (std::int32_t code = 1; code <= 10; ++code) {
        server.Answer("FinishSubs", code);
        try {
            Subscriber("reader", {"heat"}, OnStatic);
            FAIL() << "nothing was thrown for " << code;
        } catch (const RefusedError& error) {
            EXPECT_EQ(error.Code(), code);
            EXPECT_EQ(error.what(), msgbus::DescribeResult(code));
        }
    }
}

TEST_F(SubscriberTest, Cancel_EndsABlockedNext) {
    FakeServer server;
    Subscriber subscriber("reader", {"heat"}, OnStatic);
    auto next = std::async(std::launch::async, [&] { return subscriber.Next(); });
    server.AwaitAsked("Wait(12)");
    subscriber.Cancel();
    EXPECT_FALSE(next.get());
    EXPECT_FALSE(subscriber.Next());
}

TEST_F(SubscriberTest, Cancel_ThatTheServerRefuses_EndsABlockedNextAllTheSame) {
    FakeServer server;
    server.Answer("UnregisterSubscriber", 10);
    Subscriber subscriber("reader", {"heat"}, OnStatic);
    auto next = std::async(std::launch::async, [&] { return subscriber.Next(); });
    server.AwaitAsked("Wait(12)");
    subscriber.Cancel();
    EXPECT_FALSE(next.get());
}

TEST_F(SubscriberTest, Next_OfASubscriberThatSomebodyElseUnregistered_SaysSo) {
    FakeServer server;
    Subscriber subscriber("reader", {"heat"}, OnStatic);
    server.Answer("Wait", 1);
    server.Answer("UnregisterSubscriber", 8);
    for (int call = 0; call < 2; ++call) {
        try {
            subscriber.Next();
            FAIL() << "nothing was thrown";
        } catch (const RefusedError& error) {
            EXPECT_EQ(error.Code(), 1);
            EXPECT_STREQ(error.what(), "another client has unregistered subscriber 'reader'");
        }
        server.Answer("Wait", 2); // to a wait without an id
    }
}

TEST_F(SubscriberTest, Next_OfAServerThatStops_CountsAsGone) {
    FakeServer server;
    Subscriber subscriber("reader", {"heat"}, OnStatic);
    server.Answer("Wait", 1);
    server.Answer("UnregisterSubscriber", 10);
    EXPECT_THROW(subscriber.Next(), msgbus::ServerGoneError);
}

TEST_F(SubscriberTest, Next_OfAServerThatIsGone_SaysSo) {
    std::optional<FakeServer> server(std::in_place);
    Subscriber subscriber("reader", {"heat"}, OnStatic);
    server.reset();
    EXPECT_THROW(subscriber.Next(), msgbus::ServerGoneError);
}

TEST_F(SubscriberTest, Next_OfARestartedServer_RegistersAgainAndTellsWhatMayBeLost) {
    std::optional<FakeServer> server(std::in_place);
    Options options = OnStatic;
    options.reconnectFor = std::chrono::hours(1);
    std::vector<std::string> notices;
    options.onNotice = [&](msgbus::Notice, const std::string& sentence) { notices.push_back(sentence); };
    Subscriber subscriber("reader", {"heat"}, options);
    server.reset();
    server.emplace();
    server->Deliver("heat", 9);
    const auto message = subscriber.Next();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->value, 9);
    EXPECT_THAT(notices, ElementsAre(HasSubstr("the message bus server is gone"), HasSubstr("are lost")));
}

TEST_F(SubscriberTest, Next_OfAServerThatStopsAsWell_GoesOnLooking) {
    std::optional<FakeServer> server(std::in_place);
    Options options = OnStatic;
    options.reconnectFor = std::chrono::hours(1);
    Subscriber subscriber("reader", {"heat"}, options);
    server.reset();
    server.emplace();
    server->Answer("FinishSubs", 10, 2);
    server->Deliver("heat", 9);
    EXPECT_EQ(subscriber.Next()->value, 9);
    server.reset();
    server.emplace();
    server->Answer("FinishSubs", 8);
    EXPECT_THROW(subscriber.Next(), RefusedError) << "another refusal is final";
}

TEST_F(SubscriberTest, Cancel_EndsTheSearchForARestartedServer) {
    std::optional<FakeServer> server(std::in_place);
    Options options = OnStatic;
    options.reconnectFor = std::chrono::hours(1);
    std::promise<void> searching;
    options.onNotice = [&](msgbus::Notice, const std::string&) { searching.set_value(); };
    Subscriber subscriber("reader", {"heat"}, options);
    server.reset();
    auto next = std::async(std::launch::async, [&] { return subscriber.Next(); });
    searching.get_future().wait();
    subscriber.Cancel();
    EXPECT_FALSE(next.get());
}

TEST_F(SubscriberTest, Next_WithARefusalOfTheBus_ThrowsItsNumber) {
    FakeServer server;
    Subscriber subscriber("reader", {"heat"}, OnStatic);
    for (const std::int32_t code : {2, 10}) {
        server.Answer("Wait", code);
        try {
            subscriber.Next();
            FAIL() << "nothing was thrown for " << code;
        } catch (const RefusedError& error) {
            EXPECT_EQ(error.Code(), code);
        }
    }
}

TEST_F(SubscriberTest, ARegistrationThatIsAnsweredTooLate_IsUndoneBeforeTheNextRequest) {
    FakeServer server;
    const Subscriber other("other", {}, OnStatic); // keeps the connection
    for (const char* const method : {"StartSubs", "Subscribe", "FinishSubs"}) {
        Options impatient = OnStatic;
        impatient.callTimeout = std::chrono::milliseconds(20);
        server.Hold(method);
        EXPECT_THROW(Subscriber("late", {"heat"}, impatient), msgbus::TimedOutError);
        server.LetGo();
        const Subscriber next("next", {}, OnStatic);
    }
    EXPECT_THAT(server.Asked(),
                ElementsAre("StartSubs(other)", "FinishSubs(7, 1)", //
                            "StartSubs(late)", "FinishSubs(7, 0)", "StartSubs(next)", "FinishSubs(7, 1)",
                            "UnregisterSubscriber(12)", //
                            "StartSubs(late)", "Subscribe(7, heat)", "FinishSubs(7, 0)", "StartSubs(next)",
                            "FinishSubs(7, 1)", "UnregisterSubscriber(12)", //
                            "StartSubs(late)", "Subscribe(7, heat)", "FinishSubs(7, 1)", "UnregisterSubscriber(12)",
                            "StartSubs(next)", "FinishSubs(7, 1)", "UnregisterSubscriber(12)"));
}

} // namespace
