#include "stream/live_topics.h"

#include "recording/value_message.h"

#include <utility>

namespace stream {

namespace {

/// Subscribers receive no more of a topic.
constexpr std::size_t LongestTopic = 1022;

} // namespace

LiveTopics::LiveTopics(const std::vector<std::string>& topics, Deliver deliver) : deliverValue(std::move(deliver)) {
    for (const auto& topic : topics) {
        std::string bytes = topic.substr(0, LongestTopic);
        if (indexes.emplace(bytes, states.size()).second) {
            channels.push_back({nextChannel++, recording::ChannelName(bytes), false});
            states.push_back({std::move(bytes), false, {}, {}});
        }
    }
}

bool LiveTopics::Take(const std::string& topic, std::uint64_t timeNs, std::int64_t value, Clock::time_point now) {
    const auto found = indexes.find(topic);
    if (found == indexes.end()) {
        return false; // it was not subscribed to
    }
    const LiveValue live{found->second, timeNs, value};
    Topic& state = states[live.topic];
    if (state.isSettled) {
        deliverValue(live);
        return false;
    }
    if (state.held.empty()) {
        state.since = now;
    }
    state.held.push_back(live);
    return ++heldCount >= MostHeld || state.held.size() == 1;
}

std::vector<LiveTopics::Change> LiveTopics::Describe(const recordings::Descriptions& descriptions) {
    std::vector<Change> changes;
    for (std::size_t index = 0; index < states.size(); ++index) {
        const auto known = descriptions.find(states[index].bytes);
        if (known == descriptions.end()) {
            continue; // also of a publisher that has left: its topic stays what it was
        }
        states[index].isSettled = true;
        const bool isFloat = recordings::IsDouble(known->second);
        if (isFloat != channels[index].isFloat) {
            changes.push_back({index, channels[index].id});
            channels[index].id = nextChannel++;
            channels[index].isFloat = isFloat;
        }
    }
    return changes;
}

bool LiveTopics::Settle(Clock::time_point now) {
    const bool areTooMany = heldCount >= MostHeld;
    for (auto& state : states) {
        if (!state.held.empty() && (areTooMany || state.isSettled || now - state.since >= Patience)) {
            Release(state);
        }
    }
    return heldCount != 0;
}

std::optional<std::size_t> LiveTopics::TopicOf(std::uint32_t channel) const {
    for (std::size_t index = 0; index < channels.size(); ++index) {
        if (channels[index].id == channel) {
            return index;
        }
    }
    return std::nullopt;
}

void LiveTopics::Release(Topic& topic) {
    topic.isSettled = true;
    const auto held = std::exchange(topic.held, {});
    heldCount -= held.size();
    for (const auto& live : held) {
        deliverValue(live);
    }
}

} // namespace stream
