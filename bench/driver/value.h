#pragma once

#include <cstdint>

// A benchmark value holds the topic and a sequence number, so that every subscriber can detect loss, repetition and
// disorder. A negative value ends a topic and holds the number of its values.
namespace bench {

constexpr int SequenceBits = 40;

constexpr std::int64_t SequenceValue(int topic, std::int64_t sequence) {
    return (static_cast<std::int64_t>(topic) << SequenceBits) | sequence;
}
constexpr std::int64_t EndValue(int topic, std::int64_t count) {
    return -1 - SequenceValue(topic, count);
}

constexpr bool IsEnd(std::int64_t value) {
    return value < 0;
}
constexpr std::int64_t WithoutEnd(std::int64_t value) {
    return IsEnd(value) ? -1 - value : value;
}
constexpr int TopicOf(std::int64_t value) {
    return static_cast<int>(WithoutEnd(value) >> SequenceBits);
}
constexpr std::int64_t SequenceOf(std::int64_t value) {
    return WithoutEnd(value) & ((std::int64_t{1} << SequenceBits) - 1);
}

} // namespace bench
