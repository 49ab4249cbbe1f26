#include "queue_limit.h"

#include "message_bus.h"
#include "server_limits.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace msgbus_server {

namespace {

/// Of a value in a queue: its node and its message with the blocks that hold them, as allocated on 64 bits.
constexpr std::size_t BytesOfValue = 112;
constexpr std::size_t ShortTopic = 15; ///< lies within the message

constexpr std::array Policies{
    std::pair<std::string_view, SlowSubscriber>{"cut", SlowSubscriber::Cut},
    std::pair<std::string_view, SlowSubscriber>{"drop-oldest", SlowSubscriber::DropOldest},
    std::pair<std::string_view, SlowSubscriber>{"drop-newest", SlowSubscriber::DropNewest},
};

} // namespace

std::optional<QueueRule> QueueRule::Parse(std::string_view text) {
    const std::size_t equals = text.rfind('=');
    if (equals == 0 || equals == std::string_view::npos) {
        return std::nullopt;
    }
    QueueRule rule;
    rule.pattern = text.substr(0, equals);
    std::string_view policy = text.substr(equals + 1);
    if (const std::size_t colon = policy.find(':'); colon != std::string_view::npos) {
        const std::string_view number = policy.substr(colon + 1);
        std::size_t values = 0;
        const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), values);
        if (error != std::errc{} || end != number.data() + number.size() || values == 0) {
            return std::nullopt;
        }
        rule.values = values;
        policy = policy.substr(0, colon);
    }
    const auto found =
        std::find_if(Policies.begin(), Policies.end(), [&](const auto& named) { return named.first == policy; });
    if (found == Policies.end()) {
        return std::nullopt;
    }
    rule.policy = found->second;
    return rule;
}

QueueLimit QueueLimitOf(const message_bus::Subscriber& subscriber, const Limits& limits,
                        const std::vector<QueueRule>& rules) {
    std::size_t longest = 0;
    for (const auto& topic : subscriber.topics) {
        longest = std::max(longest, topic.size());
    }
    QueueLimit limit;
    limit.bytesPerValue = BytesOfValue + (longest > ShortTopic ? longest : 0);
    limit.values = limits.queuedValuesPerSubscriber;
    for (const auto& rule : rules) {
        if (::fnmatch(rule.pattern.c_str(), subscriber.name.c_str(), 0) == 0) {
            limit.policy = rule.policy;
            limit.values = rule.values.value_or(limits.queuedValuesPerSubscriber);
        }
    }
    limit.values = std::clamp<std::size_t>(limits.queuedBytesPerSubscriber / limit.bytesPerValue, 1, limit.values);
    return limit;
}

} // namespace msgbus_server
