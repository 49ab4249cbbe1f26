#pragma once

#include "instruments/snapshot.h"

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace look {

/// What a word on the command line names. Lifetime: the snapshot's.
struct Found {
    std::optional<instruments::TopicView> topic; ///< the topic of that name, or the one of a publisher with that id
    std::vector<std::size_t> subscribers;        ///< indices of those with that name or id
};

/// Finds a topic by its bytes, or else by what is printed for them (common/escape.h).
std::optional<instruments::TopicView> FindTopic(const instruments::Snapshot& snapshot, std::string_view word);

/// Finds a topic and subscribers by name, as above, or by id.
Found Find(const instruments::Snapshot& snapshot, std::string_view word);

} // namespace look
