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
    std::vector<recording::Note> notes;
    std::uint64_t otherMessages = 0;
    std::string library;
    std::uint64_t fileBytes = 0;
    recording::FileEnd end;
    std::string damage; ///< why it could be read only so far; empty: it is not damaged
};

/// Reads a whole file. Throws: recording::RecordingError when there is none, or it is no recording.
Summary Summarize(const std::string& file);

} // namespace recordings
