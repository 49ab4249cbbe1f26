#pragma once

#include "common/reserved_topics.h"
#include "last_values.h"
#include "message_bus.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace msgbus_server {

/// What subscribers have asked to learn about topics (common/reserved_topics.h), and what a new subscriber gets first.
/// Threads: one at a time.
class TopicNotices final {
public:
    /// Publishers that have left and whose last value is remembered, of topics that a pattern retains and of others.
    static constexpr std::size_t MostRetained = 4096;
    static constexpr std::size_t MostRemembered = 256;

    /// Puts a value into the queue of one subscriber, behind all others.
    using PutAction = std::function<void(long subscriberId, const std::shared_ptr<message_bus::Message>& value)>;

    /// What one subscriber asks for.
    struct Wishes {
        std::set<std::string> topics;        ///< whose values it gets
        std::vector<std::string> asked;      ///< reserved topics whose values it gets
        std::set<std::string> startWithLast; ///< topics that start with their last value
        bool IsForNoticesOnly() const noexcept { return topics.empty() && !asked.empty(); }
    };

    /// `retainPatterns`: as in fnmatch(3), of topics of which every subscriber gets the last value first.
    TopicNotices(PutAction action, std::vector<std::string> retainPatterns);

    /// Returns: what a subscriber asks for that names `topics`; nothing when none of them is reserved.
    static std::optional<Wishes> Read(const std::set<std::string>& topics);

    /// The subscriber learns of every change from now on.
    void Add(long subscriberId, const Wishes& wishes);
    void Remove(long subscriberId, const Wishes& wishes);

    /// Returns: whether a subscriber wants to learn of it.
    bool IsAsked(common::ReservedTopic kind, std::string_view topic) const;

    /// A change: each subscriber that wants to learn of it does.
    void Report(common::ReservedTopic kind, std::string_view topic, long value) const;
    /// One value for one subscriber.
    void Put(long subscriberId, std::string topic, long value) const;

    /// Returns: whether each new subscriber of the topic gets its last value first.
    bool Retains(const std::string& topic) const;
    /// The publisher of the topic has left, and this was its last value.
    void Keep(const std::string& topic, long lastValue);
    std::optional<long> LastValueOf(const std::string& topic) const;

private:
    const PutAction put;
    const std::vector<std::string> patterns;
    std::unordered_map<std::string, std::set<long>> subscribers; ///< by reserved topic
    LastValues retained{MostRetained};
    LastValues remembered{MostRemembered};
};

} // namespace msgbus_server
