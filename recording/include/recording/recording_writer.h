#pragma once

#include "recording/recording.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace recording {

/// What is to be done when there is a file of that name.
enum class ExistingFile { IsKept, IsReplaced };

/// Writes a recording. Values are collected, compressed and written in chunks; what was flushed is readable whatever
/// becomes of the process. When a call throws, what was written before is readable, and the object may only be
/// destroyed. Threads: one at a time.
class RecordingWriter final {
public:
    /// Values that are collected before they are written by themselves: about so many bytes.
    static constexpr std::size_t ChunkBytes = 1U << 20;
    /// The format counts channels in 16 bits.
    static constexpr std::size_t MostChannels = 65'535;

    /// Creates the file. `library`: the program, for readers. Throws: RecordingError, also when there is a file that
    /// is to be kept.
    RecordingWriter(const std::string& path, ExistingFile existing, const std::string& library);
    RecordingWriter(const RecordingWriter&) = delete;
    RecordingWriter& operator=(const RecordingWriter&) = delete;
    /// Leaves a file without its end where Close was not called.
    ~RecordingWriter();

    /// Adds a channel, at most MostChannels. Returns: its number, for Message::channel. Throws: RecordingError.
    std::uint16_t Add(const Channel& channel);

    /// Throws: RecordingError. Requires: the channel was added.
    void Write(const Message& message);

    /// Writes a note, behind what was collected. Throws: RecordingError.
    void Write(const Note& note);

    /// Writes what was collected. Throws: RecordingError.
    void Flush();

    /// Writes what was collected, the index and the end of the file. Once. Throws: RecordingError.
    void Close();

    /// Returns: how large the file is by now, without what is still collected.
    std::uint64_t FileBytes() const noexcept;
    /// Returns: how many values were written or collected.
    std::uint64_t MessageCount() const noexcept;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace recording
