#pragma once

#include "recording/recording_writer.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace recordings {

/// The topics of a recording that is being written. Each becomes a channel when its first values are settled: its
/// publisher describes it a moment after it has registered, so what comes before is held back.
class TopicChannels final {
public:
    /// Lifetime: `target` must outlive this object.
    explicit TopicChannels(recording::RecordingWriter& target) : writer(target) {}

    /// Throws: recording::RecordingError.
    void Write(const std::string& topic, recording::Time time, std::int64_t value);
    /// Writes what is held back. Throws: recording::RecordingError.
    void Settle();

    /// Returns: whether there is no room for another topic.
    bool IsFull() const noexcept;
    /// Returns: how many values were left out because of that.
    std::uint64_t LeftOut() const noexcept { return leftOut; }

private:
    struct Held {
        std::string topic;
        recording::Time time;
        std::int64_t value;
    };
    struct Numbered {
        std::uint16_t channel;
        std::uint32_t next; ///< sequence number
    };

    recording::RecordingWriter& writer;
    std::map<std::string, Numbered, std::less<>> channels;
    std::vector<Held> held; ///< from the first value of a new topic on
    std::uint64_t leftOut = 0;
};

} // namespace recordings
