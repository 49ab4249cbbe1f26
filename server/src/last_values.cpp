#include "last_values.h"

namespace msgbus_server {

void LastValues::Keep(const std::string& topic, long value) {
    if (const auto found = byTopic.find(topic); found != byTopic.end()) {
        found->second->second = value;
        entries.splice(entries.end(), entries, found->second);
        return;
    }
    entries.emplace_back(topic, value);
    byTopic.emplace(entries.back().first, std::prev(entries.end()));
    if (entries.size() > most) {
        byTopic.erase(entries.front().first);
        entries.pop_front();
    }
}

std::optional<long> LastValues::Find(std::string_view topic) const {
    const auto found = byTopic.find(topic);
    return found == byTopic.end() ? std::nullopt : std::optional(found->second->second);
}

} // namespace msgbus_server
