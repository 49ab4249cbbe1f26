#pragma once

#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace msgbus_server {

/// The last values of topics whose publishers have left, as many as it takes; the one that was kept first goes first.
/// Threads: one at a time.
class LastValues final {
public:
    explicit LastValues(std::size_t mostTopics) : most(mostTopics) {}

    /// Keeps `value` in place of an earlier one.
    void Keep(const std::string& topic, long value);
    std::optional<long> Find(std::string_view topic) const;

private:
    using Entries = std::list<std::pair<std::string, long>>;

    const std::size_t most;
    Entries entries; ///< oldest first
    std::unordered_map<std::string_view, Entries::iterator> byTopic;
};

} // namespace msgbus_server
