#include "live/server_process.h"
#include "msgbus/msgbus.h"

#include <sys/epoll.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <thread>

namespace {

using namespace std::chrono_literals;
using test_support::IsReadable;
using test_support::LiveTest;
using test_support::PatienceMs;
using Clock = std::chrono::steady_clock;

constexpr auto Far = 60s;

class ReceivingTest : public LiveTest {
protected:
    static std::thread PushOnThread(const std::string& topic, std::int64_t count) {
        return std::thread([=] {
            msgbus::Options options;
            options.fullQueueTimeout = Far;
            msgbus::Publisher publisher(topic, options);
            for (std::int64_t value = 0; value < count; ++value) {
                publisher.Push(value);
            }
        });
    }
};

TEST_F(ReceivingTest, NextFor_DistinguishesValueTimeOutAndCancel) {
    msgbus::Subscriber subscriber("s", {"t"});
    msgbus::Publisher publisher("t");
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(1ms).outcome);
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(-1ms).outcome);
    publisher.Push(5);
    const auto received = subscriber.NextUntil(Clock::now() + Far);
    ASSERT_EQ(msgbus::Outcome::Value, received.outcome);
    EXPECT_EQ("t", received->topic);
    EXPECT_EQ(5, (*received).value);
    subscriber.Cancel();
    EXPECT_EQ(msgbus::Outcome::Canceled, subscriber.NextFor(Far).outcome);
    EXPECT_EQ(msgbus::Outcome::Canceled, subscriber.TryNext().outcome);
    EXPECT_FALSE(subscriber.Next());
}

TEST_F(ReceivingTest, TenThousandTimeOuts_WhileAHundredThousandValuesFlow_LoseNoneOfThem) {
    constexpr std::int64_t values = 100000;
    constexpr int timeOutsWanted = 10000;
    msgbus::Subscriber subscriber("s", {"t"});
    std::atomic<int> timeOuts{0};
    std::thread pushing([&] {
        msgbus::Publisher publisher("t");
        for (std::int64_t value = 0; value < values; ++value) {
            // Ten values for one time-out: the stream stands still until the subscriber has timed out again.
            while (timeOuts.load() < value / (values / timeOutsWanted)) {
                std::this_thread::yield();
            }
            publisher.Push(value);
        }
    });
    std::int64_t expected = 0;
    while (expected < values || timeOuts < timeOutsWanted) {
        const auto received = subscriber.NextFor(1ms);
        if (received) {
            ASSERT_EQ(expected, received->value);
            ++expected;
        } else {
            ASSERT_EQ(msgbus::Outcome::TimedOut, received.outcome);
            ++timeOuts;
        }
    }
    pushing.join();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(1ms).outcome);
}

TEST_F(ReceivingTest, EveryKindOfReceive_Mixed_TakesEachValueOnceInOrder) {
    constexpr std::int64_t values = 50000;
    msgbus::Subscriber subscriber("s", {"t"});
    auto pushing = PushOnThread("t", values);
    const int descriptor = subscriber.Descriptor();
    for (std::int64_t expected = 0; expected < values;) {
        msgbus::Received received;
        switch (expected % 4) {
        case 0:
            received = subscriber.TryNext();
            break;
        case 1:
            received = subscriber.NextFor(1ms);
            break;
        case 2:
            received = {msgbus::Outcome::Value, *subscriber.Next()};
            break;
        default:
            ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
            received = subscriber.TryNext();
            break;
        }
        if (received) {
            ASSERT_EQ(expected, received->value);
            ++expected;
        }
    }
    pushing.join();
    while (subscriber.TryNext()) {
        FAIL() << "a value came twice";
    }
}

TEST_F(ReceivingTest, Range_EndsAfterCancel) {
    msgbus::Subscriber subscriber("s", {"t"});
    auto pushing = PushOnThread("t", 10);
    std::int64_t expected = 0;
    for (const auto& [topic, value] : subscriber) {
        EXPECT_EQ("t", topic);
        EXPECT_EQ(expected++, value);
        if (value == 9) {
            subscriber.Cancel();
        }
    }
    pushing.join();
    EXPECT_EQ(10, expected);
}

