#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Topics through which a subscriber asks the server about other topics: the mark, a letter that says what it asks for,
/// and the topic that it asks about. The answers are values of the reserved topic in the subscriber's queue, in order
/// with the values of other topics; the first one says how it is when the subscriber is registered. A server that does
/// not know reserved topics takes them for topics without a publisher.
namespace common {

inline constexpr char ReservedMark = '\x1F';

enum class ReservedTopic : char {
    Presence = 'P',        ///< of the topic's publisher, see PresenceValue
    SubscriberCount = 'S', ///< how many subscribers the topic has
    LastValue = 'L',       ///< its last value comes first, as a value of the topic itself; else this brings nothing
};

/// The bytes that such a topic has before the one it is about.
inline constexpr std::size_t ReservedPrefix = 2;

struct Reserved {
    ReservedTopic kind;
    std::string_view topic; ///< which it is about
};

constexpr bool IsReserved(std::string_view topic) noexcept {
    return !topic.empty() && topic.front() == ReservedMark;
}

inline std::string MakeReserved(ReservedTopic kind, std::string_view topic) {
    std::string reserved{ReservedMark, static_cast<char>(kind)};
    return reserved.append(topic);
}

/// Returns: what `topic` asks for; nothing when it is none of these. Lifetime: that of `topic`.
constexpr std::optional<Reserved> ParseReserved(std::string_view topic) noexcept {
    if (!IsReserved(topic) || topic.size() <= ReservedPrefix) {
        return std::nullopt;
    }
    const auto kind = static_cast<ReservedTopic>(topic[1]);
    if (kind != ReservedTopic::Presence && kind != ReservedTopic::SubscriberCount && kind != ReservedTopic::LastValue) {
        return std::nullopt;
    }
    return Reserved{kind, topic.substr(ReservedPrefix)};
}

enum class Presence : std::uint8_t {
    None = 0, ///< there is no publisher
    Came = 1, ///< is registered, from now on or since before
    Left = 2, ///< was unregistered by its process
    Died = 3, ///< was unregistered because its process is gone
};

/// The presence of a publisher, and which one it is, in one value of the bus.
struct PresenceValue {
    Presence presence = Presence::None;
    std::int64_t id = 0; ///< of the publisher; 0 for None

    constexpr std::int64_t Encode() const noexcept { return id * Presences + static_cast<std::int64_t>(presence); }
    static constexpr PresenceValue Decode(std::int64_t value) noexcept {
        const std::int64_t code = value & (Presences - 1);
        return {static_cast<Presence>(code), (value - code) / Presences};
    }

private:
    static constexpr std::int64_t Presences = 4;
};

} // namespace common
