// Defends the bus against its own concurrency: registration, push, wait, unregistration, replacement and removal of
// workers, and shutdown, all at once, with a count of every value. Built without fault points, whose locks would hide
// races. Contract: the bus may lose a wake-up, so each test wakes it again, and the values left behind have to come
// then.
#include "stop_events_thread.h"
#include "support/bus_test.h"
#include "support/served_bus.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <random>

namespace {

using cor::ResultCode;
using message_bus::ConnectionType;
using message_bus::MessageBus;
using test_support::Client;
using test_support::Nudge;
using test_support::ServedBus;

/// A connector whose exception ends Run and leaves the events thread running.
class PassingConnector final : public message_bus::IConnector {
public:
    struct Leave {};
    ResultCode RunServer() override { return ResultCode::Success; }
    ResultCode SwitchActiveIpcServer() override { return ResultCode::Success; }
    bool ShouldBeStopped() override { throw Leave{}; }
};

class ConcurrencyTest : public test_support::BusTest {
protected:
    ConcurrencyTest() {
        log.SetThreshold(5);
        platform.SetQuiet(true);
    }

    static void Start(MessageBus& bus) {
        EXPECT_THROW(static_cast<void>(bus.Run(std::make_shared<PassingConnector>())), PassingConnector::Leave);
    }

    /// Waits for `future`, and nudges the bus meanwhile.
    template <typename Result>
    static Result GetNudging(MessageBus& bus, std::future<Result>& future) {
        while (future.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) {
            Nudge(bus);
        }
        return future.get();
    }

    test_support::ScriptedPlatform platform;
};

/// Topic and value as received.
using Value = std::pair<std::string, long>;

/// Fails unless `sequence` has each publisher's values 0 to `perPublisher` - 1 once and in order.
void ExpectComplete(const std::vector<Value>& sequence, std::size_t publishers, long perPublisher) {
    std::map<std::string, long> next;
    for (const auto& [topic, value] : sequence) {
        ASSERT_EQ(value, next[topic]++) << topic;
    }
    EXPECT_EQ(next.size(), publishers);
    for (const auto& [topic, count] : next) {
        EXPECT_EQ(count, perPublisher) << topic;
    }
}

/// One way to take a subscriber's next value. Returns: 0; 1 when the subscriber is gone.
using Take = std::function<ResultCode(MessageBus& bus, long subscriber, std::string& topic, long& value)>;

ResultCode TakeBlocking(MessageBus& bus, long subscriber, std::string& topic, long& value) {
    return bus.Wait(subscriber, topic, value);
}

/// Tries to take, again and again.
ResultCode TakeWithoutBlocking(MessageBus& bus, long subscriber, std::string& topic, long& value) {
    const auto taking = bus.GetSubscriberPtrById(subscriber);
    if (!taking) {
        return ResultCode::NotRegistered;
    }
    std::shared_ptr<message_bus::Message> next;
    for (;;) {
        if (const auto result = MessageBus::TryTake(*taking, next)) {
            if (*result == ResultCode::Success) {
                topic = next->topic;
                value = next->value;
            }
            return *result;
        }
        std::this_thread::yield();
    }
}

/// Pushes values to one subscriber, which one thread for each of `ways` takes, and fails unless they share them.
void ExpectSharedValues(MessageBus& bus, const std::vector<Take>& ways) {
    constexpr long count = 3000;
    long subscriber = 0;
    long publisher = 0;
    ASSERT_EQ(bus.RegisterSubscriber("reader", {"heat"}, subscriber), ResultCode::Success);
    ASSERT_EQ(bus.RegisterPublisher("heat", publisher), ResultCode::Success);
    std::atomic<long> taken{0};
    std::vector<std::future<std::vector<long>>> readers;
    for (const auto& take : ways) {
        readers.push_back(std::async(std::launch::async, [&, take] {
            std::vector<long> values;
            std::string topic;
            long value = 0;
            while (take(bus, subscriber, topic, value) == ResultCode::Success) {
                values.push_back(value);
                ++taken;
            }
            return values;
        }));
    }
    for (long value = 0; value < count; ++value) {
        while (bus.Push(publisher, value) != ResultCode::Success) { // full: a rejected push wakes no thread
            Nudge(bus);
            std::this_thread::yield();
        }
    }
    while (taken < count) {
        Nudge(bus);
        std::this_thread::yield();
    }
    EXPECT_EQ(bus.UnregisterSubscriber(subscriber), ResultCode::Success);
    std::vector<long> all;
    for (auto& reader : readers) {
        const auto values = reader.get();
        EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
        all.insert(all.end(), values.begin(), values.end());
    }
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), static_cast<std::size_t>(count));
    for (long value = 0; value < count; ++value) {
        EXPECT_EQ(all[static_cast<std::size_t>(value)], value);
    }
}