TEST_F(ReceivingTest, Descriptor_IsReadableUntilTryNextFoundNothing) {
    msgbus::Subscriber subscriber("s", {"t"});
    msgbus::Publisher publisher("t");
    const int descriptor = subscriber.Descriptor();
    EXPECT_EQ(descriptor, subscriber.Descriptor());
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    EXPECT_FALSE(IsReadable(descriptor, 20));
    for (std::int64_t value = 0; value < 500; ++value) {
        publisher.Push(value);
    }
    for (std::int64_t value = 0; value < 500;) {
        ASSERT_TRUE(IsReadable(descriptor, PatienceMs));
        if (const auto received = subscriber.TryNext()) {
            ASSERT_EQ(value++, received->value);
        }
    }
    while (subscriber.TryNext().outcome != msgbus::Outcome::TimedOut) {
        FAIL();
    }
    EXPECT_FALSE(IsReadable(descriptor, 20));
}

TEST_F(ReceivingTest, Descriptor_IsReadable_WhenTheServerIsGone_AndWhenCanceled) {
    msgbus::Subscriber lost("lost", {"t"});
    msgbus::Subscriber canceled("canceled", {"t"});
    for (auto* subscriber : {&lost, &canceled}) {
        static_cast<void>(subscriber->Descriptor());
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber->TryNext().outcome);
        EXPECT_FALSE(IsReadable(subscriber->Descriptor()));
    }
    std::thread([&] { canceled.Cancel(); }).join();
    EXPECT_TRUE(IsReadable(canceled.Descriptor(), PatienceMs));
    EXPECT_EQ(msgbus::Outcome::Canceled, canceled.TryNext().outcome);
    server.Kill();
    EXPECT_TRUE(IsReadable(lost.Descriptor(), PatienceMs));
    EXPECT_THROW(static_cast<void>(lost.TryNext()), msgbus::ServerGoneError);
    server.Start();
}

TEST_F(ReceivingTest, AHundredSubscribers_InOneThreadWithOneEpoll_GetEveryValue) {
    constexpr int subscriberCount = 100;
    constexpr std::int64_t values = 2000;
    std::vector<msgbus::Subscriber> subscribers;
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < subscriberCount; ++i) {
        subscribers.emplace_back("s", std::vector<std::string>{"t"});
        epoll_event event{EPOLLIN, {.u64 = static_cast<std::uint64_t>(i)}};
        ASSERT_EQ(0, ::epoll_ctl(epoll, EPOLL_CTL_ADD, subscribers.back().Descriptor(), &event));
    }
    std::thread([] {}).join(); // a sanitizer has a thread of its own from the first one on
    const std::size_t threads = test_support::Threads();
    auto pushing = PushOnThread("t", values);
    std::vector<std::int64_t> next(subscriberCount, 0);
    int finished = 0;
    bool hasCounted = false;
    while (finished < subscriberCount) {
        std::array<epoll_event, 32> events{};
        const int count = ::epoll_wait(epoll, events.data(), events.size(), PatienceMs);
        ASSERT_GT(count, 0);
        for (int i = 0; i < count; ++i) {
            const auto which = events[static_cast<std::size_t>(i)].data.u64;
            while (const auto received = subscribers[which].TryNext()) {
                ASSERT_EQ(next[which]++, received->value);
                finished += next[which] == values ? 1 : 0;
            }
        }
        if (!std::exchange(hasCounted, true)) {
            EXPECT_LE(test_support::Threads(), threads + 1); // the publisher of this test
        }
    }
    pushing.join();
    ::close(epoll);
}

