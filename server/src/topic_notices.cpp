#include "topic_notices.h"

#include <fnmatch.h>

#include <algorithm>
#include <utility>

namespace msgbus_server {

using common::ReservedTopic;

TopicNotices::TopicNotices(PutAction action, std::vector<std::string> retainPatterns)
    : put(std::move(action)), patterns(std::move(retainPatterns)) {}

std::optional<TopicNotices::Wishes> TopicNotices::Read(const std::set<std::string>& topics) {
    // The reserved ones stand side by side.
    const auto first = topics.lower_bound(std::string(1, common::ReservedMark));
    if (first == topics.end() || !common::IsReserved(*first)) {
        return std::nullopt;
    }
    Wishes wishes;
    for (const auto& topic : topics) {
        const auto reserved = common::ParseReserved(topic);
        if (!reserved) {
            wishes.topics.insert(topic);
        } else if (reserved->kind == ReservedTopic::LastValue) {
            wishes.startWithLast.emplace(reserved->topic);
            wishes.topics.emplace(reserved->topic);
        } else {
            wishes.asked.push_back(topic);
        }
    }
    return wishes;
}

void TopicNotices::Add(long subscriberId, const Wishes& wishes) {
    for (const auto& asked : wishes.asked) {
        subscribers[asked].insert(subscriberId);
    }
}

void TopicNotices::Remove(long subscriberId, const Wishes& wishes) {
    for (const auto& asked : wishes.asked) {
        const auto found = subscribers.find(asked);
        if (found != subscribers.end() && found->second.erase(subscriberId) != 0 && found->second.empty()) {
            subscribers.erase(found);
        }
    }
}

bool TopicNotices::IsAsked(ReservedTopic kind, std::string_view topic) const {
    return !subscribers.empty() && subscribers.contains(common::MakeReserved(kind, topic));
}

void TopicNotices::Report(ReservedTopic kind, std::string_view topic, long value) const {
    const auto found = subscribers.find(common::MakeReserved(kind, topic));
    if (found == subscribers.end()) {
        return;
    }
    const auto message = std::make_shared<message_bus::Message>(found->first, value);
    for (const long id : found->second) {
        put(id, message);
    }
}

void TopicNotices::Put(long subscriberId, std::string topic, long value) const {
    put(subscriberId, std::make_shared<message_bus::Message>(std::move(topic), value));
}

bool TopicNotices::Retains(const std::string& topic) const {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&topic](const auto& pattern) { return ::fnmatch(pattern.c_str(), topic.c_str(), 0) == 0; });
}

void TopicNotices::Keep(const std::string& topic, long lastValue) {
    (Retains(topic) ? retained : remembered).Keep(topic, lastValue);
}

std::optional<long> TopicNotices::LastValueOf(const std::string& topic) const {
    return (Retains(topic) ? retained : remembered).Find(topic);
}

} // namespace msgbus_server