TEST_F(ConcurrencyTest, EveryAcceptedPush_ReachesEachSubscriberOnceAndAllSeeTheSameOrder) {
    constexpr std::size_t publisherCount = 4;
    constexpr long perPublisher = 2000;
    constexpr std::size_t stableCount = 3;
    MessageBus bus;
    Start(bus);
    std::set<std::string> topics;
    std::vector<long> publishers(publisherCount);
    for (std::size_t i = 0; i < publisherCount; ++i) {
        const std::string topic = "topic " + std::to_string(i);
        topics.insert(topic);
        ASSERT_EQ(bus.RegisterPublisher(topic, publishers[i]), ResultCode::Success);
    }
    const auto read = [&bus](long subscriber, std::size_t most) {
        std::vector<Value> sequence;
        Value value;
        while (sequence.size() < most && bus.Wait(subscriber, value.first, value.second) == ResultCode::Success) {
            sequence.push_back(value);
        }
        return sequence;
    };
    std::vector<std::future<std::vector<Value>>> stable;
    for (std::size_t i = 0; i < stableCount; ++i) {
        long id = 0;
        ASSERT_EQ(bus.RegisterSubscriber("stable", topics, id), ResultCode::Success);
        stable.push_back(std::async(std::launch::async, read, id, publisherCount * perPublisher));
    }
    std::vector<std::future<void>> pushing;
    for (const long publisher : publishers) {
        pushing.push_back(std::async(std::launch::async, [&bus, publisher] {
            for (long value = 0; value < perPublisher; ++value) {
                while (bus.Push(publisher, value) != ResultCode::Success) { // full: a rejected push wakes no thread
                    Nudge(bus);
                    std::this_thread::yield();
                }
            }
        }));
    }
    // Subscribers that come and go meanwhile.
    std::atomic<bool> isOver{false};
    auto passing = std::async(std::launch::async, [&] {
        std::vector<std::vector<Value>> runs;
        while (!isOver) {
            long id = 0;
            EXPECT_EQ(bus.RegisterSubscriber("passing", topics, id), ResultCode::Success);
            auto reading = std::async(std::launch::async, read, id, 200);
            if (runs.size() % 2 == 0) {
                Nudge(bus);
            }
            EXPECT_EQ(bus.UnregisterSubscriber(id), ResultCode::Success);
            runs.push_back(reading.get());
        }
        return runs;
    });
    // Publishers that come and go meanwhile.
    auto registering = std::async(std::launch::async, [&] {
        long last = 0;
        while (!isOver) {
            long id = 0;
            EXPECT_EQ(bus.RegisterPublisher("other", id), ResultCode::Success);
            EXPECT_GT(id, last);
            last = id;
            EXPECT_EQ(bus.UnregisterPublisher(id), ResultCode::Success);
        }
    });
    for (auto& push : pushing) {
        push.get();
    }
    std::vector<std::vector<Value>> sequences;
    for (auto& reader : stable) {
        sequences.push_back(GetNudging(bus, reader));
    }
    isOver = true;
    registering.get();
    const auto runs = passing.get();
    msgbus_server::StopEventsThread(bus);

    ExpectComplete(sequences.front(), publisherCount, perPublisher);
    for (const auto& sequence : sequences) {
        EXPECT_EQ(sequence, sequences.front());
    }
    for (const auto& run : runs) { // a subscriber that comes and goes sees a piece of the one order, without a gap
        EXPECT_NE(std::search(sequences.front().begin(), sequences.front().end(), run.begin(), run.end()),
                  sequences.front().end());
    }
}

