#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace message_bus {
struct Subscriber;
}

namespace msgbus_server {

struct Limits;

/// What is done about a subscriber that leaves too many values unread.
enum class SlowSubscriber {
    Cut,        ///< it is unregistered, its values are lost, and its waits get code 9
    DropOldest, ///< as many of its oldest values are lost as are too many
    DropNewest, ///< further values are lost until it has taken some
};

/// How many values one subscriber may leave unread, and what happens then.
struct QueueLimit {
    static constexpr std::size_t None = std::numeric_limits<std::size_t>::max();

    std::size_t values = None;
    SlowSubscriber policy = SlowSubscriber::Cut;
    std::size_t bytesPerValue = 0; ///< an upper bound of what one takes
};

/// An exception for some subscribers.
struct QueueRule {
    std::string pattern; ///< of their names, as in fnmatch(3)
    SlowSubscriber policy = SlowSubscriber::Cut;
    std::optional<std::size_t> values; ///< none: as for all

    /// Reads "PATTERN=POLICY" or "PATTERN=POLICY:VALUES". Returns: nothing when it is neither.
    static std::optional<QueueRule> Parse(std::string_view text);
};

/// Returns: the limit of `subscriber`: that of the last rule that matches its name, else that for all.
QueueLimit QueueLimitOf(const message_bus::Subscriber& subscriber, const Limits& limits,
                        const std::vector<QueueRule>& rules);

} // namespace msgbus_server
