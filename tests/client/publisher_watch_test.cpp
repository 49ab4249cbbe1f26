// Defends what a subscriber is told of the publishers of its topics: each change once and in order with the values, a
// silence once, and a restart of the server only where the publisher does not come back.
#include "publisher_watch.h"

#include "common/reserved_topics.h"
#include "fake_server.h"
#include "msgbus/publisher.h"
#include "msgbus/testing.h"
#include "support/scripted_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using common::Presence;
using common::PresenceValue;
using msgbus::Deadline;
using msgbus::Options;
using msgbus::Outcome;
using msgbus::Publisher;
using msgbus::PublisherNotice;
using msgbus::PublisherState;
using msgbus::PublisherWatch;
using msgbus::Subscriber;
using msgbus::testing::Bus;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

std::string Describe(const PublisherNotice& notice) {
    switch (notice.state) {
    case PublisherState::None:
        return notice.topic + " none " + std::to_string(notice.id);
    case PublisherState::Came:
        return notice.topic + " came " + std::to_string(notice.id);
    case PublisherState::Left:
        return notice.topic + " left " + std::to_string(notice.id);
    case PublisherState::Died:
        return notice.topic + " died " + std::to_string(notice.id);
    case PublisherState::Silent:
        return notice.topic + " silent " + std::to_string(notice.id);
    }
    return "";
}

/// Options whose notices are recorded in `events`.
Options Recording(std::vector<std::string>& events) {
    Options options;
    options.onPublisher = [&events](const PublisherNotice& notice) { events.push_back(Describe(notice)); };
    return options;
}

class PublisherWatchTest : public testing::Test {
protected:
    void Make(const std::vector<std::string>& topics, std::chrono::milliseconds staleAfter = 0ms) {
        options = Recording(events);
        options.staleAfter = staleAfter;
        watch.emplace(topics, options, [this] { return time; });
    }

    void Take(const std::string& topic, Presence presence, std::int64_t id) {
        EXPECT_TRUE(watch->Take(
            {common::MakeReserved(common::ReservedTopic::Presence, topic), PresenceValue{presence, id}.Encode()}));
    }
    void TakeValue(const std::string& topic) { EXPECT_FALSE(watch->Take({topic, 21})); }

    /// A wait goes on for so long without an answer.
    void Wait(std::chrono::milliseconds duration) {
        watch->NoteWait();
        time += duration;
        watch->ReportDue();
    }

    Deadline time{1h};
    std::vector<std::string> events;
    Options options;
    std::optional<PublisherWatch> watch;
};

TEST_F(PublisherWatchTest, Take_ReportsHowItStandsAndEveryChange) {
    Make({"heat", "cold"});
    Take("heat", Presence::None, 0);
    Take("cold", Presence::Came, 3);
    Take("heat", Presence::Came, 4);
    Take("heat", Presence::Left, 4);
    Take("cold", Presence::Died, 3);
    EXPECT_THAT(events, ElementsAre("heat none 0", "cold came 3", "heat came 4", "heat left 4", "cold died 3"));
}

