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
    const auto number = static_cast<std::uint32_t>(names.size());
    numbers.emplace(topic, number);
    names.push_back(topic);
    nameBytes += topic.size() + BytesPerTopic;
    return number;
}

void Ring::Add(const std::string& topic, recording::Time time, std::int64_t value, Clock::time_point now) {
    if (!values.empty() && now - values.front().received > longest) {
        DropOld(now);
    }
    values.push_back({now, time, value, NumberOf(topic)});
    while (values.size() > 1 && Bytes() > mostBytes) {
        droppedForRoom = values.front().received;
        ++dropped;
        values.pop_front();
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
        values.pop_front();
        ++dropped;
    }
    while (!notes.empty() && now - notes.front().received > longest) {
        notes.pop_front();
    }
    if (values.empty()) { // the topics that come may be others
        numbers.clear();
        names.clear();
        nameBytes = 0;
    }
}

bool Ring::LacksRoom(Clock::time_point now) const noexcept {
    return droppedForRoom && now - *droppedForRoom <= longest;
}

} // namespace recordings
