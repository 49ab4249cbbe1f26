#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace msgbus_monitor {

enum class Resource { State, Topics, Topic, Subscribers, Metrics, Health, Events, Description, Trace };

/// What a request asks for.
struct Route {
    Resource resource{};
    std::string topic{};                              ///< of Topic and Description: its raw bytes
    std::optional<std::uint64_t> after{};             ///< of Events: the parameter "after"
    enum class Change { None, Start, Stop } change{}; ///< of Trace
    std::uint64_t values{};                           ///< of Trace, to start: how many
};

/// Returns: whether the request changes something in the server.
bool IsWrite(const Route& route);

/// A request that is not answered with what it asks for.
struct Refusal {
    unsigned status = 0;
    std::string sentence;
    std::string allowed{}; ///< with status 405: the methods
};

/// Returns: what the request line means. `target`: its path and query, with or without a scheme and host.
std::variant<Route, Refusal> FindRoute(std::string_view method, std::string_view target);

/// Returns: the number of an event; nothing when the text is not exactly one.
std::optional<std::uint64_t> ReadNumber(std::string_view text);

/// Returns: the bytes that a percent-encoded text stands for; nothing when it is not valid.
std::optional<std::string> DecodePercents(std::string_view text);

} // namespace msgbus_monitor
