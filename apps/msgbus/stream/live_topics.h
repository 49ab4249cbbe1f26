#pragma once

#include "recordings/descriptions.h"
#include "stream/wire/protocol.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace stream {

using Clock = std::chrono::steady_clock;

/// A value that goes to clients.
struct LiveValue {
    std::size_t topic = 0; ///< its index
    std::uint64_t timeNs = 0;
    std::int64_t value = 0;
};

/// The topics that are streamed, the channel of each, and the type of its values. A publisher describes its topic a
/// moment after it has registered, so the first values of a topic that is not described yet are held back: a double
/// that is shown as an integer would spoil a plot. Threads: one at a time.
class LiveTopics final {
public:
    using Deliver = std::function<void(const LiveValue&)>;
    /// How long values wait for a description.
    static constexpr std::chrono::milliseconds Patience{300};
    /// How many wait at most, of all topics: half of what a client can have waiting, which gets them at once.
    static constexpr std::size_t MostHeld = 16384;

    /// `topics`: their bytes. `deliver`: called with each value that is due, inside the calls below.
    LiveTopics(const std::vector<std::string>& topics, Deliver deliver);

    /// Takes a value from the bus. Returns: whether Describe and Settle are due, because it is held back: as the
    /// first one of its topic, or the last one that may be.
    bool Take(const std::string& topic, std::uint64_t timeNs, std::int64_t value, Clock::time_point now);

    /// Looks at what is known now, and delivers what has waited long enough. A topic that turns out to have values of
    /// another type gets a new channel.
    /// Returns: the indexes of topics with a new channel; what was held back of these is delivered behind
    /// DeliverHeld.
    struct Change {
        std::size_t topic;
        std::uint32_t oldChannel;
    };
    std::vector<Change> Describe(const recordings::Descriptions& descriptions);
    /// Delivers the values that are held back no longer. Returns: whether there are others.
    bool Settle(Clock::time_point now);

    /// Returns: the channels, by the index of their topic.
    const std::vector<Channel>& Channels() const noexcept { return channels; }
    /// Returns: the index of the topic that has this channel.
    std::optional<std::size_t> TopicOf(std::uint32_t channel) const;

private:
    struct Topic {
        std::string bytes;
        bool isSettled = false;    ///< its type is known, or was waited for
        Clock::time_point since{}; ///< of the first value that is held back
        std::vector<LiveValue> held;
    };

    void Release(Topic& topic);

    Deliver deliverValue;
    std::vector<Topic> states; ///< with the index of `channels`
    std::vector<Channel> channels;
    std::unordered_map<std::string, std::size_t> indexes; ///< by the bytes that arrive with values
    std::uint32_t nextChannel = 1;
    std::size_t heldCount = 0; ///< of all topics
};

} // namespace stream
