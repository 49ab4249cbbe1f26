// Servers that come, go and come back, and children made by fork.

#include "live/server_process.h"
#include "msgbus/msgbus.h"
#include "msgbus/testing.h"

#include <sys/epoll.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>

namespace {

using namespace std::chrono_literals;
using test_support::IsReadable;
using test_support::LiveTest;
using test_support::PatienceMs;
using Clock = std::chrono::steady_clock;

constexpr auto Far = 60s;
constexpr std::int32_t ServerGone = -3; // as a platform status

class RestartTest : public LiveTest {
protected:
    /// Reconnects, and records what onNotice reports.
    msgbus::Options Reconnecting() {
        msgbus::Options options;
        options.reconnectFor = Far;
        options.onNotice = [this](msgbus::Notice notice, const std::string& sentence) {
            const std::lock_guard lock(mutex);
            EXPECT_FALSE(sentence.empty());
            notices.push_back(notice);
        };
        return options;
    }

    std::mutex mutex; // guards notices
    std::vector<msgbus::Notice> notices;
};

/// Runs `check` in a child made by fork, which may take a minute. Returns: whether it returned true.
template <typename Check>
bool HoldsInChild(const Check& check) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
    }
    if (child == 0) {
        bool holds = false;
        try {
            holds = check();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
        }
        ::_exit(holds ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(RestartTest, SubscribersOfTheProcess_RegisterBeforeItsPublishersGoOn) {
    std::vector<msgbus::Subscriber> subscribers;
    for (int i = 0; i < 5; ++i) {
        subscribers.emplace_back("s", std::vector<std::string>{"t"}, Reconnecting());
    }
    msgbus::Publisher publisher("t", Reconnecting());
    for (std::int64_t round = 0; round < 5; ++round) {
        server.Restart();
        publisher.Push(round); // before any subscriber has noticed
        for (auto& subscriber : subscribers) {
            const auto received = subscriber.NextFor(Far);
            ASSERT_TRUE(received);
            EXPECT_EQ(round, received->value);
            EXPECT_EQ(static_cast<std::uint64_t>(round + 1), subscriber.Lost().reconnections);
        }
    }
    EXPECT_EQ(msgbus::Notice::ServerLost, notices.front());
    EXPECT_EQ(msgbus::Notice::RegisteredAgain, notices.back());
}

TEST_F(RestartTest, ASubscriberThatBlocksInNext_GetsWhatItsProcessPublishesAfterTheRestart) {
    msgbus::Subscriber subscriber("s", {"t"}, Reconnecting());
    msgbus::Publisher publisher("t", Reconnecting());
    for (std::int64_t round = 0; round < 20; ++round) {
        auto next = std::async(std::launch::async, [&] { return subscriber.Next(); });
        server.Restart();
        publisher.Push(round);
        const auto message = next.get();
        ASSERT_TRUE(message);
        EXPECT_EQ(round, message->value);
    }
}

TEST_F(RestartTest, Descriptor_StaysTheSame_OverRestarts) {
    msgbus::Subscriber subscriber("s", {"t"}, Reconnecting());
    const int descriptor = subscriber.Descriptor();
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{EPOLLIN, {.u64 = 0}};
    ASSERT_EQ(0, ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event));
    const std::size_t descriptors = test_support::OpenDescriptors();
    for (std::int64_t round = 0; round < 5; ++round) {
        server.Kill();
        bool isStarted = false;
        int wakeUps = 0;
        while (subscriber.Lost().reconnections == static_cast<std::uint64_t>(round)) {
            ASSERT_EQ(1, ::epoll_wait(epoll, &event, 1, PatienceMs));
            ASSERT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
            if (++wakeUps == 4) {
                server.Start();
                isStarted = true;
            }
        }
        EXPECT_TRUE(isStarted);
        EXPECT_EQ(descriptor, subscriber.Descriptor());
        msgbus::Publisher publisher("t");
        publisher.Push(round);
        while (true) {
            ASSERT_EQ(1, ::epoll_wait(epoll, &event, 1, PatienceMs));
            if (const auto received = subscriber.TryNext()) {
                EXPECT_EQ(round, received->value);
                break;
            }
        }
    }
    EXPECT_EQ(descriptors, test_support::OpenDescriptors());
    ::close(epoll);
}

TEST_F(RestartTest, Descriptor_AskedForWhileThereIsNoServer_Works) {
    msgbus::Subscriber subscriber("s", {"t"}, Reconnecting());
    server.Kill();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    const int descriptor = subscriber.Descriptor();
    server.Start();
    while (subscriber.Lost().reconnections == 0) {
        ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
        ASSERT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    }
    msgbus::Publisher("t").Push(1);
    ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
    while (true) {
        if (const auto received = subscriber.TryNext()) {
            EXPECT_EQ(1, received->value);
            break;
        }
        ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
    }
}

TEST_F(RestartTest, NextFor_TimesOutWhileThereIsNoServer) {
    msgbus::Subscriber subscriber("s", {"t"}, Reconnecting());
    server.Kill();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(100ms).outcome);
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    server.Start();
    while (subscriber.Lost().reconnections == 0) {
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(10ms).outcome);
    }
}

