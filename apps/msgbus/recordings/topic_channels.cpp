#include "recordings/topic_channels.h"

#include "recordings/descriptions.h"

namespace recordings {

void TopicChannels::Write(const std::string& topic, recording::Time time, std::int64_t value) {
    const auto found = held.empty() ? channels.find(topic) : channels.end();
    if (found == channels.end()) {
        held.push_back({topic, time, value});
        return;
    }
    writer.Write(recording::Message{found->second.channel, found->second.next++, time, value});
}

void TopicChannels::Settle() {
    if (held.empty()) {
        return;
    }
    const Descriptions descriptions = DescriptionsOnTheBus();
    for (const auto& [topic, time, value] : held) {
        auto found = channels.find(topic);
        if (found == channels.end()) {
            if (IsFull()) {
                ++leftOut;
                continue;
            }
            const auto known = descriptions.find(topic);
            const std::string description = known == descriptions.end() ? "" : known->second;
            const auto channel = writer.Add({topic, description, IsDouble(description)});
            found = channels.emplace(topic, Numbered{channel, 0}).first;
        }
        writer.Write(recording::Message{found->second.channel, found->second.next++, time, value});
    }
    held.clear();
}

bool TopicChannels::IsFull() const noexcept {
    return channels.size() >= recording::RecordingWriter::MostChannels;
}

} // namespace recordings
