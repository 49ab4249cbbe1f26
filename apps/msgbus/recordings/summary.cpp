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
    while (auto item = NextReadable(reader, summary)) {
        if (const auto* message = std::get_if<recording::Message>(&*item)) {
            Count(summary, places, reader, *message);
        } else {
            summary.notes.push_back(std::get<recording::Note>(std::move(*item)));
        }
    }
    summary.end = reader.End();
    summary.writtenBy = reader.Library();
    summary.otherMessages = reader.OtherMessages();
    return summary;
}

} // namespace recordings
