#include "measure/bench.h"
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"

#include <unistd.h>

#include <atomic>
#include <exception>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

// Every value is the time at which its push began, in nanoseconds of the steady clock, so that the receiver knows its
// latency; each is greater than the one before, so that it knows the order too. A value of its own ends a run.

namespace measure {

namespace {

using std::chrono::steady_clock;

constexpr std::int64_t EndOfRun = -1;

/// Values that may be on their way to the slowest subscriber: beyond it the server would cut one that does not keep up.
constexpr std::uint64_t MostOnTheirWay = 20'000;

std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string UniqueName(const char* what) {
    return std::string("msgbus-bench-") + what + '-' + std::to_string(::getpid());
}

/// A subscriber that receives on a thread of its own until the end of the run.
class Receiver final {
public:
    Receiver(const std::string& topic, const msgbus::Options& options)
        : subscriber(UniqueName("subscriber"), {topic}, options), thread([this] { Run(); }) {}
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    ~Receiver() {
        subscriber.Cancel();
        if (thread.joinable()) {
            thread.join();
        }
    }

    std::uint64_t Received() const noexcept { return received.load(std::memory_order_relaxed); }
    bool HasEnded() const noexcept { return hasEnded.load(std::memory_order_relaxed); }

    /// Blocks: until the end of the run has arrived. Throws: what has ended the receiving.
    void Join() {
        thread.join();
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
    const common::Histogram& Latency() const noexcept { return latency; }
    std::int64_t LastNs() const noexcept { return lastNs; }

private:
    void Run() noexcept {
        try {
            std::int64_t last = 0;
            while (const auto message = subscriber.Next()) {
                if (message->value == EndOfRun) {
                    break;
                }
                lastNs = NowNs();
                if (message->value <= last) {
                    throw std::runtime_error("a value came twice, or in a wrong order");
                }
                last = message->value;
                latency.Record(lastNs - last);
                received.fetch_add(1, std::memory_order_relaxed);
            }
        } catch (const std::exception&) {
            failure = std::current_exception();
        }
        hasEnded.store(true, std::memory_order_relaxed);
    }

    msgbus::Subscriber subscriber;
    std::atomic<std::uint64_t> received{0};
    std::atomic<bool> hasEnded{false};
    // Of the thread until it is joined.
    common::Histogram latency;
    std::int64_t lastNs = 0;
    std::exception_ptr failure;

    std::thread thread;
};

/// When a run ends: by number, by time, or by a signal.
class Limit final {
public:
    Limit(const BenchArguments& benchArguments, const EndWatch& endWatch)
        : arguments(benchArguments), watch(endWatch), end(steady_clock::now() + arguments.duration) {}

    bool IsReached(std::uint64_t done) const {
        constexpr std::uint64_t timesBetweenLooks = 64; // a look at the clock takes as long as a push may
        if (arguments.count && done == *arguments.count) {
            return true;
        }
        return done % timesBetweenLooks == 0 &&
               (watch.WhyEnded() != EndWatch::Cause::None || (!arguments.count && steady_clock::now() >= end));
    }

private:
    const BenchArguments& arguments;
    const EndWatch& watch;
    steady_clock::time_point end;
};

/// Returns: a time that is later than `last`, and not before now.
std::int64_t NextValue(std::int64_t last) {
    return std::max(NowNs(), last + 1);
}

BenchResult MeasureRoundTrips(const BenchArguments& arguments, const EndWatch& watch) {
    const std::string topic = UniqueName("topic");
    msgbus::Subscriber subscriber(UniqueName("subscriber"), {topic}, arguments.access.options);
    msgbus::Publisher publisher(topic, arguments.access.options);
    BenchResult result;
    const Limit limit(arguments, watch);
    const auto begin = steady_clock::now();
    std::int64_t value = 0;
    while (!limit.IsReached(result.published)) {
        value = NextValue(value);
        publisher.Push(value);
        ++result.published;
        const auto message = subscriber.Next();
        if (!message || message->value != value) {
            throw std::runtime_error("another value came than was published");
        }
        result.latency.Record(NowNs() - value);
        ++result.received;
    }
    result.time = steady_clock::now() - begin;
    return result;
}

BenchResult MeasurePublishes(const BenchArguments& arguments, const EndWatch& watch) {
    msgbus::Publisher publisher(UniqueName("topic"), arguments.access.options);
    BenchResult result;
    const Limit limit(arguments, watch);
    const auto begin = steady_clock::now();
    while (!limit.IsReached(result.published)) {
        const auto pushed = steady_clock::now();
        publisher.Push(static_cast<std::int64_t>(result.published));
        result.latency.Record((steady_clock::now() - pushed).count());
        ++result.published;
    }
    result.time = steady_clock::now() - begin;
    return result;
}

std::uint64_t ReceivedBySlowest(const std::vector<std::unique_ptr<Receiver>>& receivers) {
    std::uint64_t least = receivers.front()->Received();
    for (const auto& receiver : receivers) {
        least = std::min(least, receiver->Received());
    }
    return least;
}

bool HasAnyEnded(const std::vector<std::unique_ptr<Receiver>>& receivers) {
    return std::any_of(receivers.begin(), receivers.end(), [](const auto& receiver) { return receiver->HasEnded(); });
}

BenchResult MeasureDeliveries(const BenchArguments& arguments, const EndWatch& watch) {
    const std::string topic = UniqueName("topic");
    std::vector<std::unique_ptr<Receiver>> receivers;
    for (std::size_t number = 0; number < arguments.subscribers; ++number) {
        receivers.push_back(std::make_unique<Receiver>(topic, arguments.access.options));
    }
    msgbus::Publisher publisher(topic, arguments.access.options);
    BenchResult result;
    const Limit limit(arguments, watch);
    const std::int64_t begin = NowNs();
    std::int64_t value = 0;
    while (!limit.IsReached(result.published) && !HasAnyEnded(receivers)) {
        value = NextValue(value);
        publisher.Push(value);
        ++result.published;
        while (result.published - ReceivedBySlowest(receivers) > MostOnTheirWay && !HasAnyEnded(receivers)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    publisher.Push(EndOfRun);
    std::int64_t end = begin;
    for (const auto& receiver : receivers) {
        receiver->Join();
        if (receiver->Received() != result.published) {
            throw std::runtime_error("of " + std::to_string(result.published) + " values a subscriber received " +
                                     std::to_string(receiver->Received()));
        }
        result.received += receiver->Received();
        result.latency.Add(receiver->Latency());
        end = std::max(end, receiver->LastNs());
    }
    result.time = std::chrono::nanoseconds(end - begin);
    return result;
}

} // namespace

BenchResult MeasureBus(const BenchArguments& arguments, const EndWatch& watch) {
    switch (arguments.kind) {
    case BenchKind::RoundTrip:
        return MeasureRoundTrips(arguments, watch);
    case BenchKind::Publish:
        return MeasurePublishes(arguments, watch);
    case BenchKind::Subscribe:
    case BenchKind::FanOut:
        break;
    }
    return MeasureDeliveries(arguments, watch);
}

} // namespace measure
