// Defends what programs learn of each other from a server: publishers that come, leave and die, many of them, are
// reported once each and in order with their values; restarts of the server double and lose nothing.
// MSGBUS_NOTICE_KILLS and MSGBUS_NOTICE_RESTARTS set other numbers of them.

#include "live/server_process.h"
#include "msgbus/msgbus.h"

#include <gmock/gmock.h>

#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using msgbus::Options;
using msgbus::Publisher;
using msgbus::PublisherNotice;
using msgbus::PublisherState;
using msgbus::Subscriber;
using test_support::IsReadable;
using test_support::LiveTest;
using test_support::PatienceMs;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr auto Far = 60s;

int NumberFrom(const char* name, int otherwise) {
    const char* const text = std::getenv(name);
    return text == nullptr ? otherwise : std::atoi(text);
}

/// A process that publishes.
class PublisherProcess final {
public:
    explicit PublisherProcess(const std::function<void()>& publish) : pid(::fork()) {
        if (pid == 0) {
            try {
                publish();
            } catch (const std::exception& error) {
                std::cerr << error.what() << '\n';
            }
            ::_exit(1);
        }
    }
    PublisherProcess(const PublisherProcess&) = delete;
    PublisherProcess& operator=(const PublisherProcess&) = delete;
    ~PublisherProcess() {
        if (pid > 0) {
            Kill();
        }
    }

    void Kill() {
        EXPECT_EQ(0, ::kill(pid, SIGKILL));
        EXPECT_EQ(pid, ::waitpid(pid, nullptr, 0));
        pid = -1;
    }

private:
    pid_t pid;
};

/// Publishes 1, 2, ... until it is killed. `count`: then it does nothing any more. `pause`: between two values.
std::function<void()> Counting(const std::string& topic, std::int64_t count, const Options& options = {},
                               std::chrono::microseconds pause = 0us) {
    return [=] {
        Publisher publisher(topic, options);
        for (std::int64_t i = 1; i <= count; ++i) {
            publisher.Push(i);
            if (pause != 0us) {
                std::this_thread::sleep_for(pause);
            }
        }
        while (true) {
            ::pause();
        }
    };
}

class NoticesTest : public LiveTest {
protected:
    Options Recording() {
        Options options;
        options.onPublisher = [this](const PublisherNotice& notice) { notices.push_back(notice); };
        return options;
    }

    /// Receives until there are so many notices.
    void AwaitNotices(Subscriber& subscriber, std::size_t count) {
        while (notices.size() < count) {
            subscriber.NextFor(10ms); // the watchdog of the test run limits it
        }
    }

    std::vector<PublisherState> States() const {
        std::vector<PublisherState> states;
        for (const auto& notice : notices) {
            states.push_back(notice.state);
        }
        return states;
    }

    std::vector<PublisherNotice> notices;
};

TEST_F(NoticesTest, ManyKilledPublishers_AreReportedOnceEachBehindTheirLastValue) {
    const int kills = NumberFrom("MSGBUS_NOTICE_KILLS", 300);
    constexpr std::int64_t values = 20;
    Subscriber subscriber("reader", {"t"}, Recording());
    AwaitNotices(subscriber, 1);
    Clock::duration longest{};
    for (int i = 0; i < kills; ++i) {
        notices.clear();
        PublisherProcess publisher(Counting("t", values));
        for (std::int64_t expected = 1; expected <= values; ++expected) {
            const auto received = subscriber.NextFor(Far);
            ASSERT_TRUE(received);
            ASSERT_EQ(expected, received->value);
            ASSERT_EQ(1U, notices.size());
        }
        ASSERT_EQ(PublisherState::Came, notices[0].state);
        const auto begin = Clock::now();
        publisher.Kill();
        while (notices.size() < 2) {
            ASSERT_FALSE(subscriber.NextFor(1ms)); // no value comes
        }
        longest = std::max(longest, Clock::now() - begin);
        ASSERT_EQ(PublisherState::Died, notices[1].state);
        ASSERT_EQ(notices[0].id, notices[1].id);
    }
    std::cout << "longest of " << kills << ": "
              << std::chrono::duration_cast<std::chrono::microseconds>(longest).count() << " us\n";
    EXPECT_LT(longest, 10s);
}

