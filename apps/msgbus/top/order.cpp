#include "order.h"

#include <algorithm>
#include <array>
#include <limits>

namespace top {

namespace {

using instruments::Nanoseconds;
using instruments::SubscriberAccount;

struct NamedKey {
    SortKey key;
    std::string_view name;
    char letter;
};
constexpr std::array<NamedKey, 5> Keys{{{SortKey::Name, "name", 'n'},
                                        {SortKey::Rate, "rate", 'r'},
                                        {SortKey::Queued, "lag", 'l'},
                                        {SortKey::Age, "age", 'a'},
                                        {SortKey::Dropped, "drops", 'd'}}};

/// A time as what is compared: the one that is the farthest back comes first, and never comes last.
Nanoseconds Back(Nanoseconds at) {
    return at == 0 ? std::numeric_limits<Nanoseconds>::min() : -at;
}

template <typename Row, typename Less>
void Sort(std::vector<Row>& rows, bool isReversed, const Less& less) {
    if (isReversed) {
        std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) { return less(b, a); });
    } else {
        std::stable_sort(rows.begin(), rows.end(), less);
    }
}

} // namespace

std::optional<SortKey> SortKeyOf(char letter) noexcept {
    const auto* const found =
        std::find_if(Keys.begin(), Keys.end(), [=](const auto& key) { return key.letter == letter; });
    return found == Keys.end() ? std::nullopt : std::optional(found->key);
}

std::optional<SortKey> SortKeyOf(std::string_view name) noexcept {
    const auto* const found = std::find_if(Keys.begin(), Keys.end(), [=](const auto& key) { return key.name == name; });
    return found == Keys.end() ? std::nullopt : std::optional(found->key);
}

std::string_view NameOf(SortKey key) noexcept {
    return Keys[static_cast<std::size_t>(key)].name;
}

std::vector<TopicRow> TopicRows(const instruments::Snapshot& snapshot, SortKey key, bool isReversed) {
    std::vector<TopicRow> rows;
    for (const auto& view : instruments::TopicsOf(snapshot)) {
        TopicRow row{.topic = view.topic, .subscribers = view.subscribers.size()};
        if (view.publisher) {
            row.rate = snapshot.publishers[*view.publisher].rates.last1;
            row.lastAt = snapshot.publishers[*view.publisher].lastAt;
        }
        for (const std::size_t i : view.subscribers) {
            row.queued += snapshot.subscribers[i].flows.queued;
            row.dropped += snapshot.subscribers[i].flows.dropped.Total();
        }
        rows.push_back(row);
    }
    Sort(rows, isReversed, [key](const TopicRow& a, const TopicRow& b) {
        switch (key) {
        case SortKey::Rate:
            return a.rate > b.rate;
        case SortKey::Queued:
            return a.queued > b.queued;
        case SortKey::Age:
            return Back(a.lastAt) > Back(b.lastAt);
        case SortKey::Dropped:
            return a.dropped > b.dropped;
        case SortKey::Name:
            break;
        }
        return a.topic < b.topic;
    });
    return rows;
}

std::vector<const SubscriberAccount*> SubscriberRows(const instruments::Snapshot& snapshot, SortKey key,
                                                     bool isReversed) {
    std::vector<const SubscriberAccount*> rows;
    for (const auto& subscriber : snapshot.subscribers) {
        rows.push_back(&subscriber);
    }
    Sort(rows, isReversed, [key](const SubscriberAccount* a, const SubscriberAccount* b) {
        switch (key) {
        case SortKey::Rate:
            return a->rates.last1 > b->rates.last1;
        case SortKey::Queued:
            return a->flows.queued > b->flows.queued;
        case SortKey::Age:
            return Back(a->oldestSince) > Back(b->oldestSince);
        case SortKey::Dropped:
            return a->flows.dropped.Total() > b->flows.dropped.Total();
        case SortKey::Name:
            break;
        }
        return a->name < b->name;
    });
    return rows;
}

} // namespace top
