#include "recordings/summary.h"

#include <algorithm>

namespace recordings {

namespace {

void Count(Summary& summary, std::map<std::uint16_t, std::size_t>& places, const recording::RecordingReader& reader,
           const recording::Message& message) {
    const auto [place, isNew] = places.try_emplace(message.channel, summary.topics.size());
    if (isNew) {
        summary.topics.push_back({reader.Channels().at(message.channel), 0, message.time, message.time});
    }
    TopicSummary& topic = summary.topics[place->second];
    ++topic.values;
    topic.first = std::min(topic.first, message.time);
    topic.last = std::max(topic.last, message.time);
    if (summary.values++ == 0) {
        summary.first = summary.last = message.time;
    }
    summary.first = std::min(summary.first, message.time);
    summary.last = std::max(summary.last, message.time);
}

/// So many damages are described: a file may have one for every few bytes.
constexpr std::size_t MostDamages = 20;

/// What is kept of notes: a small file may have any number of them.
constexpr std::size_t MostNotes = 10'000;
constexpr std::uint64_t MostNoteBytes = 16U << 20;

void Keep(Summary& summary, std::uint64_t& keptBytes, recording::Note note) {
    std::uint64_t bytes = note.name.size();
    for (const auto& [key, value] : note.texts) {
        bytes += key.size() + value.size();
    }
    if (summary.notes.size() < MostNotes && keptBytes + bytes <= MostNoteBytes) {
        keptBytes += bytes;
        summary.notes.push_back(std::move(note));
    }
}

/// Returns: as RecordingReader::Next, of what is not damaged.
std::optional<recording::RecordingReader::Item> NextReadable(recording::RecordingReader& reader, Summary& summary) {
    while (true) {
        try {
            return reader.Next();
        } catch (const recording::RecordingError& error) {
            if (++summary.damageCount <= MostDamages) {
                summary.damages.emplace_back(error.what());
            }
        }
    }
}

} // namespace

Summary Summarize(const std::string& file) {
    recording::RecordingReader reader(file);
    Summary summary;
    summary.fileBytes = reader.FileBytes();
    std::map<std::uint16_t, std::size_t> places;
    std::uint64_t keptBytes = 0;
    while (auto item = NextReadable(reader, summary)) {
        if (const auto* message = std::get_if<recording::Message>(&*item)) {
            Count(summary, places, reader, *message);
        } else {
            ++summary.noteCount;
            Keep(summary, keptBytes, std::get<recording::Note>(std::move(*item)));
        }
    }
    summary.end = reader.End();
    summary.writtenBy = reader.Library();
    summary.otherMessages = reader.OtherMessages();
    return summary;
}

} // namespace recordings
