// The publishing and the subscribing process, the same for every bus: this file and open_loop.cpp decide what is sent,
// timed and checked; a driver only moves values. Both print one JSON object per line. The publisher starts when it
// reads a line from standard input.

#include "driver.h"
#include "open_loop.h"
#include "options.h"
#include "samples.h"
#include "value.h"

#include <algorithm>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>
#include <thread>
#include <vector>

namespace bench {
namespace {

void PrintLine(const std::string& json) {
    std::cout << json << std::endl;
}

/// Runs `body(index)` on `count` threads. If one fails, the process exits, because the others may wait forever.
template <typename Body>
void OnThreads(int count, Body body) {
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&body, i] {
            try {
                body(i);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s\n", error.what());
                std::_Exit(1);
            }
        });
    }
}

/// The timed part ends after `values` values or `seconds` seconds, whichever comes first; 0 is no limit.
struct PublishPlan {
    std::int64_t values;
    double seconds;
    std::int64_t warmUp; // untimed values before the timed part
    long intervalUs;     // 0: publish again as soon as the last value is acknowledged
    bool stamped;        // values are times of the monotonic clock instead of sequence numbers
};

struct PublishResult {
    Samples latencies{0};
    std::int64_t values = 0;
    std::int64_t refused = 0;
    std::int64_t startNs = 0;
    std::int64_t endNs = 0;
};

PublishResult PublishAll(IPublisher& publisher, int topic, const PublishPlan& plan, std::barrier<>& start) {
    PublishResult result;
    std::int64_t sequence = 0;
    const auto nextValue = [&] { return plan.stamped ? NowNs() : SequenceValue(topic, sequence); };
    for (; sequence < plan.warmUp; ++sequence) {
        PublishSurely(publisher, nextValue(), result.refused);
    }
    // More than a machine of this class publishes in one pass, so that the vector does not grow in the timed loop.
    result.latencies = Samples(static_cast<std::size_t>(plan.values > 0 ? plan.values : 4'000'000));
    const auto mostValues = plan.values > 0 ? plan.values : std::numeric_limits<std::int64_t>::max();
    const auto mostNs =
        plan.seconds > 0 ? static_cast<std::int64_t>(plan.seconds * 1e9) : std::numeric_limits<std::int64_t>::max();
    start.arrive_and_wait();

    result.startNs = NowNs();
    auto before = result.startNs;
    auto due = std::chrono::steady_clock::now();
    while (result.values < mostValues && before - result.startNs < mostNs) {
        if (plan.intervalUs > 0) {
            due += std::chrono::microseconds(plan.intervalUs);
            std::this_thread::sleep_until(due);
            before = NowNs();
        }
        PublishSurely(publisher, nextValue(), result.refused);
        const auto after = NowNs();
        result.latencies.Add(after - before);
        before = after;
        ++sequence;
        ++result.values;
    }
    result.endNs = before;
    PublishSurely(publisher, EndValue(topic, sequence), result.refused);
    return result;
}

int PublishVerb(IDriver& driver, const Options& options) {
    const auto publishers = static_cast<int>(options.Number("publishers", 1));
    const PublishPlan plan{options.Number("values", 0), options.Real("seconds", 0), options.Number("warm-up", 0),
                           options.Number("interval-us", 0), options.Number("stamped", 0) != 0};
    std::vector<std::unique_ptr<IPublisher>> connections;
    for (int i = 0; i < publishers; ++i) {
        connections.push_back(driver.MakePublisher(i));
    }
    PrintLine(R"({"event":"ready"})");
    std::string go;
    if (!std::getline(std::cin, go)) {
        return 0;
    }
    std::barrier start(publishers);
    std::vector<PublishResult> results(connections.size());
    OnThreads(publishers, [&](int i) {
        const auto index = static_cast<std::size_t>(i);
        results[index] = PublishAll(*connections[index], i, plan, start);
    });
    PublishResult total = results.front();
    for (std::size_t i = 1; i < results.size(); ++i) {
        total.latencies.Merge(results[i].latencies);
        total.values += results[i].values;
        total.refused += results[i].refused;
        total.startNs = std::min(total.startNs, results[i].startNs);
        total.endNs = std::max(total.endNs, results[i].endNs);
    }
    PrintLine(R"({"event":"published","values":)" + std::to_string(total.values) +
              ",\"refused\":" + std::to_string(total.refused) + ",\"startNs\":" + std::to_string(total.startNs) +
              ",\"endNs\":" + std::to_string(total.endNs) + "," + total.latencies.Json() + "}");
    // Keep the connections until the values have been received: the harness closes standard input then.
    while (std::getline(std::cin, go)) {
    }
    return 0;
}