TEST(RestartsTest, ReceivesEndInTime_ThoughEveryServerEndsWithTheFirst) {
    msgbus::testing::Bus bus;
    msgbus::Options options;
    options.reconnectFor = Far;
    msgbus::Subscriber subscriber("s", {"t"}, bus.MakeOptions(options));
    const int descriptor = subscriber.Descriptor();
    bus.FailNext(msgbus::testing::Request::Receive, ServerGone, std::numeric_limits<int>::max());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(20ms).outcome);
        EXPECT_TRUE(IsReadable(descriptor, PatienceMs));
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
        EXPECT_TRUE(IsReadable(descriptor, PatienceMs));
    }
    auto next = std::async(std::launch::async, [&] { return subscriber.Next(); });
    subscriber.Cancel();
    EXPECT_FALSE(next.get());
}

TEST(RestartsTest, PushesEndInTime_ThoughEveryServerEndsWithTheFirst) {
    msgbus::testing::Bus bus;
    msgbus::Options options;
    options.reconnectFor = 20ms;
    msgbus::Publisher publisher("t", bus.MakeOptions(options));
    bus.FailNext(msgbus::testing::Request::Push, ServerGone, std::numeric_limits<int>::max());
    EXPECT_THROW(publisher.Push(1, Clock::now() + 20ms), msgbus::ServerGoneError);
    EXPECT_EQ(-1, publisher.Id());
    EXPECT_THROW(publisher.Push(2, Clock::time_point::min()), msgbus::ServerGoneError);
    EXPECT_THROW(publisher.Push(3), msgbus::ServerGoneError);
    EXPECT_THROW(static_cast<void>(publisher.TryPush(4)), msgbus::ServerGoneError);
}

TEST_F(RestartTest, WaitForServer_FindsOneThatStartsLater) {
    server.Kill();
    EXPECT_THROW(msgbus::Publisher("t"), msgbus::NoServerError);
    msgbus::Options options = Reconnecting();
    options.waitForServer = 100ms;
    EXPECT_THROW(msgbus::Publisher("t", options), msgbus::NoServerError);
    EXPECT_EQ(std::vector{msgbus::Notice::WaitingForServer}, notices);
    options.waitForServer = Far;
    options.onNotice = {};
    auto publisher = std::async(std::launch::async, [&] { return msgbus::Publisher("t", options); });
    auto subscriber = std::async(std::launch::async, [&] { return msgbus::Subscriber("s", {"t"}, options); });
    server.Start();
    auto receiving = subscriber.get();
    publisher.get().Push(1);
    EXPECT_EQ(1, receiving.NextFor(Far)->value);
}

