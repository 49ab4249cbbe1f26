#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

// What a recording has, for the writer and the reader.

namespace recording {

/// A file cannot be written or read. what() is a sentence.
class RecordingError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Nanoseconds since 1970.
using Time = std::chrono::sys_time<std::chrono::nanoseconds>;

using Texts = std::map<std::string, std::string>;

/// A topic of a recording.
struct Channel {
    std::string topic;       ///< its raw bytes
    std::string description; ///< what its values mean, in the text form of msgbus/codec.h; empty: not known
    bool isFloat = false;    ///< its values are the bits of doubles, and are shown as such by other programs
};

struct Message {
    std::uint16_t channel = 0;
    std::uint32_t sequence = 0; ///< counts the values of the channel from 0, and begins again behind 2^32 - 1
    Time time{};
    std::int64_t value = 0;
};

/// Something beside the values: what recorded them, a loss, a restart.
struct Note {
    std::string name;
    Texts texts;
};

} // namespace recording
