// No call waits for ever: a server that was stopped answers nothing.

#include "live/server_process.h"
#include "msgbus/msgbus.h"

#include <chrono>
#include <future>
#include <optional>
#include <thread>

namespace {

using namespace std::chrono_literals;
using test_support::LiveTest;
using Clock = std::chrono::steady_clock;

constexpr auto Limit = 200ms;
constexpr auto Far = 60s; ///< beyond what a call with the limit takes on a busy machine

msgbus::Options Limited() {
    msgbus::Options options;
    options.callTimeout = Limit;
    return options;
}

/// Returns: the sentence of the TimedOutError that `call` throws; empty when it throws none.
template <typename Call>
std::string TimeOutOf(const Call& call) {
    try {
        call();
    } catch (const msgbus::TimedOutError& error) {
        return error.what();
    }
    return "";
}

class TimeLimitsTest : public LiveTest {
protected:
    std::size_t MessagesOf(msgbus::Subscriber& subscriber) {
        std::size_t count = 0;
        while (subscriber.NextFor(300ms)) {
            ++count;
        }
        return count;
    }
};

TEST_F(TimeLimitsTest, PushToAStoppedServer_SaysThatTheOutcomeIsUnknown_AndTheNextThatItWasNotSent) {
    msgbus::Publisher publisher("t", Limited());
    server.Stop();
    EXPECT_EQ("the message bus server did not answer within 200 ms; whether value 1 was published is unknown",
              TimeOutOf([&] { publisher.Push(1); }));
    EXPECT_EQ("the message bus server did not answer an earlier request within 200 ms; value 2 was not sent",
              TimeOutOf([&] { static_cast<void>(publisher.TryPush(2)); }));
    EXPECT_FALSE(publisher.Drain(Clock::now() + Limit));
    server.Continue();
    EXPECT_TRUE(publisher.Drain(Clock::now() + Far));
    publisher.Push(3);
}

TEST_F(TimeLimitsTest, AfterSigcont_EveryValueThatWasSentArrives_AndNoOther) {
    msgbus::Subscriber subscriber("s", {"t"});
    msgbus::Publisher publisher("t", Limited());
    publisher.Push(1);
    server.Stop();
    EXPECT_NE("", TimeOutOf([&] { publisher.Push(2); }));
    EXPECT_NE("", TimeOutOf([&] { publisher.Push(3); }));
    server.Continue();
    ASSERT_TRUE(publisher.Drain(Clock::now() + Far));
    publisher.Push(4);
    EXPECT_EQ(1, subscriber.NextFor(Far)->value);
    EXPECT_EQ(2, subscriber.NextFor(Far)->value);
    EXPECT_EQ(4, subscriber.NextFor(Far)->value);
}

TEST_F(TimeLimitsTest, PushWithADeadline_EndsByIt) {
    msgbus::Publisher publisher("t"); // five seconds for a call
    server.Stop();
    const auto begin = Clock::now();
    EXPECT_EQ("the message bus server did not answer by the deadline; whether value 1 was published is unknown",
              TimeOutOf([&] { publisher.Push(1, Clock::now() + 50ms); }));
    EXPECT_LT(Clock::now() - begin, 5s);
    EXPECT_NE("", TimeOutOf([&] { publisher.Push(2, Clock::time_point::min()); }));
    server.Continue();
    EXPECT_TRUE(publisher.Drain(Clock::now() + Far));
}

TEST_F(TimeLimitsTest, DestructorsOfAHundred_WaitOnceForAStoppedServer) {
    std::optional<msgbus::Publisher> publisher(std::in_place, "t", Limited());
    std::vector<msgbus::Subscriber> subscribers;
    for (int i = 0; i < 100; ++i) {
        subscribers.emplace_back("s", std::vector<std::string>{"t"}, Limited());
    }
    server.Stop();
    const auto begin = Clock::now();
    publisher.reset();
    subscribers.clear();
    EXPECT_LT(Clock::now() - begin, 100 * Limit);
    server.Continue();
}

TEST_F(TimeLimitsTest, WhatCouldNotBeUnregistered_IsUnregisteredBeforeTheNextRequest) {
    const msgbus::Subscriber other("other", {"other"});
    std::optional<msgbus::Publisher> first(std::in_place, "first", Limited());
    std::optional<msgbus::Publisher> second(std::in_place, "second", Limited());
    server.Stop();
    first.reset();
    second.reset();
    server.Continue();
    const msgbus::Publisher firstAgain("first");
    const msgbus::Publisher secondAgain("second");
}

TEST_F(TimeLimitsTest, WhatCouldNotBeUnregistered_IsUnregistered_EvenIfNothingElseWasLeft) {
    {
        const msgbus::Publisher first("first", Limited());
        const msgbus::Publisher second("second", Limited());
        server.Stop();
    }
    server.Continue();
    const msgbus::Publisher secondAgain("second");
    const msgbus::Publisher firstAgain("first");
}

TEST_F(TimeLimitsTest, ARegistrationThatIsAnsweredLate_DoesNotTakeTheTopic) {
    const msgbus::Publisher other("other");
    msgbus::Options hasty;
    hasty.callTimeout = 0ms; // the server runs, so that it can be connected to, and is seldom fast enough
    for (int round = 0; round < 20; ++round) {
        while (TimeOutOf([&] { const msgbus::Publisher publisher("late", hasty); }) !=
               "the message bus server did not answer within 0 ms; whether the publisher of topic 'late' is registered "
               "is unknown") {
        }
        const msgbus::Publisher again("late");
    }
}

TEST_F(TimeLimitsTest, CancelOfAStoppedServersSubscriber_EndsANextOfAnotherThread) {
    msgbus::Subscriber subscriber("s", {"t"}, Limited());
    auto ended = std::async(std::launch::async, [&] { return !subscriber.Next(); });
    server.Stop();
    subscriber.Cancel();
    EXPECT_TRUE(ended.get());
    server.Continue();
}

TEST_F(TimeLimitsTest, CancelOfAStoppedServersSubscriber_LeavesItsDescriptorReadable) {
    msgbus::Subscriber subscriber("s", {"t"}, Limited());
    msgbus::Subscriber other("other", {"t"}, Limited());
    const int descriptor = subscriber.Descriptor();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    EXPECT_EQ(msgbus::Outcome::TimedOut, other.TryNext().outcome); // this thread uses it last
    server.Stop();
    std::thread([&] { subscriber.Cancel(); }).join();
    EXPECT_NE(-1, ::fcntl(descriptor, F_GETFD));
    EXPECT_TRUE(test_support::IsReadable(descriptor, test_support::PatienceMs));
    EXPECT_EQ(msgbus::Outcome::Canceled, subscriber.TryNext().outcome);
    server.Continue();
}

TEST_F(TimeLimitsTest, ACancelThatWaitsForAStoppedServer_KeepsNoOtherCallWaiting) {
    auto options = Limited();
    options.callTimeout = Far;
    msgbus::Subscriber subscriber("s", {"t"}, options);
    server.Stop();
    const auto begin = Clock::now();
    std::thread cancel([&] { subscriber.Cancel(); });
    while (subscriber.TryNext().outcome != msgbus::Outcome::Canceled) {
    }
    EXPECT_EQ(0U, subscriber.Lost().values);
    EXPECT_EQ(-1, subscriber.Id());
    EXPECT_LT(Clock::now() - begin, Far / 2);
    server.Continue();
    cancel.join();
}

TEST_F(TimeLimitsTest, ARestartedServerThatStands_EndsNoCallLate) {
    msgbus::Options options;
    options.reconnectFor = options.connectTimeout = options.callTimeout = Far;
    msgbus::Subscriber subscriber("s", {"t"}, options);
    msgbus::Publisher publisher("t", options);
    server.Restart();
    server.Stop();
    const auto begin = Clock::now();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(20ms).outcome);
    EXPECT_NE("", TimeOutOf([&] { publisher.Push(1, Clock::now() + 20ms); }));
    EXPECT_LT(Clock::now() - begin, Far / 2);
    server.Continue();
}

