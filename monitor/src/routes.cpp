#include "routes.h"

#include "common/escape.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace msgbus_monitor {

namespace {

constexpr std::string_view TopicPrefix = "/v1/topics/";
constexpr std::string_view DescriptionSuffix = "/description";
constexpr std::string_view KnownPaths =
    "/v1/state, /v1/topics, /v1/topics/NAME, /v1/topics/NAME/description, /v1/subscribers, /v1/events, /v1/trace, "
    "/metrics, /healthz";

constexpr std::array<std::pair<std::string_view, Resource>, 7> FixedPaths{{{"/v1/state", Resource::State},
                                                                           {"/v1/topics", Resource::Topics},
                                                                           {"/v1/subscribers", Resource::Subscribers},
                                                                           {"/v1/events", Resource::Events},
                                                                           {"/v1/trace", Resource::Trace},
                                                                           {"/metrics", Resource::Metrics},
                                                                           {"/healthz", Resource::Health}}};

constexpr unsigned BadRequest = 400;
constexpr unsigned NotFound = 404;
constexpr unsigned MethodNotAllowed = 405;

/// Removes the scheme and the host, which a request through a proxy has.
std::string_view WithoutHost(std::string_view target) {
    constexpr std::string_view scheme = "http://";
    if (!target.starts_with(scheme)) {
        return target;
    }
    const auto path = target.find('/', scheme.size());
    return path == std::string_view::npos ? std::string_view("/") : target.substr(path);
}

/// Returns: the value of the last parameter with this name, percent-encoded; nothing when there is none.
std::optional<std::string_view> ParameterOf(std::string_view query, std::string_view name) {
    std::optional<std::string_view> value;
    while (!query.empty()) {
        const auto length = query.find('&');
        const std::string_view parameter = query.substr(0, length);
        query.remove_prefix(length == std::string_view::npos ? query.size() : length + 1);
        if (parameter.starts_with(name) && parameter.substr(name.size()).starts_with('=')) {
            value = parameter.substr(name.size() + 1);
        }
    }
    return value;
}

std::variant<Route, Refusal> EventsRoute(std::string_view query) {
    Route route{Resource::Events};
    if (const auto after = ParameterOf(query, "after")) {
        route.after = ReadNumber(*after);
        if (!route.after) {
            return Refusal{BadRequest, "The parameter 'after' must be the number of an event."};
        }
    }
    return route;
}

std::variant<Route, Refusal> TraceRoute(std::string_view method, std::string_view query) {
    Route route{Resource::Trace};
    if (method == "DELETE") {
        route.change = Route::Change::Stop;
        return route;
    }
    if (method != "PUT") {
        return Refusal{MethodNotAllowed, "A trace is started with PUT, read with GET and stopped with DELETE.",
                       "GET, HEAD, PUT, DELETE"};
    }
    auto topic = DecodePercents(ParameterOf(query, "topic").value_or(""));
    const auto values = ReadNumber(ParameterOf(query, "values").value_or(""));
    if (!topic || topic->empty() || !values || *values == 0) {
        return Refusal{BadRequest, "A trace needs the parameters 'topic', percent-encoded, and 'values', a number."};
    }
    route.change = Route::Change::Start;
    route.topic = std::move(*topic);
    route.values = *values;
    return route;
}

std::variant<Route, Refusal> TopicRoute(Resource resource, std::string_view encoded) {
    auto topic = DecodePercents(encoded);
    if (!topic) {
        return Refusal{BadRequest, "The name of the topic is not percent-encoded: behind '%' belong two digits."};
    }
    return Route{resource, std::move(*topic)};
}

bool IsRead(std::string_view method) {
    return method == "GET" || method == "HEAD";
}

std::variant<Route, Refusal> RouteBelowTopics(std::string_view method, std::string_view name) {
    if (IsRead(method)) {
        return TopicRoute(Resource::Topic, name);
    }
    const bool isDescription = name.ends_with(DescriptionSuffix);
    if (isDescription && method == "PUT") {
        return TopicRoute(Resource::Description, name.substr(0, name.size() - DescriptionSuffix.size()));
    }
    return Refusal{MethodNotAllowed, "Topics can be read, and their descriptions written with PUT.",
                   isDescription ? "GET, HEAD, PUT" : "GET, HEAD"};
}

} // namespace

bool IsWrite(const Route& route) {
    return route.resource == Resource::Description || route.change != Route::Change::None;
}

std::optional<std::uint64_t> ReadNumber(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<std::string> DecodePercents(std::string_view text) {
    std::string bytes;
    while (!text.empty()) {
        if (text.front() != '%') {
            bytes += text.front();
            text.remove_prefix(1);
            continue;
        }
        constexpr std::size_t encodedSize = 3;
        constexpr int base = 16;
        unsigned byte = 0;
        const std::string_view digits = text.substr(1, encodedSize - 1);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, base);
        if (error != std::errc() || end != digits.data() + encodedSize - 1) {
            return std::nullopt;
        }
        bytes += static_cast<char>(byte);
        text.remove_prefix(encodedSize);
    }
    return bytes;
}

std::variant<Route, Refusal> FindRoute(std::string_view method, std::string_view target) {
    target = WithoutHost(target);
    const auto question = target.find('?');
    const std::string_view path = target.substr(0, question);
    const std::string_view query = question == std::string_view::npos ? "" : target.substr(question + 1);
    if (path.starts_with(TopicPrefix)) {
        return RouteBelowTopics(method, path.substr(TopicPrefix.size()));
    }
    const auto* const found =
        std::find_if(FixedPaths.begin(), FixedPaths.end(), [&](const auto& fixed) { return fixed.first == path; });
    if (found == FixedPaths.end()) {
        constexpr std::size_t longestShown = 100;
        return Refusal{NotFound, "There is no '" + common::Escaped(path.substr(0, longestShown)) +
                                     "' here. The paths are: " + std::string(KnownPaths) + "."};
    }
    if (!IsRead(method) && found->second == Resource::Trace) {
        return TraceRoute(method, query);
    }
    if (!IsRead(method)) {
        return Refusal{MethodNotAllowed, std::string(path) + " can only be read.", "GET, HEAD"};
    }
    return found->second == Resource::Events ? EventsRoute(query) : Route{found->second};
}

} // namespace msgbus_monitor
