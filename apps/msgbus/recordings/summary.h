#pragma once

#include "recording/recording_reader.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace recordings {

/// What is known of one topic of a file.
struct TopicSummary {
    recording::Channel channel;
    std::uint64_t values = 0;
    recording::Time first{};
    recording::Time last{};
};

/// What is in a file.
struct Summary {
    std::vector<TopicSummary> topics; ///< in the order in which they came
    std::uint64_t values = 0;
    recording::Time first{};
    recording::Time last{};
    std::vector<recording::Note> notes; ///< the first ones
    std::uint64_t noteCount = 0;        ///< how many there are
    std::uint64_t otherMessages = 0;
    std::string writtenBy;
    std::uint64_t fileBytes = 0;
    recording::FileEnd end;
    std::vector<std::string> damages; ///< of the first parts that could not be read, why
    std::uint64_t damageCount = 0;    ///< how many there are
};

/// Reads a whole file, also what is behind a part that is damaged. Throws: recording::RecordingError when there is
/// none, or it is no recording.
Summary Summarize(const std::string& file);

} // namespace recordings
