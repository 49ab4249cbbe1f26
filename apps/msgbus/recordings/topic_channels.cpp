#include "recordings/topic_channels.h"

#include "look/account_source.h"

namespace recordings {

namespace {

using Descriptions = std::map<std::string, std::string, std::less<>>;

/// Returns: the descriptions of the topics on the bus, by topic.
Descriptions DescriptionsOnTheBus() {
    Descriptions descriptions;
    try {
        const auto snapshot = look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency);
        for (const auto& description : snapshot.descriptions) {
            descriptions[description.topic] = description.text;
        }
    } catch (const std::exception&) { // Justified: a server without an account describes nothing.
    }
    return descriptions;
}

/// A double travels by its bits, and is shown as what it is.
bool IsDouble(const std::string& description) {
    return description == "float64" || description.starts_with("float64;");
}

} // namespace

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
            const auto known = descriptions.find(topic);
            const std::string description = known == descriptions.end() ? "" : known->second;
            const auto channel = writer.Add({topic, description, IsDouble(description)});
            found = channels.emplace(topic, Numbered{channel, 0}).first;
        }
        writer.Write(recording::Message{found->second.channel, found->second.next++, time, value});
    }
    held.clear();
}

} // namespace recordings
