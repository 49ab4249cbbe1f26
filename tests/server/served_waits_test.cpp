// Defends parked waits under load, with clients on threads of their own: each value is delivered once and in order
// while connections share a subscriber, close, and subscribers leave.
#include "support/bus_test.h"
#include "support/served_bus.h"

#include <atomic>
#include <future>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using message_bus::ConnectionType;
using test_support::Client;
using test_support::ServedBus;

constexpr std::int32_t NotRegistered = -49152;

class ServedWaitsTest : public test_support::BusTest, public test_support::EitherMode {
protected:
    ServedWaitsTest() {
        log.SetThreshold(2); // values are offered while debug is disabled
        platform.SetQuiet(true);
    }

    /// Waits until the subscriber is gone. Returns: what it got, in order.
    static std::vector<std::pair<std::string, long>> ReadAll(Client& client, long subscriber,
                                                             std::atomic<long>* count = nullptr) {
        std::vector<std::pair<std::string, long>> values;
        for (;;) {
            const auto [status, topic, value] = client.Wait(subscriber);
            if (status != 0) {
                EXPECT_EQ(status, NotRegistered);
                return values;
            }
            values.emplace_back(topic, value);
            if (count != nullptr) {
                ++*count;
            }
        }
    }

    /// Pushes `value` until there is room for it.
    static void PushSurely(Client& provider, long publisher, long value) {
        while (provider.Push(publisher, value) != 0) {
            std::this_thread::yield();
        }
    }

    static void AwaitCount(const std::atomic<long>& count, long wanted) {
        while (count < wanted) { // the watchdog limits it
            std::this_thread::yield();
        }
    }

    test_support::ScriptedPlatform platform;
    ServedBus server{{.connectionType = GetParam()}};
};

INSTANTIATE_TEST_SUITE_P(EitherWay, ServedWaitsTest, testing::Values(ConnectionType::Static, ConnectionType::Dynamic),
                         test_support::ModeName);

TEST_P(ServedWaitsTest, ValuesOfTwoTopics_ArriveInTheOrderOfTheirPushes) {
    constexpr long count = 3000;
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long heat = ctl.RegisterPublisher("heat");
    const long light = ctl.RegisterPublisher("light");
    const long reader = ctl.Subscribe("reader", {"heat", "light"});
    std::atomic<long> taken{0};
    auto reading = std::async(std::launch::async, [&] { return ReadAll(subs, reader, &taken); });
    std::vector<std::pair<std::string, long>> pushed;
    for (long value = 0; value < count; ++value) {
        const bool isHeat = value % 7 < 4; // runs of one topic, so that there are offers
        PushSurely(provider, isHeat ? heat : light, value);
        pushed.emplace_back(isHeat ? "heat" : "light", value);
    }
    AwaitCount(taken, count);
    EXPECT_EQ(ctl.Unregister(reader), 0);
    EXPECT_EQ(reading.get(), pushed);
}

TEST_P(ServedWaitsTest, ConnectionsThatShareASubscriber_ShareItsValuesWithoutLossOrDoubling) {
    constexpr long count = 3000;
    constexpr int readers = 4;
    auto ctl = Ctl();
    auto provider = Provider();
    const long publisher = ctl.RegisterPublisher("heat");
    const long subscriber = ctl.Subscribe("reader", {"heat"});
    std::atomic<long> taken{0};
    std::vector<std::future<std::vector<std::pair<std::string, long>>>> reading;
    for (int i = 0; i < readers; ++i) {
        reading.push_back(std::async(std::launch::async, [&] {
            auto subs = Subs();
            return ReadAll(subs, subscriber, &taken);
        }));
    }
    for (long value = 0; value < count; ++value) {
        PushSurely(provider, publisher, value);
    }
    AwaitCount(taken, count);
    EXPECT_EQ(ctl.Unregister(subscriber), 0);
    std::vector<int> times(count);
    for (auto& each : reading) {
        long last = -1;
        for (const auto& [topic, value] : each.get()) {
            EXPECT_GT(value, last) << "out of order";
            last = value;
            ++times.at(static_cast<std::size_t>(value));
        }
    }
    EXPECT_EQ(times, std::vector<int>(count, 1));
}

TEST_P(ServedWaitsTest, UnregistrationRacingWaits_AlwaysEndsThem) {
    auto ctl = Ctl();
    auto provider = Provider();
    const long publisher = ctl.RegisterPublisher("heat");
    auto first = Subs();
    auto second = Subs();
    // A value may still be on its way to a subscriber that is gone, and then reaches the next one: once all the same.
    long pushed = 0;
    std::set<long> seen;
    for (long round = 0; round < 150; ++round) {
        const long subscriber = ctl.Subscribe("reader", {"heat"});
        auto left = std::async(std::launch::async, [&] { return ReadAll(first, subscriber); });
        auto right = std::async(std::launch::async, [&] { return ReadAll(second, subscriber); });
        for (long count = 0; count < round % 5; ++count) {
            PushSurely(provider, publisher, pushed++);
        }
        EXPECT_EQ(ctl.Unregister(subscriber), 0);
        for (auto* const reader : {&left, &right}) {
            for (const auto& [topic, value] : reader->get()) {
                EXPECT_LT(value, pushed);
                EXPECT_TRUE(seen.insert(value).second) << value << " came twice";
            }
        }
    }
}

TEST_P(ServedWaitsTest, ConnectionsThatCloseAtAnyMoment_HarmNoOther) {
    constexpr long count = 2000;
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long publisher = ctl.RegisterPublisher("heat");
    const long witness = ctl.Subscribe("witness", {"heat"});
    const long shared = ctl.Subscribe("shared", {"heat"});
    std::atomic<long> taken{0};
    auto reading = std::async(std::launch::async, [&] { return ReadAll(subs, witness, &taken); });
    std::atomic<bool> isOver{false};
    std::vector<std::future<void>> closing;
    for (unsigned seed = 1; seed <= 2; ++seed) {
        closing.push_back(std::async(std::launch::async, [&, seed] {
            std::minstd_rand random(seed);
            while (!isOver) {
                auto victim = Subs();
                auto waiting = std::async(std::launch::async, [&] {
                    while (std::get<0>(victim.Wait(shared)) == 0) {
                    }
                });
                for (auto turns = random() % 100; turns != 0; --turns) {
                    std::this_thread::yield();
                }
                victim.Close();
            }
        }));
    }
    for (long value = 0; value < count; ++value) {
        PushSurely(provider, publisher, value);
    }
    AwaitCount(taken, count);
    isOver = true;
    for (auto& each : closing) {
        each.get();
    }
    EXPECT_EQ(ctl.Unregister(witness), 0);
    const auto values = reading.get();
    ASSERT_EQ(values.size(), static_cast<std::size_t>(count));
    for (long value = 0; value < count; ++value) {
        ASSERT_EQ(values[static_cast<std::size_t>(value)].second, value);
    }
}

} // namespace
