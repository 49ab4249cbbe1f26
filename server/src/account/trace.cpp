#include "account/trace.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <utility>

namespace msgbus_server {

using instruments::TracedCopy;
using instruments::TraceRecord;

namespace {

/// A trace that was not read for so long is over: its reader has gone.
constexpr std::int64_t LifeWithoutReader = 10'000'000'000; // nanoseconds

std::int64_t NowNs() noexcept {
    constexpr std::int64_t second = 1'000'000'000;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second + now.tv_nsec;
}

/// Puts the steps of values into the record of a trace, in the order in which they were made.
class Assembly final {
public:
    explicit Assembly(TraceRecord& assembled) : record(assembled) {}

    void AddQueued(std::size_t value, long subscriber, std::uint64_t number, std::int64_t at) {
        if (value < record.values.size()) {
            auto& copies = record.values[value].copies;
            places[{subscriber, number}] = {value, copies.size()};
            copies.push_back({subscriber, number, at, 0, 0, 0, false});
        }
    }

    void AddFannedOut(std::size_t value, std::int64_t at) {
        if (value < record.values.size()) {
            record.values[value].fannedOutAt = at;
        }
    }

    void AddLeft(Trace::Step step, long subscriber, std::uint64_t first, std::uint64_t count, std::int64_t at) {
        const auto end = places.lower_bound({subscriber, first + count});
        for (auto place = places.lower_bound({subscriber, first}); place != end; ++place) {
            TracedCopy& copy = record.values[place->second.first].copies[place->second.second];
            (step == Trace::Step::Offered ? copy.offeredAt
             : step == Trace::Step::Taken ? copy.takenAt
                                          : copy.droppedAt) = at;
        }
    }

