// The bus inside one process: the cost of a push, a fan-out and a wait without IPC. In a benchmark that works in
// batches, an iteration is a batch and items_per_second counts single operations.

#include "bus_runner.h"
#include "samples.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <semaphore>
#include <thread>
#include <vector>

namespace {

using bench::BatchSize;
using bench::BusRunner;
using bench::NowNs;

constexpr auto Topic = "bench";

double SecondsSince(std::int64_t beforeNs) {
    return static_cast<double>(NowNs() - beforeNs) * 1e-9;
}

/// Push while the events thread delivers to one subscriber.
void Push(benchmark::State& state) {
    BusRunner::Run([&](BusRunner& runner) {
        const long publisher = runner.Publisher(Topic);
        const long subscriber = runner.Subscriber(Topic);
        for ([[maybe_unused]] auto batch : state) {
            const auto beforeNs = NowNs();
            runner.Push(publisher, BatchSize);
            state.SetIterationTime(SecondsSince(beforeNs));
            runner.Take(subscriber, BatchSize);
        }
        state.counters["rescues"] = static_cast<double>(runner.Rescues());
    });
    state.SetItemsProcessed(state.iterations() * BatchSize);
}
BENCHMARK(Push)->UseManualTime();

/// Push without an events thread: no wake-up and no contention.
void PushAlone(benchmark::State& state) {
    for ([[maybe_unused]] auto batch : state) {
        message_bus::MessageBus bus;
        long publisher = -1;
        if (bus.RegisterPublisher(Topic, publisher) != cor::ResultCode::Success) {
            state.SkipWithError("RegisterPublisher failed");
            break;
        }
        const auto beforeNs = NowNs();
        for (long value = 0; value < BatchSize; ++value) {
            benchmark::DoNotOptimize(bus.Push(publisher, value));
        }
        state.SetIterationTime(SecondsSince(beforeNs));
    }
    state.SetItemsProcessed(state.iterations() * BatchSize);
}
BENCHMARK(PushAlone)->UseManualTime();

/// From the first push until the last subscriber has every value. One item is one delivery.
void FanOut(benchmark::State& state) {
    BusRunner::Run([&](BusRunner& runner) {
        const long publisher = runner.Publisher(Topic);
        std::vector<long> subscribers;
        for (long i = 0; i < state.range(0); ++i) {
            subscribers.push_back(runner.Subscriber(Topic));
        }
        for ([[maybe_unused]] auto batch : state) {
            const auto beforeNs = NowNs();
            runner.Push(publisher, BatchSize);
            runner.Take(subscribers.back(), BatchSize);
            state.SetIterationTime(SecondsSince(beforeNs));
            for (std::size_t i = 0; i + 1 < subscribers.size(); ++i) {
                runner.Take(subscribers[i], BatchSize);
            }
        }
        state.counters["rescues"] = static_cast<double>(runner.Rescues());
    });
    state.SetItemsProcessed(state.iterations() * BatchSize * state.range(0));
}
BENCHMARK(FanOut)->UseManualTime()->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

/// Wait by a subscriber with values in its queue.
void WaitWithBacklog(benchmark::State& state) {
    BusRunner::Run([&](BusRunner& runner) {
        const long publisher = runner.Publisher(Topic);
        const long subscriber = runner.Subscriber(Topic);
        const long later = runner.Subscriber(Topic); // gets each value after `subscriber`
        std::string gotTopic;
        long gotValue = 0;
        for ([[maybe_unused]] auto batch : state) {
            runner.Push(publisher, BatchSize);
            runner.Take(later, BatchSize);
            const auto beforeNs = NowNs();
            for (long i = 0; i < BatchSize; ++i) {
                benchmark::DoNotOptimize(runner.Bus().Wait(subscriber, gotTopic, gotValue));
            }
            state.SetIterationTime(SecondsSince(beforeNs));
        }
        state.counters["rescues"] = static_cast<double>(runner.Rescues());
    });
    state.SetItemsProcessed(state.iterations() * BatchSize);
}
BENCHMARK(WaitWithBacklog)->UseManualTime();

/// From a push to the return of a sleeping Wait. The events thread sleeps as well.
void WaitWithoutBacklog(benchmark::State& state) {
    BusRunner::Run([&](BusRunner& runner) {
        const long publisher = runner.Publisher(Topic);
        const long subscriber = runner.Subscriber(Topic);
        std::binary_semaphore returned(0);
        std::int64_t returnedNs = 0;
        std::jthread waiter([&] {
            std::string gotTopic;
            long gotValue = 0;
            while (runner.Bus().Wait(subscriber, gotTopic, gotValue) == cor::ResultCode::Success) {
                returnedNs = NowNs();
                returned.release();
            }
        });
        for ([[maybe_unused]] auto value : state) {
            std::this_thread::sleep_for(std::chrono::microseconds(200)); // both are asleep again by then
            const auto beforeNs = NowNs();
            runner.Push(publisher, 1);
            while (!returned.try_acquire_for(bench::StuckAfter)) {
                runner.Rescue();
            }
            state.SetIterationTime(static_cast<double>(returnedNs - beforeNs) * 1e-9);
        }
        if (runner.Bus().UnregisterSubscriber(subscriber) != cor::ResultCode::Success) {
            state.SkipWithError("UnregisterSubscriber failed");
        }
        state.counters["rescues"] = static_cast<double>(runner.Rescues());
    });
}
BENCHMARK(WaitWithoutBacklog)->UseManualTime();

} // namespace