TEST_F(NoticesTest, PublishersThatAreKilledWhileTheyPush_AreReportedBehindWhatWasPushed) {
    const int kills = NumberFrom("MSGBUS_NOTICE_KILLS", 300) / 3;
    Subscriber subscriber("reader", {"t"}, Recording());
    AwaitNotices(subscriber, 1);
    for (int i = 0; i < kills; ++i) {
        notices.clear();
        PublisherProcess publisher(Counting("t", std::numeric_limits<std::int64_t>::max()));
        std::int64_t last = 0;
        while (last < 100) {
            const auto received = subscriber.NextFor(Far);
            ASSERT_TRUE(received);
            ASSERT_EQ(++last, received->value);
        }
        publisher.Kill();
        while (notices.size() < 2) {
            if (const auto received = subscriber.NextFor(1ms)) {
                ASSERT_EQ(1U, notices.size()) << "a value behind the notice";
                ASSERT_EQ(++last, received->value);
            }
        }
        ASSERT_EQ(PublisherState::Died, notices[1].state);
    }
}

TEST_F(NoticesTest, APublisherThatLeaves_IsReportedBehindItsLastValue) {
    Subscriber subscriber("reader", {"t"}, Recording());
    Publisher("t").Push(21);
    EXPECT_EQ(21, subscriber.Next()->value);
    AwaitNotices(subscriber, 3);
    EXPECT_THAT(States(), ElementsAre(PublisherState::None, PublisherState::Came, PublisherState::Left));
}

TEST_F(NoticesTest, ADescriptor_IsReadableForADeathAndForASilence) {
    auto options = Recording();
    options.staleAfter = 20ms;
    Subscriber subscriber("reader", {"t"}, options);
    PublisherProcess publisher(Counting("t", 1));
    const auto awaitNotices = [&](std::size_t count) {
        while (notices.size() < count) {
            ASSERT_TRUE(IsReadable(subscriber.Descriptor(), PatienceMs));
            subscriber.TryNext();
        }
    };
    awaitNotices(3);
    publisher.Kill();
    awaitNotices(4);
    EXPECT_THAT(States(),
                ElementsAre(PublisherState::None, PublisherState::Came, PublisherState::Silent, PublisherState::Died));
}

TEST_F(NoticesTest, RestartsOfTheServer_AreNoChangeOfAPublisherThatComesBack) {
    const int restarts = NumberFrom("MSGBUS_NOTICE_RESTARTS", 10);
    auto options = Recording();
    options.reconnectFor = Far;
    Subscriber subscriber("reader", {"t"}, options);
    Options reconnecting;
    reconnecting.reconnectFor = Far;
    // Not so many that the server cuts the subscriber while it is not read.
    PublisherProcess publisher(Counting("t", std::numeric_limits<std::int64_t>::max(), reconnecting, 100us));
    for (int i = 0; i < restarts; ++i) {
        for (int received = 0; received < 20; ++received) {
            ASSERT_TRUE(subscriber.NextFor(Far));
        }
        server.Restart();
        ASSERT_TRUE(subscriber.NextFor(Far)) << "of the server before, or of the publisher that is back";
    }
    const auto back = Clock::now() + 3s; // longer than a publisher may take to come back
    while (Clock::now() < back) {
        ASSERT_TRUE(subscriber.NextFor(Far));
    }
    EXPECT_THAT(States(), ElementsAre(PublisherState::None, PublisherState::Came));
    publisher.Kill();
    AwaitNotices(subscriber, 3);
    EXPECT_EQ(PublisherState::Died, notices[2].state);
}

TEST_F(NoticesTest, APublisherThatDiesWithItsServer_IsReportedOnce) {
    auto options = Recording();
    options.reconnectFor = Far;
    Subscriber subscriber("reader", {"t"}, options);
    {
        PublisherProcess publisher(Counting("t", 1));
        ASSERT_TRUE(subscriber.NextFor(Far));
        server.Kill();
    }
    server.Start();
    AwaitNotices(subscriber, 3);
    server.Restart();
    PublisherProcess publisher(Counting("t", 1));
    AwaitNotices(subscriber, 4);
    EXPECT_THAT(States(),
                ElementsAre(PublisherState::None, PublisherState::Came, PublisherState::None, PublisherState::Came));
}