TEST_F(RestartTest, WaitForTopic_WaitsForTheEndOfItsPublisher) {
    auto first = std::make_unique<msgbus::Publisher>("t");
    msgbus::Options options;
    options.waitForTopic = 50ms;
    EXPECT_THROW(msgbus::Publisher("t", options), msgbus::RefusedError);
    options.waitForTopic = Far;
    std::promise<msgbus::Notice> waiting;
    options.onNotice = [&](msgbus::Notice notice, const std::string&) { waiting.set_value(notice); };
    auto second = std::async(std::launch::async, [&] { return msgbus::Publisher("t", options).Id(); });
    EXPECT_EQ(msgbus::Notice::WaitingForTopic, waiting.get_future().get());
    first.reset();
    EXPECT_GE(second.get(), 0);
}

TEST_F(RestartTest, PushAll_ReturnsThePrefixThatWasTaken_AndThrowsTheFailureNext) {
    msgbus::Subscriber subscriber("s", {"t"});
    msgbus::Publisher publisher("t");
    const std::vector<std::int64_t> values{1, 2, 3, 4, 5};
    EXPECT_EQ(5U, publisher.PushAll(values));
    EXPECT_EQ(0U, publisher.PushAll(nullptr, 0));
    for (const auto value : values) {
        EXPECT_EQ(value, subscriber.NextFor(Far)->value);
    }
    server.Kill();
    EXPECT_THROW(publisher.PushAll(values), msgbus::ServerGoneError);
    server.Start();
}

TEST_F(RestartTest, PushAll_ToAFullBus_ReturnsAPrefix_EachOfWhichArrives) {
    msgbus::Subscriber subscriber("s", {"t"});
    msgbus::Publisher publisher("t");
    std::vector<std::int64_t> values(200000);
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<std::int64_t>(i);
    }
    // A deadline that has passed gives each value one try, so a full queue ends it.
    std::size_t taken = 0;
    try {
        taken = publisher.PushAll(values, Clock::now() + 20ms);
    } catch (const msgbus::Error&) { // of the first value, or kept from it
    }
    for (std::size_t i = 0; i < taken; ++i) {
        ASSERT_EQ(values[i], subscriber.NextFor(Far)->value);
    }
}

TEST_F(RestartTest, AChild_LeavesItsParentsConnectionsAlone_AndMayHaveItsOwn) {
    msgbus::Publisher publisher("t");
    msgbus::Subscriber subscriber("s", {"t"});
    static_cast<void>(subscriber.Descriptor());
    static_cast<void>(subscriber.TryNext()); // a wait is under way
    EXPECT_TRUE(HoldsInChild([&] {
        int gone = 0;
        for (const auto& call : std::vector<std::function<void()>>{
                 [&] { publisher.Push(1); }, [&] { static_cast<void>(publisher.TryPush(1)); },
                 [&] { static_cast<void>(publisher.Drain(Clock::now())); }, [&] { publisher.Close(); },
                 [&] { static_cast<void>(subscriber.TryNext()); }, [&] { static_cast<void>(subscriber.Next()); },
                 [&] { static_cast<void>(subscriber.Descriptor()); }}) {
            try {
                call();
            } catch (const msgbus::ServerGoneError&) {
                ++gone;
            }
        }
        subscriber.Cancel();
        { const msgbus::Publisher destroyed(std::move(publisher)); }
        { const msgbus::Subscriber destroyed(std::move(subscriber)); }
        msgbus::Subscriber own("own", {"child"});
        msgbus::Publisher("child").Push(3);
        return gone == 7 && own.NextFor(Far)->value == 3;
    }));
    publisher.Push(2);
    EXPECT_EQ(2, subscriber.NextFor(Far)->value);
}

TEST_F(RestartTest, AChildOfAProcessThatHasClosedAConnection_MayHaveItsOwn) {
    msgbus::Publisher("parent").Push(1); // what it leaves with this thread must not take the child's memory away
    EXPECT_TRUE(HoldsInChild([] {
        msgbus::Subscriber own("own", {"child"});
        msgbus::Publisher("child").Push(3);
        return own.NextFor(Far)->value == 3;
    }));
}