struct SubscribeResult {
    Samples latencies{0};
    std::int64_t received = 0;
    std::int64_t lost = 0;
    std::int64_t repeated = 0; // or older than a value received before
    std::int64_t lastNs = 0;
};

SubscribeResult ReceiveAll(ISubscriber& subscriber, int topics, bool stamped) {
    SubscribeResult result;
    std::vector<std::int64_t> expected(static_cast<std::size_t>(topics), 0);
    std::int64_t lastStamp = 0;
    for (int open = topics; open > 0;) {
        const auto value = subscriber.Next();
        if (IsEnd(value)) {
            auto& next = expected.at(static_cast<std::size_t>(TopicOf(value)));
            result.lost += std::max<std::int64_t>(SequenceOf(value) - next, 0);
            --open;
            continue;
        }
        result.lastNs = NowNs();
        ++result.received;
        if (stamped) {
            result.latencies.Add(result.lastNs - value);
            result.repeated += value <= lastStamp ? 1 : 0;
            lastStamp = value;
            ++expected.front();
            continue;
        }
        auto& next = expected.at(static_cast<std::size_t>(TopicOf(value)));
        const auto sequence = SequenceOf(value);
        if (sequence < next) {
            ++result.repeated;
            continue;
        }
        result.lost += sequence - next;
        next = sequence + 1;
    }
    return result;
}

int SubscribeVerb(IDriver& driver, const Options& options) {
    const auto subscribers = static_cast<int>(options.Number("subscribers", 1));
    const auto topics = static_cast<int>(options.Number("topics", 1));
    const bool stamped = options.Number("stamped", 0) != 0;

    const auto beforeNs = NowNs();
    std::vector<std::unique_ptr<ISubscriber>> connections;
    for (int i = 0; i < subscribers; ++i) {
        connections.push_back(driver.MakeSubscriber(topics));
    }
    PrintLine(R"({"event":"registered","registerNs":)" + std::to_string(NowNs() - beforeNs) + "}");

    std::vector<SubscribeResult> results(connections.size());
    OnThreads(subscribers, [&](int i) {
        const auto index = static_cast<std::size_t>(i);
        results[index] = ReceiveAll(*connections[index], topics, stamped);
    });
    SubscribeResult total;
    for (const auto& result : results) {
        total.latencies.Merge(result.latencies);
        total.received += result.received;
        total.lost += result.lost;
        total.repeated += result.repeated;
        total.lastNs = std::max(total.lastNs, result.lastNs);
    }
    PrintLine(R"({"event":"received","received":)" + std::to_string(total.received) +
              ",\"lost\":" + std::to_string(total.lost) + ",\"repeated\":" + std::to_string(total.repeated) +
              ",\"lastNs\":" + std::to_string(total.lastNs) + "," + total.latencies.Json() + "}");
    return total.lost == 0 && total.repeated == 0 ? 0 : 2;
}

} // namespace

int RunDriver(const MakeDriver& makeDriver, int argc, char** argv) {
    try {
        const Options options(argc, argv);
        const auto driver = makeDriver(options.Text("address", ""));
        if (options.Verb() == "publish") {
            return PublishVerb(*driver, options);
        }
        if (options.Verb() == "subscribe") {
            return SubscribeVerb(*driver, options);
        }
        if (options.Verb() == "publish-on-schedule") {
            return PublishOnSchedule(*driver, options);
        }
        if (options.Verb() == "subscribe-on-schedule") {
            return SubscribeOnSchedule(*driver, options);
        }
        std::fprintf(stderr, "usage: %s [publish|subscribe][-on-schedule] --address ADDRESS [--name value]...\n",
                     program_invocation_short_name);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.what());
    }
    return 1;
}

} // namespace bench
