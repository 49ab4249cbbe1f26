#pragma once

#include "recording/recording.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace recording {

/// How the data of a file ended.
struct FileEnd {
    bool isComplete = false;    ///< with its index, as a program leaves it that was not killed
    std::uint64_t cutBytes = 0; ///< at the end of the file that are no whole record
    std::string reason;         ///< why it is not complete; a sentence
};

/// Reads a recording, also what other programs wrote: channels of `std_msgs/msg/Int64` and `Float64` in CDR; others are
/// counted. Threads: one at a time.
class RecordingReader final {
public:
    using Item = std::variant<Message, Note>;

    /// Throws: RecordingError when there is no such file, or it is no MCAP file.
    explicit RecordingReader(const std::string& path);
    RecordingReader(const RecordingReader&) = delete;
    RecordingReader& operator=(const RecordingReader&) = delete;
    ~RecordingReader();

    /// Reads on, in the order of the file. The values of chunks that end before `from` are passed over.
    /// Returns: a value or a note; nothing at the end of the data. Throws: RecordingError when a part of the file is
    /// damaged, once: the next call goes on behind that part.
    std::optional<Item> Next(Time from = Time::min());

    /// Returns: the channels that have been met, by number. A channel is met before its first value.
    const std::map<std::uint16_t, Channel>& Channels() const noexcept;
    /// Returns: messages of other types, which are passed over.
    std::uint64_t OtherMessages() const noexcept;
    /// Returns: how the file ended. Requires: Next has returned nothing.
    const FileEnd& End() const noexcept;
    /// Returns: the program that wrote the file, as it says.
    const std::string& Library() const noexcept;
    std::uint64_t FileBytes() const noexcept;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace recording