TEST_F(RestartTest, AChild_OfASubscriberThatLooksForAServer_ReceivesNothing_AndMayDestroyIt) {
    std::promise<void> lost;
    auto options = Reconnecting();
    options.onNotice = [&](msgbus::Notice notice, const std::string&) {
        if (notice == msgbus::Notice::ServerLost) {
            lost.set_value();
        }
    };
    std::optional<msgbus::Subscriber> subscriber(std::in_place, "s", std::vector<std::string>{"t"}, options);
    auto next = std::async(std::launch::async, [&] { return subscriber->Next(); });
    server.Kill();
    lost.get_future().get();
    for (int i = 0; i < 10; ++i) { // most of the time, the thread of the parent waits between two attempts
        EXPECT_TRUE(HoldsInChild([&] {
            subscriber.reset();
            return true;
        }));
    }
    server.Start();
    EXPECT_TRUE(HoldsInChild([&] {
        try {
            static_cast<void>(subscriber->TryNext());
        } catch (const msgbus::ServerGoneError&) {
            return true;
        }
        return false;
    }));
    subscriber->Cancel();
    EXPECT_FALSE(next.get());
}

TEST_F(RestartTest, Descriptor_IsQuietAfterARestart_ThoughAChildHasWhatItWatched) {
    msgbus::Subscriber subscriber("s", {"t"}, Reconnecting());
    const int descriptor = subscriber.Descriptor();
    server.Kill();
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        ::pause();
    }
    server.Start();
    while (subscriber.Lost().reconnections == 0) {
        ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    }
    int wakeUps = 0;
    while (IsReadable(descriptor, 300)) { // ends: nothing is readable for long without a value
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
        ASSERT_LT(++wakeUps, 100);
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST_F(RestartTest, Descriptor_OutlivesAServerThatStopsInOrder) {
    for (int round = 0; round < 10; ++round) {
        msgbus::Subscriber subscriber("s", {"t"}, Reconnecting());
        const int descriptor = subscriber.Descriptor();
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
        server.Signal(SIGTERM);
        for (int i = 0; i < 3; ++i) { // it ends meanwhile
            ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
            ASSERT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
        }
        EXPECT_EQ(server.Pid(), ::waitpid(server.Pid(), nullptr, 0));
        server.Start();
        while (subscriber.Lost().reconnections == 0) {
            ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
            ASSERT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
        }
    }
}

TEST_F(RestartTest, Descriptor_IsGivenWithoutAServerToo) {
    msgbus::Subscriber subscriber("s", {"t"}, Reconnecting());
    server.Kill();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    const int descriptor = subscriber.Descriptor();
    server.Start();
    while (subscriber.Lost().reconnections == 0) {
        ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    }
    EXPECT_EQ(descriptor, subscriber.Descriptor());
}

TEST_F(RestartTest, CancelWithoutAServer_LeavesTheDescriptorReadable) {
    for (const auto& options : {msgbus::Options(), Reconnecting()}) {
        msgbus::Subscriber subscriber("s", {"t"}, options);
        msgbus::Subscriber other("other", {"t"}, options);
        const int descriptor = subscriber.Descriptor();
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
        EXPECT_EQ(msgbus::Outcome::TimedOut, other.TryNext().outcome); // this thread uses it last
        server.Kill();
        std::thread([&] { subscriber.Cancel(); }).join();
        EXPECT_NE(-1, ::fcntl(descriptor, F_GETFD));
        EXPECT_TRUE(IsReadable(descriptor, PatienceMs));
        EXPECT_EQ(msgbus::Outcome::Canceled, subscriber.TryNext().outcome);
        EXPECT_EQ(descriptor, subscriber.Descriptor());
        server.Start();
    }
}

TEST_F(RestartTest, AChildOfAProcessWithBusyThreads_CanUseTheBus) {
    if (!BORVEN_ALLOCATOR_IS_FORK_SAFE) {
        GTEST_SKIP() << "a sanitizer's allocator stays locked in a child that was forked while a thread allocated";
    }
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            while (!stop) {
                msgbus::Publisher publisher("busy" + std::to_string(i));
                publisher.Push(1);
                const msgbus::Subscriber subscriber("s", {"t"});
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(HoldsInChild([] {
            msgbus::Publisher("child").Push(1);
            return true;
        }));
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
}

} // namespace
