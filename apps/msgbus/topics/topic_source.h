#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace topics {

/// A topic that has come.
struct NewTopic {
    std::string name;
    std::optional<std::int64_t> received{}; ///< its last value, when that was received before it was given up
};

/// Where the topics that a subscription is to have come from. Threads: one at a time.
class ITopicSource {
public:
    virtual ~ITopicSource() = default;

    /// Returns: the topics that have come since the last call. Does not block.
    virtual std::vector<NewTopic> Look() = 0;

    /// Returns: whether, as of the last Look, the topics have no publisher, and everything that they had for this
    /// subscriber was taken.
    virtual bool IsVacant(std::int64_t subscriber, const std::vector<std::string>& topics) const = 0;

    /// The topics are not subscribed to any more: Look returns them when they have a publisher again.
    virtual void Forget(const std::vector<std::string>& topics) = 0;

    /// Returns: why topics that come now are not noticed, as a sentence; empty when they are.
    virtual std::string Blindness() const = 0;
};

} // namespace topics
