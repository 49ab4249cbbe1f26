#pragma once

#include "instruments/trace_record.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace msgbus_server {

/// Follows the next values of one topic through the bus, while that is asked for. What is off costs one load of an
/// atomic for each step of a value.
///
/// The values are those that the thread with the turn of the pushes adds; the events thread finds them by their number
/// among all accepted values, in the order in which they were pushed; and a subscriber's values leave its queue in the
/// order in which they came, so a count says which.
///
/// Every Start begins a generation. Steps are tagged with it, because a thread may still write one of the trace before.
class Trace final {
public:
    static constexpr std::size_t MostValues = 1000;
    static constexpr std::size_t MostSteps = 16384;

    enum class Step : std::uint32_t { Queued, FannedOut, Offered, Taken, Dropped, DroppedFromBehind };

    bool IsOn() const noexcept { return isOn.load(std::memory_order_relaxed); }
    /// Distinguishes this trace from others; 0: none was started. Threads: any.
    std::uint32_t Generation() const noexcept { return generation.load(std::memory_order_relaxed); }

    // With the turn of the pushes.

    /// Begins a trace of the next `count` values of the topic, in place of one that was not read for some time.
    /// `now`: of CLOCK_MONOTONIC. Returns: false while there is another. Throws: std::bad_alloc.
    bool Start(std::string_view tracedTopic, std::size_t count, std::int64_t now);
    void Stop() noexcept;
    /// A value is about to be pushed. `index`: its number among all accepted values.
    void NotePushed(std::string_view topic, std::uint64_t index, long publisher, std::int64_t value, std::int64_t at,
                    std::uint32_t subscribers) noexcept;
    /// The push of that value has failed. `index`: its number.
    void Retract(std::uint64_t index) noexcept;
    /// Returns: what is known by now; the trace has a reader then. Throws: std::bad_alloc.
    instruments::TraceRecord Read(std::int64_t now);

    // Of the events thread. `index`: of the value that it fans out.

    /// A copy is in the queue of a subscriber, whose `number`-th value it is. Returns: whether it is traced.
    bool NoteQueued(std::uint64_t index, long subscriber, std::uint64_t number) noexcept;
    void NoteFannedOut(std::uint64_t index) noexcept;

    /// The values from `first` on have made a step, of a subscriber with a traced one. Threads: any.
    void NoteLeft(Step step, long subscriber, std::uint64_t first, std::uint64_t count) noexcept;

private:
    struct Value {
        std::atomic<std::uint64_t> index{0};
        std::int64_t value = 0;
        long publisher = 0;
        std::int64_t pushedAt = 0;
        std::uint32_t subscribers = 0;
    };
    /// Relaxed atomics but for `generation`, which is written last: a thread that was held up may write beside another.
    struct StepSlot {
        std::atomic<std::uint32_t> generation{0};
        std::atomic<Step> step{};
        std::atomic<std::uint32_t> value{0}; ///< of Queued and FannedOut: its place in `values`
        std::atomic<std::int64_t> at{0};
        std::atomic<long> subscriber{0};
        std::atomic<std::uint64_t> first{0};
        std::atomic<std::uint64_t> count{0};
    };
    struct Room {
        std::array<Value, MostValues> values;
        std::array<StepSlot, MostSteps> steps;
    };

    std::size_t FindValue(std::uint64_t index) noexcept;
    void Add(Step step, std::uint32_t value, long subscriber, std::uint64_t first, std::uint64_t count) noexcept;

    std::atomic<bool> isOn{false};
    std::atomic<std::uint32_t> generation{0};
    std::atomic<std::int64_t> usedAt{0};
    std::atomic<std::size_t> valueCount{0}; ///< released behind a value
    std::atomic<std::uint64_t> stepCount{0};
    std::atomic<std::uint64_t> firstStep{0};
    std::atomic<Room*> room{nullptr}; ///< that of `ownRoom`

    // With the turn.
    std::unique_ptr<Room> ownRoom; ///< from the first trace on
    std::string topic;
    std::size_t wanted = 0;

    // Of the events thread.
    std::uint32_t foundGeneration = 0;
    std::size_t found = 0; ///< place of the first value that was not fanned out
};

} // namespace msgbus_server