TEST_F(ReceivingTest, IdleDescriptors_TakeNoCpu) {
    std::vector<msgbus::Subscriber> subscribers;
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < 20; ++i) {
        subscribers.emplace_back("s", std::vector<std::string>{"t"});
        epoll_event event{EPOLLIN, {.u64 = static_cast<std::uint64_t>(i)}};
        ASSERT_EQ(0, ::epoll_ctl(epoll, EPOLL_CTL_ADD, subscribers.back().Descriptor(), &event));
    }
    int wakeUps = 0;
    epoll_event event{};
    while (::epoll_wait(epoll, &event, 1, 500) == 1) { // ends: nothing is readable for long without a value
        EXPECT_EQ(msgbus::Outcome::TimedOut, subscribers[event.data.u64].TryNext().outcome);
        ASSERT_LT(++wakeUps, 200);
    }
    ::close(epoll);
}

TEST_F(ReceivingTest, CancelAndDestruction_WithAWaitUnderWay_FromAnotherThread) {
    for (int i = 0; i < 50; ++i) {
        auto subscriber = std::make_unique<msgbus::Subscriber>("s", std::vector<std::string>{"t"});
        EXPECT_EQ(msgbus::Outcome::TimedOut,
                  i % 2 == 0 ? subscriber->NextFor(1ms).outcome : subscriber->TryNext().outcome);
        if (i % 3 == 0) {
            std::thread([&] { subscriber->Cancel(); }).join();
        }
        std::thread([&] { subscriber.reset(); }).join();
    }
    msgbus::Subscriber blocked("s", {"t"});
    auto ended = std::async(std::launch::async, [&] { return blocked.NextFor(Far).outcome; });
    blocked.Cancel();
    EXPECT_EQ(msgbus::Outcome::Canceled, ended.get());
}

TEST_F(ReceivingTest, ThreeHundredSubscribersAndAPublisher_FitIntoTheUsualLimit) {
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    rlimit usual = before;
    usual.rlim_cur = 1024;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &usual));
    const std::size_t descriptors = test_support::OpenDescriptors();
    {
        std::vector<msgbus::Subscriber> subscribers;
        for (int i = 0; i < 300; ++i) {
            subscribers.emplace_back("s", std::vector<std::string>{"t"});
        }
        EXPECT_LE(test_support::OpenDescriptors(), descriptors + 3 * 300 + 6);
        for (auto& subscriber : subscribers) {
            static_cast<void>(subscriber.Descriptor());
        }
        EXPECT_LE(test_support::OpenDescriptors(), descriptors + 3 * 300 + 6);
        msgbus::Publisher publisher("t");
        publisher.Push(1);
        for (auto& subscriber : subscribers) {
            EXPECT_EQ(1, subscriber.NextFor(Far)->value);
        }
    }
    EXPECT_EQ(descriptors, test_support::OpenDescriptors());
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST(ServerLimitsTest, BeyondTheConnectionsOfAProcess_TheErrorSaysSo) {
    const test_support::ServerProcess server({"--limit", "connections-per-process=4"});
    std::vector<msgbus::Subscriber> subscribers;
    try {
        for (int i = 0; i < 5; ++i) {
            subscribers.emplace_back("s", std::vector<std::string>{"t"});
        }
        FAIL() << "nothing was thrown";
    } catch (const msgbus::PlatformError& error) {
        EXPECT_STREQ("cannot connect to the message bus: its server takes no more connections of this process, its "
                     "user or of all ('msgbusd --limits' lists how many)",
                     error.what());
    }
}

TEST_F(ReceivingTest, WithoutDescriptors_TheErrorNamesTheLimit) {
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    rlimit small = before;
    small.rlim_cur = test_support::OpenDescriptors() + 8;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &small));
    std::string sentence;
    std::vector<msgbus::Subscriber> subscribers;
    try {
        for (int i = 0; i < 20; ++i) {
            subscribers.emplace_back("s", std::vector<std::string>{"t"});
        }
    } catch (const msgbus::PlatformError& error) {
        sentence = error.what();
    }
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_NE(std::string::npos, sentence.find("ulimit -n")) << sentence;
    EXPECT_NE(std::string::npos, sentence.find(std::to_string(small.rlim_cur))) << sentence;
}

} // namespace
