#include "instruments/snapshot.h"

#include <algorithm>
#include <map>
#include <utility>

namespace instruments {

std::string_view NameOf(EventKind kind) noexcept {
    switch (kind) {
    case EventKind::PublisherRegistered:
        return "publisher-registered";
    case EventKind::SubscriberRegistered:
        return "subscriber-registered";
    case EventKind::PublisherGone:
        return "publisher-gone";
    case EventKind::SubscriberGone:
        return "subscriber-gone";
    case EventKind::PublisherDied:
        return "publisher-died";
    case EventKind::SubscriberDied:
        return "subscriber-died";
    case EventKind::SubscriberCut:
        return "subscriber-cut";
    case EventKind::Refused:
        return "refused";
    case EventKind::Serving:
        return "serving";
    case EventKind::Draining:
        return "draining";
    case EventKind::Stopping:
        return "stopping";
    }
    return "unknown"; // of a newer server
}

std::string_view NameOf(ServerState state) noexcept {
    switch (state) {
    case ServerState::Starting:
        return "starting";
    case ServerState::Serving:
        return "serving";
    case ServerState::Draining:
        return "draining";
    case ServerState::Stopping:
        return "stopping";
    case ServerState::Stopped:
        return "stopped";
    }
    return "unknown"; // of a newer server
}

std::optional<TopicView> TopicOf(const Snapshot& snapshot, std::string_view topic) {
    TopicView view;
    for (std::size_t i = 0; i < snapshot.publishers.size(); ++i) {
        const auto& publisher = snapshot.publishers[i];
        if (publisher.topic == topic && (!view.publisher || publisher.leftAt == 0)) {
            view.topic = publisher.topic;
            view.publisher = i;
        }
    }
    for (std::size_t i = 0; i < snapshot.subscribers.size(); ++i) {
        const auto& topics = snapshot.subscribers[i].topics;
        if (const auto found = std::find(topics.begin(), topics.end(), topic); found != topics.end()) {
            view.topic = *found;
            view.subscribers.push_back(i);
        }
    }
    if (!view.publisher && view.subscribers.empty()) {
        return std::nullopt;
    }
    for (const auto& [name, text] : snapshot.descriptions) {
        if (name == topic) {
            view.description = text;
        }
    }
    return view;
}

std::vector<TopicView> TopicsOf(const Snapshot& snapshot) {
    std::map<std::string_view, TopicView> byName;
    const auto of = [&byName](std::string_view topic) -> TopicView& {
        TopicView& view = byName[topic];
        view.topic = topic;
        return view;
    };
    for (std::size_t i = 0; i < snapshot.publishers.size(); ++i) {
        auto& publisher = of(snapshot.publishers[i].topic).publisher;
        if (!publisher || snapshot.publishers[i].leftAt == 0) {
            publisher = i;
        }
    }
    for (std::size_t i = 0; i < snapshot.subscribers.size(); ++i) {
        for (const auto& topic : snapshot.subscribers[i].topics) {
            of(topic).subscribers.push_back(i);
        }
    }
    for (const auto& [topic, text] : snapshot.descriptions) {
        if (const auto found = byName.find(topic); found != byName.end()) {
            found->second.description = text;
        }
    }
    std::vector<TopicView> topics;
    topics.reserve(byName.size());
    for (auto& [name, view] : byName) {
        topics.push_back(std::move(view));
    }
    return topics;
}

} // namespace instruments