TEST_F(PublisherWatchTest, Take_OfAnotherReservedTopic_LeavesItToTheProgram) {
    Make({"heat"});
    EXPECT_FALSE(watch->Take({common::MakeReserved(common::ReservedTopic::Presence, "cold"), 1}));
    EXPECT_FALSE(watch->Take({common::MakeReserved(common::ReservedTopic::SubscriberCount, "heat"), 1}));
    EXPECT_FALSE(watch->Take({"\x1F", 1}));
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(PublisherWatchTest, APublisherThatIsThereAfterARestart_IsNoNews) {
    Make({"heat"});
    Take("heat", Presence::Came, 3);
    watch->NoteRestart();
    Take("heat", Presence::Came, 1);
    Take("heat", Presence::Died, 1);
    EXPECT_THAT(events, ElementsAre("heat came 3", "heat died 1"));
}

TEST_F(PublisherWatchTest, APublisherThatRegistersSoonAfterARestart_IsNoNews) {
    Make({"heat"});
    Take("heat", Presence::Came, 3);
    watch->NoteRestart();
    Take("heat", Presence::None, 0);
    Wait(PublisherWatch::ReturnTime - 1ms);
    Take("heat", Presence::Came, 2);
    Wait(PublisherWatch::ReturnTime);
    Take("heat", Presence::Left, 2);
    EXPECT_THAT(events, ElementsAre("heat came 3", "heat left 2"));
}

TEST_F(PublisherWatchTest, APublisherThatDoesNotComeBack_IsReportedOnce) {
    Make({"heat"});
    Take("heat", Presence::Came, 3);
    watch->NoteRestart();
    Take("heat", Presence::None, 0);
    Wait(PublisherWatch::ReturnTime);
    Wait(PublisherWatch::ReturnTime);
    Take("heat", Presence::Came, 2);
    EXPECT_THAT(events, ElementsAre("heat came 3", "heat none 0", "heat came 2"));
}

TEST_F(PublisherWatchTest, ATopicWithoutAPublisherBeforeAndAfterARestart_IsNoNews) {
    Make({"heat", "cold"});
    Take("heat", Presence::None, 0);
    Take("cold", Presence::Came, 3);
    Take("cold", Presence::Died, 3);
    watch->NoteRestart();
    Take("heat", Presence::None, 0);
    Take("cold", Presence::None, 0);
    Wait(PublisherWatch::ReturnTime);
    EXPECT_THAT(events, ElementsAre("heat none 0", "cold came 3", "cold died 3"));
}

TEST_F(PublisherWatchTest, APublisherThatCameDuringARestart_IsReported) {
    Make({"heat"});
    Take("heat", Presence::None, 0);
    watch->NoteRestart();
    Take("heat", Presence::Came, 1);
    EXPECT_THAT(events, ElementsAre("heat none 0", "heat came 1"));
}

TEST_F(PublisherWatchTest, ASilence_IsReportedOnceUntilTheNextValue) {
    Make({"heat"}, 100ms);
    Take("heat", Presence::Came, 3);
    Wait(99ms);
    EXPECT_THAT(events, ElementsAre("heat came 3"));
    Wait(1ms);
    Wait(500ms);
    TakeValue("heat");
    Wait(99ms);
    EXPECT_THAT(events, ElementsAre("heat came 3", "heat silent 3"));
    Wait(1ms);
    EXPECT_THAT(events, ElementsAre("heat came 3", "heat silent 3", "heat silent 3"));
}

TEST_F(PublisherWatchTest, WithoutAPublisher_ThereIsNoSilence) {
    Make({"heat"}, 100ms);
    Take("heat", Presence::None, 0);
    Wait(200ms);
    Take("heat", Presence::Came, 3);
    Take("heat", Presence::Died, 3);
    Wait(200ms);
    EXPECT_THAT(events, ElementsAre("heat none 0", "heat came 3", "heat died 3"));
}

TEST_F(PublisherWatchTest, OfAServerThatReportsNothing_ASilenceIsReportedAllTheSame) {
    Make({"heat"}, 100ms);
    Wait(100ms);
    EXPECT_THAT(events, ElementsAre("heat silent 0"));
}

TEST_F(PublisherWatchTest, AProgramThatWasLongAway_FirstTakesWhatHasCome) {
    Make({"heat"}, 100ms);
    Take("heat", Presence::Came, 3);
    time += 10s;
    Wait(0ms); // the answer is on its way
    TakeValue("heat");
    Wait(50ms);
    EXPECT_THAT(events, ElementsAre("heat came 3"));
}

TEST_F(PublisherWatchTest, NoteWait_ReturnsWhenTheFirstOfAllTopicsIsDue) {
    Make({"heat", "cold"}, 100ms);
    Take("heat", Presence::Came, 3);
    time += 60ms;
    Take("cold", Presence::Came, 4);
    EXPECT_EQ(watch->NoteWait(), time + 50ms) << "a wait has to be unanswered for so long";
    Wait(50ms);
    EXPECT_EQ(watch->NoteWait(), time + 50ms);
    Wait(50ms);
    EXPECT_EQ(watch->NoteWait(), Deadline::max());
    EXPECT_THAT(events, ElementsAre("heat came 3", "cold came 4", "heat silent 3", "cold silent 4"));
}

TEST_F(PublisherWatchTest, AFunctionThatThrows_HasGotItsNoticeAllTheSame) {
    Make({"heat"});
    options.onPublisher = [this](const PublisherNotice& notice) {
        events.push_back(Describe(notice));
        throw std::runtime_error("no");
    };
    const auto came = [this] { Take("heat", Presence::Came, 3); };
    EXPECT_THROW(came(), std::runtime_error);
    Take("heat", Presence::Came, 3);
    EXPECT_THAT(events, ElementsAre("heat came 3"));
}

TEST(TopicsForTest, TopicsFor_AddsNothingThatIsNotAskedFor) {
    EXPECT_THAT(PublisherWatch::TopicsFor({"heat"}, {}), ElementsAre("heat"));
}

TEST(TopicsForTest, TopicsFor_NamesTheProgramsTopicsFirst) {
    Options options;
    options.onPublisher = [](const PublisherNotice&) {};
    options.startWithLast = true;
    EXPECT_THAT(PublisherWatch::TopicsFor({"heat", "cold"}, options),
                ElementsAre("heat", "cold", "\x1FPheat", "\x1FLheat",
                            "\x1FP"
                            "cold",
                            "\x1FL"
                            "cold"));
}

TEST(TopicsForTest, TopicsFor_ATopicThatWouldNotArriveWhole_Throws) {
    Options options;
    options.startWithLast = true;
    EXPECT_NO_THROW(PublisherWatch::TopicsFor({std::string(1020, 'x')}, options));
    EXPECT_THROW(PublisherWatch::TopicsFor({std::string(1021, 'x')}, options), std::invalid_argument);
}

// -- within a subscriber

class SubscriberNoticesTest : public testing::Test {
protected:
    /// Receives until there is nothing left, and records values too.
    void Read(Subscriber& subscriber) {
        while (const auto received = subscriber.TryNext()) {
            events.push_back(received->topic + " " + std::to_string(received->value));
        }
    }

    Bus bus;
    std::vector<std::string> events;
};

TEST_F(SubscriberNoticesTest, Notices_ComeInOrderWithTheValues) {
    Subscriber subscriber("reader", {"heat"}, bus.MakeOptions(Recording(events)));
    {
        Publisher publisher("heat", bus.MakeOptions());
        publisher.Push(20);
        publisher.Push(21);
    }
    Publisher publisher("heat", bus.MakeOptions());
    publisher.Push(22);
    bus.KillPublisher("heat");
    Read(subscriber);
    EXPECT_THAT(events, ElementsAre("heat none 0", "heat came 2", "heat 20", "heat 21", "heat left 2", "heat came 3",
                                    "heat 22", "heat died 3"));
}

TEST_F(SubscriberNoticesTest, NextFor_WithNoticesOnly_TimesOut) {
    Subscriber subscriber("reader", {"heat"}, bus.MakeOptions(Recording(events)));
    const Publisher publisher("heat", bus.MakeOptions());
    EXPECT_EQ(subscriber.NextFor(1ms).outcome, Outcome::TimedOut);
    EXPECT_THAT(events, ElementsAre("heat none 0", "heat came 2"));
}

TEST_F(SubscriberNoticesTest, Cancel_WithinTheFunction_EndsTheCall) {
    std::optional<Subscriber> subscriber;
    Options options;
    options.onPublisher = [&](const PublisherNotice&) { subscriber->Cancel(); };
    subscriber.emplace("reader", std::vector<std::string>{"heat"}, bus.MakeOptions(options));
    EXPECT_FALSE(subscriber->Next());
}

TEST_F(SubscriberNoticesTest, Next_ReportsASilenceWhileItWaits) {
    std::optional<Subscriber> subscriber;
    auto options = Recording(events);
    options.staleAfter = 1ms;
    options.onPublisher = [&](const PublisherNotice& notice) {
        events.push_back(Describe(notice));
        if (notice.state == PublisherState::Silent) {
            subscriber->Cancel();
        }
    };
    const Publisher publisher("heat", bus.MakeOptions());
    subscriber.emplace("reader", std::vector<std::string>{"heat"}, bus.MakeOptions(options));
    EXPECT_FALSE(subscriber->Next());
    EXPECT_THAT(events, ElementsAre("heat came 1", "heat silent 1"));
}

TEST_F(SubscriberNoticesTest, Descriptor_IsReadableForANoticeAndForASilence) {
    auto options = Recording(events);
    options.staleAfter = 1ms;
    Subscriber subscriber("reader", {"heat"}, bus.MakeOptions(options));
    Read(subscriber);
    pollfd polled{subscriber.Descriptor(), POLLIN, 0};
    Read(subscriber);
    EXPECT_EQ(::poll(&polled, 1, 0), 0);
    const Publisher publisher("heat", bus.MakeOptions());
    EXPECT_EQ(::poll(&polled, 1, 60000), 1);
    while (events.size() < 3) {
        ASSERT_EQ(::poll(&polled, 1, 60000), 1);
        Read(subscriber);
    }
    EXPECT_THAT(events, ElementsAre("heat none 0", "heat came 2", "heat silent 2"));
    EXPECT_EQ(::poll(&polled, 1, 0), 0);
}

TEST_F(SubscriberNoticesTest, Descriptor_WhileThereIsNoServer_IsNotReadableForASilence) {
    auto options = Recording(events);
    options.staleAfter = 1ms;
    options.reconnectFor = std::chrono::hours(1);
    Subscriber subscriber("reader", {"heat"}, bus.MakeOptions(options));
    const Publisher publisher("heat", bus.MakeOptions());
    pollfd readable{subscriber.Descriptor(), POLLIN, 0};
    Read(subscriber);
    bus.Stop();
    static_cast<void>(subscriber.TryNext());
    ::poll(nullptr, 0, 5); // the silence is due

    bool wasQuiet = false;
    for (int tries = 0; tries < 100 && !wasQuiet; ++tries) { // it is readable now and then, to look for a server
        EXPECT_EQ(subscriber.TryNext().outcome, Outcome::TimedOut);
        wasQuiet = ::poll(&readable, 1, 0) == 0;
    }
    EXPECT_TRUE(wasQuiet);
}

TEST_F(SubscriberNoticesTest, StartWithLast_GivesTheLastValueFirst) {
    bus.Push("heat", 20);
    bus.Push("heat", 21);
    Options options;
    options.startWithLast = true;
    Subscriber subscriber("reader", {"heat"}, bus.MakeOptions(options));
    bus.Push("heat", 22);
    Read(subscriber);
    EXPECT_THAT(events, ElementsAre("heat 21", "heat 22"));
}

class NoticesOfAServerTest : public test_support::BusTest {
protected:
    test_support::ScriptedPlatform platform;
};

TEST_F(NoticesOfAServerTest, ASubscriberThatAsks_SubscribesToReservedTopicsInTheSameHandshake) {
    test_support::FakeServer server;
    std::vector<std::string> events;
    auto options = Recording(events);
    options.route = msgbus::Route::Static;
    Subscriber subscriber("reader", {"heat"}, options);
    server.Deliver("\x1FPheat", PresenceValue{Presence::Came, 5}.Encode());
    server.Deliver("heat", 21);
    EXPECT_EQ(subscriber.Next()->value, 21);
    EXPECT_THAT(events, ElementsAre("heat came 5"));
    EXPECT_THAT(server.Asked(), ElementsAre("StartSubs(reader)", "Subscribe(7, heat)", "Subscribe(7, \x1FPheat)",
                                            "FinishSubs(7, 1)", "Wait(12)", "Wait(12)"));
}

} // namespace
