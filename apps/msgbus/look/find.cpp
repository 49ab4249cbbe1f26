#include "find.h"

#include "common/escape.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

namespace look {

namespace {

/// Returns: 0 when `word` is no id.
std::int64_t IdIn(std::string_view word) {
    std::int64_t id = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), id);
    return error == std::errc() && end == word.data() + word.size() ? id : 0;
}

} // namespace

std::optional<instruments::TopicView> FindTopic(const instruments::Snapshot& snapshot, std::string_view word) {
    if (auto view = instruments::TopicOf(snapshot, word)) {
        return view;
    }
    auto topics = instruments::TopicsOf(snapshot);
    const auto found = std::find_if(topics.begin(), topics.end(),
                                    [&](const auto& view) { return common::Escaped(view.topic) == word; });
    return found == topics.end() ? std::nullopt : std::optional(std::move(*found));
}

Found Find(const instruments::Snapshot& snapshot, std::string_view word) {
    Found found;
    const std::int64_t id = IdIn(word);
    found.topic = FindTopic(snapshot, word);
    for (const auto& publisher : snapshot.publishers) {
        if (!found.topic && id != 0 && publisher.id == id && publisher.leftAt == 0) {
            found.topic = FindTopic(snapshot, publisher.topic);
        }
    }
    const auto& subscribers = snapshot.subscribers;
    const bool isName = std::any_of(subscribers.begin(), subscribers.end(),
                                    [&](const auto& subscriber) { return subscriber.name == word; });
    for (std::size_t i = 0; i < subscribers.size(); ++i) {
        const bool hasName = isName ? subscribers[i].name == word : common::Escaped(subscribers[i].name) == word;
        if (hasName || (id != 0 && subscribers[i].id == id)) {
            found.subscribers.push_back(i);
        }
    }
    return found;
}

} // namespace look
