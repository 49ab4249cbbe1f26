#pragma once

#include "msgbus/options.h"
#include "msgbus/subscriber.h"

#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace msgbus {

/// How many subscribers a topic has, as the server reports it to a subscriber that is made for this.
/// Threads: one at a time.
class Audience final {
public:
    /// `options`: of the publisher.
    Audience(const std::string& watchedTopic, const Options& options);

    /// Takes what has arrived; the first time, and after a failure, from a new connection. Throws: as the constructor
    /// of Subscriber and its TryNext; PlatformError when the server reports nothing.
    void Update();

    /// Requires: an Update that has not thrown.
    std::size_t Count() const { return *count; }

    /// Returns: the next number to report: the first one, and each 0 or 1 that the number has become.
    std::optional<std::size_t> TakeChange();

private:
    void Connect();
    void Take(const Message& message);

    const std::string topic;
    const std::chrono::milliseconds patience;
    const Options subscriberOptions;
    std::optional<Subscriber> subscriber;
    std::optional<std::size_t> count;
    std::deque<std::size_t> changes; ///< to be reported
};

} // namespace msgbus
