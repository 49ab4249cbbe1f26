#pragma once

#include "recordings/destination.h"
#include "recordings/topic_channels.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace recordings {

/// When a recording goes on in another file, and how much all of them may take.
struct SplitRules {
    std::optional<std::uint64_t> bytes;
    std::optional<std::chrono::milliseconds> time;
    std::optional<std::uint64_t> mostBytes; ///< of all files: the oldest are removed

    bool Splits() const noexcept { return bytes || time; }
};

/// The files of a recording: one, or numbered ones, behind those that are there unless these are replaced.
class FileSeries final : public IDestination {
public:
    /// Creates the first file. Throws: recording::RecordingError.
    FileSeries(std::string path, recording::ExistingFile existing, const SplitRules& splitRules,
               recording::Texts about);

    /// Throws: recording::RecordingError.
    void Write(const std::string& topic, recording::Time time, std::int64_t value) override;
    void Write(const recording::Note& note) override { writer->Write(note); }
    /// Writes what was collected, and goes on in another file if it is time for that. Throws:
    /// recording::RecordingError.
    void Flush() override;
    std::chrono::milliseconds FlushInterval() const noexcept override;
    void NoteServerGone() override {} // there is a note when it is back
    void NoteCut() override {}        // and of what was lost
    /// Completes the last file. Throws: recording::RecordingError.
    void End(std::uint64_t lost) override;

    std::string Doing() const override { return "recording to '" + files.back().path + '\''; }
    std::string Done() const override;
    std::uint64_t ValueCount() const noexcept override { return values; }
    std::uint64_t LeftOut() const noexcept override { return leftOut + channels->LeftOut(); }
    /// Returns: the size of all files that are left.
    std::uint64_t Bytes() const noexcept override;

private:
    struct Finished {
        std::string path;
        std::uint64_t bytes; ///< 0: it is being written
    };

    void Open();
    void RemoveOldest();

    const std::string name;
    const recording::ExistingFile existingFile;
    const SplitRules rules;
    const recording::Texts header;
    std::size_t number;         ///< of the next file
    std::deque<Finished> files; ///< oldest first
    std::unique_ptr<recording::RecordingWriter> writer;
    std::optional<TopicChannels> channels;
    std::chrono::steady_clock::time_point opened;
    std::uint64_t values = 0;
    std::uint64_t leftOut = 0; ///< of files that are finished
};

} // namespace recordings
