#pragma once

#include "recording/recording.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace recordings {

/// The values and notes of the last while, in memory. Threads: one at a time.
class Ring final {
public:
    using Clock = std::chrono::steady_clock;

    /// What one value takes, as Bytes counts it.
    static constexpr std::uint64_t BytesPerValue = 32;
    /// Each new topic takes so much more than its name.
    static constexpr std::uint64_t BytesPerTopic = 200;
    /// Of more notes the oldest are dropped.
    static constexpr std::size_t MostNotes = 10'000;

    /// Keeps what is no older than `age`, and of that at most `bytes`, but for the last value.
    Ring(std::chrono::milliseconds age, std::uint64_t bytes) : longest(age), mostBytes(bytes) {}

    /// Adds a value that was received at `now`, by the wall clock at `time`; drops what is too much.
    void Add(const std::string& topic, recording::Time time, std::int64_t value, Clock::time_point now);
    void Add(recording::Note note, Clock::time_point now);
    /// Drops what is too old.
    void DropOld(Clock::time_point now);

    /// Returns: how many values there are.
    std::size_t Size() const noexcept { return values.size(); }
    std::uint64_t Bytes() const noexcept;
    /// Returns: whether values that are not too old were dropped because there was no room.
    bool LacksRoom(Clock::time_point now) const noexcept;

    /// Calls `onValue(topic, time, value)` and `onNote(note)` for what there is, in the order in which it came.
    template <typename OnValue, typename OnNote>
    void ForEach(OnValue onValue, OnNote onNote) const {
        auto note = notes.begin();
        std::uint64_t number = dropped;
        for (const auto& value : values) {
            for (; note != notes.end() && note->before <= number; ++note) {
                onNote(note->note);
            }
            onValue(topics[value.topic].name, value.time, value.value);
            ++number;
        }
        for (; note != notes.end(); ++note) {
            onNote(note->note);
        }
    }

private:
    struct Value {
        Clock::time_point received;
        recording::Time time;
        std::int64_t value;
        std::uint32_t topic; ///< its place in `topics`
    };
    static_assert(sizeof(Value) == BytesPerValue);

    struct PlacedNote {
        Clock::time_point received;
        std::uint64_t before; ///< it came before the value with this number
        recording::Note note;
    };

    /// A topic of which there is a value, or a place that is not in use.
    struct Topic {
        std::string name;
        std::uint64_t values = 0;
    };

    std::uint32_t NumberOf(const std::string& topic);
    void DropFirst();

    const std::chrono::milliseconds longest;
    const std::uint64_t mostBytes;
    std::deque<Value> values;
    std::deque<PlacedNote> notes;
    std::map<std::string, std::uint32_t, std::less<>> numbers;
    std::vector<Topic> topics;
    std::vector<std::uint32_t> unused; ///< places in `topics`
    std::uint64_t nameBytes = 0;
    std::uint64_t dropped = 0;                       ///< for any reason: the number of the first value that there is
    std::optional<Clock::time_point> droppedForRoom; ///< when the last value was received that was dropped for that
};

} // namespace recordings
