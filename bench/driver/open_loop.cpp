#include "open_loop.h"

#include "common/histogram.h"
#include "samples.h"
#include "schedule.h"
#include "value.h"

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <limits>
#include <string>
#include <thread>

namespace bench {
namespace {

/// The values of the first `seconds` of a schedule.
std::int64_t ValuesIn(double seconds, std::int64_t rate) {
    return static_cast<std::int64_t>(seconds * static_cast<double>(rate));
}

/// Sleeps until shortly before `dueNs`, because a sleeping CPU wakes late, and yields for the rest of the time: the
/// thread then leaves its CPU to the bus, but needs no wake-up. Returns: the time.
std::int64_t AwaitDue(std::int64_t dueNs) {
    constexpr std::int64_t awakeNs = 200'000;
    auto now = NowNs();
    if (dueNs - now > awakeNs) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(dueNs - now - awakeNs));
        now = NowNs();
    }
    while (now < dueNs) {
        std::this_thread::yield();
        now = NowNs();
    }
    return now;
}

struct Published {
    std::int64_t values = 0;
    std::int64_t refused = 0;
    std::int64_t startNs = 0;
    std::int64_t endNs = 0;
    std::int64_t endLagNs = 0; ///< the least time by which an acknowledgement of the last tenth was behind its schedule
    common::Histogram
        late; ///< delays of this process itself: it was ready for a value before its time and began after it
};

/// Publishes `count` values. Stops when the schedule can no longer be met (bench/README.md).
Published PublishAll(IPublisher& publisher, std::int64_t rate, std::int64_t count) {
    constexpr std::int64_t leadNs = 1'000'000;
    constexpr auto never = std::numeric_limits<std::int64_t>::max();
    Published result;
    result.startNs = NowNs() + leadNs;
    const Schedule schedule(result.startNs, rate);
    const auto tooLateNs = result.startNs + (schedule.Due(count) - result.startNs) * 100 / 99;
    const auto lastTenth = count - count / 10;
    result.endLagNs = never;
    result.endNs = NowNs();
    while (result.values < count && result.endNs <= tooLateNs) {
        const auto dueNs = schedule.Due(result.values);
        if (result.endNs < dueNs) {
            result.late.Record(AwaitDue(dueNs) - dueNs);
        }
        PublishSurely(publisher, dueNs, result.refused);
        result.endNs = NowNs();
        if (result.values >= lastTenth) {
            result.endLagNs = std::min(result.endLagNs, result.endNs - dueNs);
        }
        ++result.values;
    }
    if (result.endLagNs == never) {
        result.endLagNs = result.endNs - schedule.Due(result.values);
    }
    PublishSurely(publisher, EndValue(0, result.values), result.refused);
    return result;
}

struct Received {
    std::int64_t values = 0;
    std::int64_t lost = 0;
    std::int64_t repeated = 0; ///< or out of order
    std::int64_t lastNs = 0;
    common::Histogram latencies;
};

/// The first value sets the schedule. If values before it are lost, the harness sees that from the count of values.
Received ReceiveAll(ISubscriber& subscriber, std::int64_t rate, std::int64_t warmUp) {
    Received result;
    auto value = subscriber.Next();
    const Schedule schedule(value, rate);
    std::int64_t next = 0;
    for (; !IsEnd(value); value = subscriber.Next()) {
        result.lastNs = NowNs();
        ++result.values;
        const auto index = schedule.IndexOf(value);
        if (index < next || schedule.Due(index) != value) {
            ++result.repeated;
            continue;
        }
        result.lost += index - next;
        next = index + 1;
        if (index >= warmUp) {
            result.latencies.Record(result.lastNs - value);
        }
    }
    result.lost += std::max<std::int64_t>(SequenceOf(value) - next, 0);
    return result;
}

std::int64_t Rate(const Options& options) {
    return std::max<std::int64_t>(options.Number("rate", 1000), 1);
}

std::string Member(const char* name, std::int64_t number) {
    return std::string(",\"").append(name).append("\":").append(std::to_string(number));
}

} // namespace

int PublishOnSchedule(IDriver& driver, const Options& options) {
    const auto rate = Rate(options);
    const auto count = ValuesIn(options.Real("warm-up-seconds", 0) + options.Real("seconds", 1), rate);
    // The kernel's default lets a sleep end 50 µs late.
    prctl(PR_SET_TIMERSLACK, 1);
    const auto publisher = driver.MakePublisher(0);
    std::cout << R"({"event":"ready"})" << std::endl;
    std::string line;
    if (!std::getline(std::cin, line)) {
        return 0;
    }
    const auto result = PublishAll(*publisher, rate, count);
    std::cout << R"({"event":"published")" << Member("planned", count) << Member("values", result.values)
              << Member("refused", result.refused) << Member("startNs", result.startNs) << Member("endNs", result.endNs)
              << Member("endLagNs", result.endLagNs) << ",\"late\":" << result.late.Json() << "}" << std::endl;
    // Keep the connection until the values have been received: the harness closes standard input then.
    while (std::getline(std::cin, line)) {
    }
    return 0;
}

int SubscribeOnSchedule(IDriver& driver, const Options& options) {
    const auto rate = Rate(options);
    const auto subscriber = driver.MakeSubscriber(1);
    std::cout << R"({"event":"registered"})" << std::endl;
    const auto result = ReceiveAll(*subscriber, rate, ValuesIn(options.Real("warm-up-seconds", 0), rate));
    std::cout << R"({"event":"received")" << Member("received", result.values) << Member("lost", result.lost)
              << Member("repeated", result.repeated) << Member("lastNs", result.lastNs)
              << ",\"histogram\":" << result.latencies.Json() << "}" << std::endl;
    return result.lost == 0 && result.repeated == 0 ? 0 : 2;
}

} // namespace bench