TEST_F(NoticesTest, APublisher_LearnsOfSubscribersThatComeAndGo) {
    std::vector<std::size_t> counts;
    Options options;
    options.onSubscribers = [&](std::size_t count) { counts.push_back(count); };
    Publisher publisher("t", options);
    const auto await = [&](std::size_t count) {
        while (counts.size() < count) {
            publisher.Push(1);
        }
    };
    {
        const Subscriber subscriber("reader", {"t"});
        await(2);
        const Subscriber second("reader", {"t"});
        while (publisher.Subscribers() != 2) {
        }
    }
    await(4);
    EXPECT_THAT(counts, ElementsAre(0, 1, 1, 0));
}

TEST_F(NoticesTest, SubscribersThatStartWithTheLastValue_GetEveryNumberFromThereOn) {
    std::atomic<bool> isEnding = false;
    std::atomic<bool> hasBegun = false;
    std::thread publishing([&] {
        Publisher publisher("t");
        for (std::int64_t i = 1; !isEnding; ++i) {
            publisher.Push(i);
            hasBegun = true;
        }
    });
    while (!hasBegun) {
        std::this_thread::yield();
    }
    Options options;
    options.startWithLast = true;
    for (int join = 0; join < 50; ++join) {
        Subscriber subscriber("reader", {"t"}, options);
        std::int64_t last = 0;
        for (int i = 0; i < 200; ++i) {
            const auto received = subscriber.NextFor(Far);
            if (!received || (last != 0 && received->value != last + 1)) {
                ADD_FAILURE() << last;
                break;
            }
            last = received->value;
        }
    }
    isEnding = true;
    publishing.join();
}

TEST_F(NoticesTest, APublisherOfAReservedTopic_IsRefused) {
    EXPECT_THROW(Publisher("\x1FPt"), msgbus::RefusedError);
}

class RetainTest : public testing::Test {
protected:
    test_support::ServerProcess server{{"--retain", "kept/*", "--retain", "other"}};
};

TEST_F(RetainTest, ARetainedTopic_StartsWithItsLastValueAlsoWhenItsPublisherHasLeft) {
    Publisher("kept/t").Push(21);
    Publisher("t").Push(22);
    Subscriber subscriber("reader", {"kept/t", "t", "other"});
    Publisher("other").Push(23);
    const auto first = subscriber.NextFor(Far);
    EXPECT_EQ("kept/t", first->topic);
    EXPECT_EQ(21, first->value);
    EXPECT_EQ(23, subscriber.NextFor(Far)->value);
}

TEST_F(RetainTest, SubscribersThatJoinAStream_GetEveryNumberFromThereOn) {
    PublisherProcess publisher(Counting("kept/t", std::numeric_limits<std::int64_t>::max()));
    for (int join = 0; join < 50; ++join) {
        Subscriber subscriber("reader", {"kept/t"});
        std::int64_t last = 0;
        for (int i = 0; i < 200; ++i) {
            const auto received = subscriber.NextFor(Far);
            ASSERT_TRUE(received);
            ASSERT_TRUE(last == 0 || received->value == last + 1) << last << ", then " << received->value;
            last = received->value;
        }
    }
}

class WithoutNoticesTest : public testing::Test {
protected:
    test_support::ServerProcess server{{"--no-notices"}};
};

TEST_F(WithoutNoticesTest, AServerThatReportsNothing_DeliversAllTheSame) {
    Options options;
    options.onPublisher = [](const PublisherNotice&) { ADD_FAILURE() << "a notice"; };
    options.startWithLast = true;
    Subscriber subscriber("reader", {"t"}, options);
    Publisher publisher("t");
    publisher.Push(21);
    EXPECT_EQ(21, subscriber.Next()->value);
}

TEST_F(WithoutNoticesTest, AskingHowManySubscribersThereAre_Fails) {
    Options options;
    options.callTimeout = 200ms;
    Publisher publisher("t", options);
    EXPECT_THROW(publisher.Subscribers(), msgbus::PlatformError);
}

} // namespace