TEST_F(ConcurrencyTest, ConcurrentWaitsOfOneSubscriber_ShareItsValuesWithoutLossOrDoubling) {
    MessageBus bus;
    Start(bus);
    ExpectSharedValues(bus, {TakeBlocking, TakeBlocking, TakeBlocking});
    msgbus_server::StopEventsThread(bus);
}

TEST_F(ConcurrencyTest, ConcurrentWaitsAndTakesOfOneSubscriber_ShareItsValuesWithoutLossOrDoubling) {
    MessageBus bus;
    Start(bus);
    ExpectSharedValues(bus, {TakeBlocking, TakeBlocking, TakeWithoutBlocking, TakeWithoutBlocking});
    msgbus_server::StopEventsThread(bus);
}

TEST_F(ConcurrencyTest, UnregistrationRacingAWait_AlwaysEndsIt) {
    MessageBus bus;
    Start(bus);
    for (int round = 0; round < 500; ++round) {
        long subscriber = 0;
        ASSERT_EQ(bus.RegisterSubscriber("reader", {"heat"}, subscriber), ResultCode::Success);
        auto waiting = std::async(std::launch::async, [&] {
            std::string topic;
            long value = 0;
            return bus.Wait(subscriber, topic, value);
        });
        EXPECT_EQ(bus.UnregisterSubscriber(subscriber), ResultCode::Success);
        EXPECT_EQ(waiting.get(), ResultCode::NotRegistered);
    }
    msgbus_server::StopEventsThread(bus);
}

TEST_F(ConcurrencyTest, StoppedEventsThread_ThatIsAskedTwiceBehindAPush_AlwaysEnds) {
    for (int round = 0; round < 300; ++round) {
        MessageBus bus;
        bus.Start();
        long publisher = 0;
        ASSERT_EQ(bus.RegisterPublisher("heat", publisher), ResultCode::Success);
        static_cast<void>(bus.Push(publisher, round));
        msgbus_server::StopEventsThread(bus);
    } // the destructor joins
}

TEST_F(ConcurrencyTest, Handshakes_OfManyThreads_KeepTheirTopicsApart) {
    constexpr int threads = 4;
    constexpr int rounds = 200;
    ServedBus served(ConnectionType::Static);
    ASSERT_TRUE(served.isServing);
    std::vector<std::future<void>> registering;
    for (int thread = 0; thread < threads; ++thread) {
        registering.push_back(std::async(std::launch::async, [&, thread] {
            auto client = Client::ToStaticChannel();
            for (int round = 0; round < rounds; ++round) {
                const std::string own = std::to_string(thread) + "/" + std::to_string(round);
                const long id = client.Subscribe(own, {own, "common"});
                const auto record = served.bus->GetSubscriberPtrById(id);
                ASSERT_TRUE(record);
                EXPECT_EQ(record->name, own);
                EXPECT_EQ(record->topics, (std::unordered_set<std::string>{own, "common"}));
            }
        }));
    }
    for (auto& each : registering) {
        each.get();
    }
}

class ServedConcurrencyTest : public ConcurrencyTest, public test_support::EitherMode {};

INSTANTIATE_TEST_SUITE_P(EitherWay, ServedConcurrencyTest,
                         testing::Values(ConnectionType::Static, ConnectionType::Dynamic), test_support::ModeName);

