#include "recordings/ring.h"

#include <utility>

namespace recordings {

std::uint64_t Ring::Bytes() const noexcept {
    return values.size() * BytesPerValue + nameBytes;
}

std::uint32_t Ring::NumberOf(const std::string& topic) {
    const auto found = numbers.find(topic);
    if (found != numbers.end()) {
        return found->second;
    }
    std::uint32_t number = 0;
    if (unused.empty()) {
        number = static_cast<std::uint32_t>(topics.size());
        topics.push_back({topic});
    } else {
        number = unused.back();
        unused.pop_back();
        topics[number].name = topic;
    }
    numbers.emplace(topic, number);
    nameBytes += topic.size() + BytesPerTopic;
    return number;
}

void Ring::DropFirst() {
    const std::uint32_t number = values.front().topic;
    values.pop_front();
    ++dropped;
    Topic& topic = topics[number];
    if (--topic.values == 0) { // the topics that come may be others
        nameBytes -= topic.name.size() + BytesPerTopic;
        numbers.erase(topic.name);
        topic = {};
        unused.push_back(number);
    }
}

void Ring::Add(const std::string& topic, recording::Time time, std::int64_t value, Clock::time_point now) {
    if (!values.empty() && now - values.front().received > longest) {
        DropOld(now);
    }
    const std::uint32_t number = NumberOf(topic);
    values.push_back({now, time, value, number});
    ++topics[number].values;
    while (values.size() > 1 && Bytes() > mostBytes) {
        droppedForRoom = values.front().received;
        DropFirst();
    }
}

void Ring::Add(recording::Note note, Clock::time_point now) {
    notes.push_back({now, dropped + values.size(), std::move(note)});
    if (notes.size() > MostNotes) {
        notes.pop_front();
    }
}

void Ring::DropOld(Clock::time_point now) {
    while (!values.empty() && now - values.front().received > longest) {
        DropFirst();
    }
    while (!notes.empty() && now - notes.front().received > longest) {
        notes.pop_front();
    }
}

bool Ring::LacksRoom(Clock::time_point now) const noexcept {
    return droppedForRoom && now - *droppedForRoom <= longest;
}

} // namespace recordings
