// Defends the publisher of the client library: every refusal is reported, no value is lost silently, and the loss of
// the server is reported.
#include "msgbus/publisher.h"

#include "fake_server.h"
#include "kn/status.h"
#include "msgbus/error.h"
#include "support/scripted_platform.h"

#include <optional>
#include <stdexcept>

namespace {

using msgbus::Options;
using msgbus::Publisher;
using msgbus::RefusedError;
using test_support::FakeServer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const Options OnStatic{.route = msgbus::Route::Static};

template <typename Error, typename Action>
std::optional<Error> Thrown(const Action& action) {
    try {
        action();
    } catch (const Error& error) {
        return error;
    }
    return std::nullopt;
}

class PublisherTest : public test_support::BusTest {
protected:
    test_support::ScriptedPlatform platform;
};

TEST_F(PublisherTest, Life_RegistersPushesAndUnregisters) {
    FakeServer server;
    {
        Publisher publisher("heat", OnStatic);
        EXPECT_EQ(publisher.Id(), FakeServer::PublisherId);
        publisher.Push(-5);
    }
    EXPECT_THAT(server.Asked(), ElementsAre("RegisterPublisher(heat)", "Push(11, -5)", "UnregisterPublisher(11)"));
}

TEST_F(PublisherTest, Move_TakesTheRegistrationAlong) {
    FakeServer server;
    {
        Publisher first("heat", OnStatic);
        Publisher second = std::move(first);
        second.Push(1);
    }
    EXPECT_THAT(server.Asked(), ElementsAre("RegisterPublisher(heat)", "Push(11, 1)", "UnregisterPublisher(11)"));
}

TEST_F(PublisherTest, Construction_WithATopicThatCannotBeSent_ThrowsAndSendsNothing) {
    FakeServer server;
    for (const auto& topic : {std::string(), std::string(1024, 'x'), std::string("a\0b", 3)}) {
        EXPECT_THROW(Publisher(topic, OnStatic), std::invalid_argument);
    }
    EXPECT_THAT(server.Asked(), IsEmpty());
}

TEST_F(PublisherTest, Construction_ForATakenTopic_SaysSo) {
    FakeServer server;
    server.Answer("RegisterPublisher", 8);
    const auto error = Thrown<RefusedError>([] { Publisher("heat", OnStatic); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Code(), 8);
    EXPECT_STREQ(error->what(), "topic 'heat' already has a publisher");
}

TEST_F(PublisherTest, Construction_WithoutAServer_SaysSo) {
    const auto error = Thrown<msgbus::NoServerError>([] { Publisher("heat", OnStatic); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Code(), KnStatusNotFound);
    EXPECT_STREQ(error->what(), "no message bus server is running in static mode");
}

TEST_F(PublisherTest, Construction_WithoutAMode_FindsTheStaticServerWhenThereAreNoServices) {
    unsetenv("BORVEN_BUS");
    FakeServer server;
    EXPECT_NO_THROW(Publisher("heat"));
}

TEST_F(PublisherTest, EveryRefusalOfAPush_ComesWithItsNumberAndASentence) {
    FakeServer server;
    Publisher publisher("heat", OnStatic);
    for (std::int32_t code = 1; code <= 10; ++code) {
        if (code == 2) { // the queue is full: Push retries
            continue;
        }
        server.Answer("Push", code);
        const auto error = Thrown<RefusedError>([&] { publisher.Push(1); });
        ASSERT_TRUE(error) << code;
        EXPECT_EQ(error->Code(), code);
        EXPECT_EQ(error->what(), msgbus::DescribeResult(code));
    }
}

TEST_F(PublisherTest, TryPush_IntoAFullQueue_IsFalse) {
    FakeServer server;
    Publisher publisher("heat", OnStatic);
    server.Answer("Push", 2);
    EXPECT_FALSE(publisher.TryPush(1));
    EXPECT_TRUE(publisher.TryPush(2));
}

TEST_F(PublisherTest, Push_IntoAFullQueue_RetriesUntilItIsTaken) {
    FakeServer server;
    Publisher publisher("heat", OnStatic);
    server.Answer("Push", 2, 3);
    publisher.Push(1);
    EXPECT_THAT(server.Asked(),
                ElementsAre("RegisterPublisher(heat)", "Push(11, 1)", "Push(11, 1)", "Push(11, 1)", "Push(11, 1)"));
}

TEST_F(PublisherTest, Push_IntoAQueueThatStaysFull_ThrowsTwoInTheEnd) {
    FakeServer server;
    Options options = OnStatic;
    options.fullQueueTimeout = std::chrono::milliseconds(5);
    Publisher publisher("heat", options);
    server.Answer("Push", 2, 1000000);
    const auto error = Thrown<RefusedError>([&] { publisher.Push(1); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Code(), 2);
    EXPECT_THAT(error->what(), HasSubstr("the value was not published"));
}

TEST_F(PublisherTest, Push_ToAServerThatIsGone_SaysWhichValueIsInDoubt) {
    std::optional<FakeServer> server(std::in_place);
    Publisher publisher("heat", OnStatic);
    server.reset();
    const auto error = Thrown<msgbus::ServerGoneError>([&] { publisher.Push(77); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Code(), KnStatusClosed);
    EXPECT_THAT(error->what(), HasSubstr("value 77 was not acknowledged"));
}

TEST_F(PublisherTest, Push_ToARestartedServer_RegistersAndPushesAgainAndTellsWhatMayBeLost) {
    std::optional<FakeServer> server(std::in_place);
    Options options = OnStatic;
    options.reconnectFor = std::chrono::hours(1);
    std::vector<std::string> notices;
    options.onNotice = [&](msgbus::Notice, const std::string& sentence) { notices.push_back(sentence); };
    Publisher publisher("heat", options);
    server.reset();
    server.emplace();
    publisher.Push(77);
    EXPECT_THAT(server->Asked(), ElementsAre("RegisterPublisher(heat)", "Push(11, 77)"));
    EXPECT_THAT(notices, ElementsAre(HasSubstr("the message bus server is gone"), HasSubstr("may arrive twice")));
}

TEST_F(PublisherTest, Close_OfAPublisherThatSomebodyElseUnregistered_SaysSo) {
    FakeServer server;
    Publisher publisher("heat", OnStatic);
    server.Answer("UnregisterPublisher", 8);
    const auto error = Thrown<RefusedError>([&] { publisher.Close(); });
    ASSERT_TRUE(error);
    EXPECT_THAT(error->what(), HasSubstr("another client has unregistered the publisher of topic 'heat'"));
}

TEST_F(PublisherTest, Push_AfterClose_IsNoSuccess) {
    FakeServer server;
    Publisher publisher("heat", OnStatic);
    publisher.Close();
    EXPECT_THROW(publisher.Push(1), msgbus::PlatformError);
}

TEST_F(PublisherTest, ARegistrationThatIsAnsweredTooLate_IsUndoneBeforeTheNextRequest) {
    FakeServer server;
    const Publisher other("other", OnStatic); // keeps the connection
    Options impatient = OnStatic;
    impatient.callTimeout = std::chrono::milliseconds(20);
    server.Hold("RegisterPublisher");
    const auto error = Thrown<msgbus::TimedOutError>([&] { Publisher("late", impatient); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "the message bus server did not answer within 20 ms; whether the publisher of topic "
                                "'late' is registered is unknown");
    const auto unsent = Thrown<msgbus::TimedOutError>([&] { Publisher("later", impatient); });
    ASSERT_TRUE(unsent);
    EXPECT_THAT(unsent->what(), HasSubstr("the registration of topic 'later' was not sent"));
    server.LetGo();
    const Publisher next("next", OnStatic);
    EXPECT_THAT(server.Asked(), ElementsAre("RegisterPublisher(other)", "RegisterPublisher(late)",
                                            "UnregisterPublisher(11)", "RegisterPublisher(next)"));
}

TEST_F(PublisherTest, PushAll_ReturnsHowManyWereTaken_AndTheNextCallThrowsWhy) {
    FakeServer server;
    Publisher publisher("heat", OnStatic);
    const std::vector<std::int64_t> values{1, 2, 3, 4};
    server.AnswerAfter(2, "Push", 10);
    EXPECT_EQ(publisher.PushAll(values), 2U);
    const auto failure = Thrown<RefusedError>([&] { publisher.Push(5); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->Code(), 10);
    EXPECT_EQ(publisher.PushAll(values), 4U);
    server.Answer("Push", 10);
    EXPECT_TRUE(Thrown<RefusedError>([&] { static_cast<void>(publisher.PushAll(values)); }));
    EXPECT_THAT(server.Asked(), ElementsAre("RegisterPublisher(heat)", "Push(11, 1)", "Push(11, 2)", "Push(11, 3)",
                                            "Push(11, 1)", "Push(11, 2)", "Push(11, 3)", "Push(11, 4)", "Push(11, 1)"));
}

TEST_F(PublisherTest, PushAll_ToABusThatStaysFull_ReturnsThePrefix) {
    FakeServer server;
    Options options = OnStatic;
    options.fullQueueTimeout = std::chrono::milliseconds(1);
    Publisher publisher("heat", options);
    server.Answer("Push", 2, 1000);
    EXPECT_EQ(publisher.PushAll(std::vector<std::int64_t>{1, 2}), 0U);
    server.AnswerAfter(1, "Push", 0);
    EXPECT_EQ(publisher.PushAll(std::vector<std::int64_t>{1, 2}), 2U);
}

} // namespace