TEST_F(TimeLimitsTest, NextUntil_OfAStoppedServer_TimesOut_AndLosesNothing) {
    msgbus::Subscriber subscriber("s", {"t"}, Limited());
    msgbus::Publisher publisher("t", Limited());
    server.Stop();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(20ms).outcome);
    server.Continue();
    publisher.Push(7);
    EXPECT_EQ(7, subscriber.NextFor(Far)->value);
}

TEST_F(TimeLimitsTest, TurnOnTheSharedConnection_IsBoundedToo) {
    std::vector<msgbus::Publisher> publishers;
    for (const char* topic : {"a", "b", "c"}) {
        publishers.emplace_back(topic, Limited());
    }
    server.Stop();
    std::vector<std::future<void>> closing;
    for (auto& publisher : publishers) {
        closing.push_back(std::async(std::launch::async, [&] { publisher.Close(); }));
    }
    for (auto& thread : closing) {
        ASSERT_EQ(std::future_status::ready, thread.wait_for(Far));
        EXPECT_THROW(thread.get(), msgbus::TimedOutError);
    }
    server.Continue();
    const msgbus::Publisher a("a");
    const msgbus::Publisher b("b");
    const msgbus::Publisher c("c");
}

TEST_F(TimeLimitsTest, PushAfterClose_SaysThat) {
    msgbus::Publisher publisher("t");
    publisher.Close();
    publisher.Close();
    try {
        publisher.Push(1);
        FAIL();
    } catch (const msgbus::PlatformError& error) {
        EXPECT_STREQ("the publisher of topic 't' was closed", error.what());
    }
}

} // namespace