    /// From here on, counts do not say any more which values of this subscriber leave.
    void AddDroppedFromBehind(long subscriber) {
        for (auto place = places.lower_bound({subscriber, 0});
             place != places.end() && place->first.first == subscriber; ++place) {
            TracedCopy& copy = record.values[place->second.first].copies[place->second.second];
            copy.isUncertain = !copy.HasEnded();
        }
    }

private:
    TraceRecord& record;
    std::map<std::pair<long, std::uint64_t>, std::pair<std::size_t, std::size_t>> places; ///< by subscriber and number
};

} // namespace

bool Trace::Start(std::string_view tracedTopic, std::size_t count, std::int64_t now) {
    if (IsOn() && now - usedAt.load(std::memory_order_relaxed) < LifeWithoutReader) {
        return false;
    }
    Stop();
    if (!ownRoom) {
        ownRoom = std::make_unique<Room>();
    }
    topic = tracedTopic;
    wanted = std::min(count, MostValues);
    valueCount.store(0, std::memory_order_relaxed);
    firstStep.store(stepCount.load(std::memory_order_relaxed), std::memory_order_relaxed);
    usedAt.store(now, std::memory_order_relaxed);
    generation.fetch_add(1, std::memory_order_relaxed);
    room.store(ownRoom.get(), std::memory_order_release);
    isOn.store(true, std::memory_order_release);
    return true;
}

void Trace::Stop() noexcept {
    isOn.store(false, std::memory_order_relaxed);
}

void Trace::NotePushed(std::string_view pushedTopic, std::uint64_t index, long publisher, std::int64_t value,
                       std::int64_t at, std::uint32_t subscribers) noexcept {
    if (at - usedAt.load(std::memory_order_relaxed) >= LifeWithoutReader) {
        Stop();
        return;
    }
    const std::size_t count = valueCount.load(std::memory_order_relaxed);
    if (count == wanted || pushedTopic != topic) {
        return;
    }
    Value& added = ownRoom->values[count];
    added.index.store(index, std::memory_order_relaxed);
    added.value = value;
    added.publisher = publisher;
    added.pushedAt = at;
    added.subscribers = subscribers;
    valueCount.store(count + 1, std::memory_order_release);
}

void Trace::Retract(std::uint64_t index) noexcept {
    const std::size_t count = valueCount.load(std::memory_order_relaxed);
    if (count != 0 && ownRoom->values[count - 1].index.load(std::memory_order_relaxed) == index) {
        valueCount.store(count - 1, std::memory_order_relaxed);
    }
}

/// Returns: the place of the value with this number; MostValues when it is not traced.
std::size_t Trace::FindValue(std::uint64_t index) noexcept {
    const Room* const current = room.load(std::memory_order_acquire);
    if (current == nullptr) {
        return MostValues;
    }
    if (const auto now = Generation(); now != foundGeneration) {
        foundGeneration = now;
        found = 0;
    }
    const std::size_t count = valueCount.load(std::memory_order_acquire);
    while (found < count && current->values[found].index.load(std::memory_order_relaxed) < index) {
        ++found;
    }
    return found < count && current->values[found].index.load(std::memory_order_relaxed) == index ? found : MostValues;
}

bool Trace::NoteQueued(std::uint64_t index, long subscriber, std::uint64_t number) noexcept {
    const std::size_t place = FindValue(index);
    if (place == MostValues) {
        return false;
    }
    Add(Step::Queued, static_cast<std::uint32_t>(place), subscriber, number, 1);
    return true;
}

void Trace::NoteFannedOut(std::uint64_t index) noexcept {
    if (const std::size_t place = FindValue(index); place != MostValues) {
        Add(Step::FannedOut, static_cast<std::uint32_t>(place), 0, 0, 0);
    }
}

void Trace::NoteLeft(Step step, long subscriber, std::uint64_t first, std::uint64_t count) noexcept {
    if (count != 0) {
        Add(step, 0, subscriber, first, count);
    }
}

void Trace::Add(Step step, std::uint32_t value, long subscriber, std::uint64_t first, std::uint64_t count) noexcept {
    Room* const current = room.load(std::memory_order_acquire);
    if (current == nullptr) {
        return;
    }
    const auto ownGeneration = Generation();
    const std::uint64_t number = stepCount.fetch_add(1, std::memory_order_relaxed);
    if (number - firstStep.load(std::memory_order_relaxed) >= MostSteps) {
        return;
    }
    StepSlot& slot = current->steps[number % MostSteps];
    slot.generation.store(0, std::memory_order_relaxed);
    slot.step.store(step, std::memory_order_relaxed);
    slot.value.store(value, std::memory_order_relaxed);
    slot.at.store(NowNs(), std::memory_order_relaxed);
    slot.subscriber.store(subscriber, std::memory_order_relaxed);
    slot.first.store(first, std::memory_order_relaxed);
    slot.count.store(count, std::memory_order_relaxed);
    slot.generation.store(ownGeneration, std::memory_order_release);
}

TraceRecord Trace::Read(std::int64_t now) {
    TraceRecord record;
    if (!ownRoom) {
        return record;
    }
    usedAt.store(now, std::memory_order_relaxed);
    record.topic = topic;
    record.wanted = wanted;
    const std::size_t count = valueCount.load(std::memory_order_acquire);
    for (std::size_t place = 0; place < count; ++place) {
        const Value& value = ownRoom->values[place];
        record.values.push_back({value.value, value.publisher, value.pushedAt, value.subscribers, 0, {}});
    }
    const std::uint64_t begin = firstStep.load(std::memory_order_relaxed);
    const std::uint64_t end = stepCount.load(std::memory_order_relaxed);
    record.lostSteps = end - begin > MostSteps ? end - begin - MostSteps : 0;
    Assembly assembly(record);
    for (std::uint64_t number = begin; number < std::min(end, begin + MostSteps); ++number) {
        const StepSlot& slot = ownRoom->steps[number % MostSteps];
        if (slot.generation.load(std::memory_order_acquire) != Generation()) {
            continue; // not yet written, or of the trace before
        }
        const Step step = slot.step.load(std::memory_order_relaxed);
        const auto value = slot.value.load(std::memory_order_relaxed);
        const auto subscriber = slot.subscriber.load(std::memory_order_relaxed);
        const auto first = slot.first.load(std::memory_order_relaxed);
        const auto at = slot.at.load(std::memory_order_relaxed);
        if (step == Step::Queued) {
            assembly.AddQueued(value, subscriber, first, at);
        } else if (step == Step::FannedOut) {
            assembly.AddFannedOut(value, at);
        } else if (step == Step::DroppedFromBehind) {
            assembly.AddDroppedFromBehind(subscriber);
        } else {
            assembly.AddLeft(step, subscriber, first, slot.count.load(std::memory_order_relaxed), at);
        }
    }
    return record;
}

} // namespace msgbus_server
