#pragma once

#include "instruments/snapshot.h"

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace top {

/// By what topics and subscribers are ordered: names ascend, everything else descends.
enum class SortKey { Name, Rate, Queued, Age, Dropped };

/// Returns: the key of a letter of the keyboard: n, r, l (for lag), a, d.
std::optional<SortKey> SortKeyOf(char letter) noexcept;

/// Returns: the key of a name of the command line: name, rate, lag, age, drops.
std::optional<SortKey> SortKeyOf(std::string_view name) noexcept;
std::string_view NameOf(SortKey key) noexcept;

/// What a line about a topic shows.
struct TopicRow {
    std::string_view topic;
    double rate = 0; ///< over the last second
    std::size_t subscribers = 0;
    std::uint64_t queued = 0; ///< in all of its subscribers
    std::uint64_t dropped = 0;
    instruments::Nanoseconds lastAt = 0; ///< of its last value; 0: none
};

/// Returns: all topics in this order; those that are equal in it by name. Lifetime: the snapshot's.
std::vector<TopicRow> TopicRows(const instruments::Snapshot& snapshot, SortKey key, bool isReversed);
/// Returns: all subscribers in this order; those that are equal in it by id. Lifetime: the snapshot's.
std::vector<const instruments::SubscriberAccount*> SubscriberRows(const instruments::Snapshot& snapshot, SortKey key,
                                                                  bool isReversed);

} // namespace top
