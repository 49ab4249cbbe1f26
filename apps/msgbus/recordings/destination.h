#pragma once

#include "recording/recording.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace recordings {

/// What a recorder does with the values that it receives. Threads: one at a time. Each call throws:
/// recording::RecordingError.
class IDestination {
public:
    virtual ~IDestination() = default;

    virtual void Write(const std::string& topic, recording::Time time, std::int64_t value) = 0;
    virtual void Write(const recording::Note& note) = 0;

    /// To be called every FlushInterval.
    virtual void Flush() = 0;
    virtual std::chrono::milliseconds FlushInterval() const noexcept = 0;

    /// The server is gone, or it has cut the subscriber.
    virtual void NoteServerGone() = 0;
    virtual void NoteCut() = 0;

    /// There is no more. `lost`: values that the subscriber has missed.
    virtual void End(std::uint64_t lost) = 0;

    /// Returns: what it does, such as "recording to 'file'".
    virtual std::string Doing() const = 0;
    /// Returns: what it has done, as a sentence.
    virtual std::string Done() const = 0;

    /// Returns: how many values came.
    virtual std::uint64_t ValueCount() const noexcept = 0;
    /// Returns: how many of them were not written, because they are of more topics than a file can have.
    virtual std::uint64_t LeftOut() const noexcept = 0;
    /// Returns: how much they take, on the disk or in memory.
    virtual std::uint64_t Bytes() const noexcept = 0;
};

} // namespace recordings