TEST_P(ServedConcurrencyTest, ClientsThatPushAndWait_LoseNothingWhileWorkersReplaceEachOther) {
    constexpr std::size_t publisherCount = 2;
    constexpr long perPublisher = 150;
    constexpr std::size_t subscriberCount = 3;
    ServedBus served(GetParam());
    ASSERT_TRUE(served.isServing);
    auto ctl = Ctl();
    std::set<std::string> topics;
    std::vector<long> publishers;
    for (std::size_t i = 0; i < publisherCount; ++i) {
        topics.insert("topic " + std::to_string(i));
        publishers.push_back(ctl.RegisterPublisher("topic " + std::to_string(i)));
    }
    std::vector<std::future<std::vector<Value>>> readers;
    for (std::size_t i = 0; i < subscriberCount; ++i) {
        const long subscriber = ctl.Subscribe("reader", topics);
        readers.push_back(std::async(std::launch::async, [&, subscriber] {
            auto subs = Subs();
            std::vector<Value> sequence;
            while (sequence.size() < publisherCount * perPublisher) {
                const auto [status, topic, value] = subs.Wait(subscriber);
                EXPECT_EQ(status, 0);
                if (status != 0) {
                    break;
                }
                sequence.emplace_back(topic, value);
            }
            return sequence;
        }));
    }
    std::vector<std::future<void>> pushing;
    for (const long publisher : publishers) {
        pushing.push_back(std::async(std::launch::async, [&, publisher] {
            auto provider = Provider();
            for (long value = 0; value < perPublisher; ++value) {
                while (provider.Push(publisher, value) != 0) {
                    Nudge(*served.bus);
                    std::this_thread::yield();
                }
            }
        }));
    }
    for (auto& push : pushing) {
        push.get();
    }
    std::vector<std::vector<Value>> sequences;
    for (auto& reader : readers) {
        sequences.push_back(GetNudging(*served.bus, reader));
    }
    served.ShutDown();
    ExpectComplete(sequences.front(), publisherCount, perPublisher);
    for (const auto& sequence : sequences) {
        EXPECT_EQ(sequence, sequences.front());
    }
}

TEST_P(ServedConcurrencyTest, AServer_MayGoDownAtAnyMomentOfItsClients) {
    for (int round = 0; round < 8; ++round) {
        ServedBus served(GetParam());
        ASSERT_TRUE(served.isServing);
        std::vector<std::future<void>> clients;
        std::vector<long> subscribers;
        auto ctl = Ctl();
        for (int i = 0; i < 3; ++i) {
            const long subscriber = ctl.Subscribe("reader", {"heat"});
            auto subs = Subs();
            auto provider = Provider();
            clients.push_back(std::async(std::launch::async, [subscriber, subs = std::move(subs)]() mutable {
                while (std::get<0>(subs.Wait(subscriber)) == 0) {
                }
            }));
            clients.push_back(std::async(std::launch::async, [provider = std::move(provider)]() mutable {
                while (provider.Push(1, 1) == 0) {
                }
            }));
        }
        served.ShutDown();
        for (auto& client : clients) {
            client.get(); // none of them may hang
        }
    }
}

TEST_F(ConcurrencyTest, Workers_ThatComeAndGoAreAllRemovedBeforeTheServerIsGone) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> ran{0};
        {
            bos_ipc::IpcServer server(ConnectionType::Static);
            bos_ipc::IpcServer other(ConnectionType::Static); // shares the lock of the pool
            for (int i = 0; i < 4; ++i) {
                server.CreateThread([&] {
                    EXPECT_TRUE(server.GetCurrentIpcThread());
                    EXPECT_FALSE(other.GetCurrentIpcThread());
                    other.CreateThread([&] { ++ran; });
                    EXPECT_EQ(server.ShutdownIpcServer(), 0);
                    ++ran;
                });
            }
            server.WaitAllThreads();
        }
        EXPECT_EQ(ran, 8);
    }
}

} // namespace
