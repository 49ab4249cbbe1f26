#include "topics/new_topics.h"

#include "common/reserved_topics.h"

#include <utility>

namespace topics {

NewTopics::NewTopics(GlobSet globs, const std::vector<std::string>& named)
    : wanted(std::move(globs)), known(named.begin(), named.end()) {}

std::vector<NewTopic> NewTopics::Take(const instruments::Snapshot& snapshot) {
    std::vector<NewTopic> taken;
    for (const auto& view : instruments::TopicsOf(snapshot)) {
        if (common::IsReserved(view.topic) || known.contains(view.topic)) {
            continue;
        }
        NewTopic topic{std::string(view.topic)};
        if (!wanted.Matches(topic.name)) {
            continue;
        }
        if (const auto before = forgotten.find(view.topic); before != forgotten.end()) {
            if (!view.publisher) {
                continue;
            }
            const auto& publisher = snapshot.publishers[*view.publisher];
            if (publisher.leftAt != 0 && publisher.leftAt <= before->second.at) {
                continue; // as it was
            }
            if (publisher.lastAt <= before->second.at) {
                topic.received = before->second.lastValue;
            }
            forgotten.erase(before);
        }
        known.insert(topic.name);
        taken.push_back(std::move(topic));
    }
    return taken;
}

void NewTopics::Forget(const std::vector<std::string>& topics, const instruments::Snapshot& snapshot) {
    std::map<std::string_view, std::optional<std::int64_t>> listed; // with their last values
    for (const auto& view : instruments::TopicsOf(snapshot)) {
        listed.emplace(view.topic, view.publisher ? snapshot.publishers[*view.publisher].lastValue : std::nullopt);
    }
    // What the account has forgotten too is as new as any other topic.
    std::erase_if(forgotten, [&listed](const auto& topic) { return !listed.contains(topic.first); });
    for (const auto& topic : topics) {
        known.erase(topic);
        if (const auto found = listed.find(topic); found != listed.end()) {
            forgotten[topic] = {snapshot.readAt, found->second};
        }
    }
}

} // namespace topics
