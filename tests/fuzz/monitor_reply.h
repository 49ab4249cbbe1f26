#pragma once

// What a client of the monitor has got, and whether it is what it has to be.

#include "fuzzing.h"
#include "instruments/sample_snapshot.h"
#include "monitor_model.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace monitor_model {

using fuzzing::Require;

/// The answers in the order in which they came.
class Reply final {
public:
    explicit Reply(std::string_view bytes) : left(bytes) {}

    void RequireNothingMore() const { Require(left.empty(), "there is nothing behind the last answer"); }

    void RequireNext(const Expected& expected, const Setting& setting) {
        if (expected.isOptional && left.empty()) {
            return;
        }
        const bool isVersion11 = left.starts_with("HTTP/1.1");
        const auto status = Status();
        Require(expected.status != 0 ? status == expected.status : status == 400 || status == 413 || status == 431,
                "a request gets the status that it deserves");
        const auto headers = Headers();
        if (status == 100) {
            Require(headers.empty(), "an interim answer has no headers");
            return;
        }
        Require(headers.at("cache-control") == "no-store" && headers.at("x-content-type-options") == "nosniff",
                "answers are not kept, and not taken for something else");
        const auto connection = headers.find("connection");
        const auto keepsAlive = connection == headers.end() ? isVersion11 : connection->second == "keep-alive";
        Require(keepsAlive != expected.isLast, "an answer says whether another can follow");
        if (expected.isStream) {
            Require(headers.at("content-type") == expected.type, "a stream is one");
            RequireEvents(expected.after);
            return;
        }
        Require((status == 401) == headers.contains("www-authenticate") && (status == 405) == headers.contains("allow"),
                "what is missing is named");
        RequireBody(status, headers, expected, setting);
    }

private:
    using HeaderMap = std::map<std::string, std::string>;

    std::string_view Line() {
        const auto end = left.find("\r\n");
        Require(end != std::string_view::npos, "an answer is whole");
        const auto line = left.substr(0, end);
        left.remove_prefix(end + 2);
        return line;
    }

    unsigned Status() {
        const auto line = Line();
        Require(line.starts_with("HTTP/1.") && line.size() > 12 && line[8] == ' ', "an answer begins with its status");
        const auto number = msgbus_monitor::ReadNumber(line.substr(9, 3));
        Require(number.has_value(), "a status is a number");
        return static_cast<unsigned>(*number);
    }

    HeaderMap Headers() {
        HeaderMap headers;
        for (auto line = Line(); !line.empty(); line = Line()) {
            const auto colon = line.find(": ");
            Require(colon != std::string_view::npos, "a header has a name");
            std::string name(line.substr(0, colon));
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
            Require(headers.emplace(name, line.substr(colon + 2)).second, "a header occurs once");
        }
        return headers;
    }

    void RequireBody(unsigned status, const HeaderMap& headers, const Expected& expected, const Setting& setting) {
        const auto length = headers.find("content-length");
        Require((status == 204) == (length == headers.end()), "an answer says how long it is, unless it is none");
        if (status == 204 || !expected.hasBody) {
            return;
        }
        const auto size = msgbus_monitor::ReadNumber(length->second);
        Require(size && *size <= left.size(), "a body is as long as the answer says");
        const std::string body(left.substr(0, *size));
        left.remove_prefix(*size);
        const std::string& type = headers.at("content-type");
        Require(expected.type.empty() || type == expected.type, "a body is of the type that is promised");
        if (type == "application/json") {
            RequireJson(status, body);
        } else if (type.starts_with("text/plain")) {
            Require(body == (setting.isIll ? "it hangs\n" : "ok\n"), "the health is what it is");
        } else {
            Require(type.starts_with("application/openmetrics-text") && body.ends_with("# EOF\n"),
                    "metrics have an end");
        }
    }

    static void RequireJson(unsigned status, const std::string& body) {
        const auto json = nlohmann::json::parse(body, nullptr, false);
        Require(json.is_object() && body.ends_with("}\n"), "an answer is JSON, in a line");
        Require((status != 200) == (json.size() == 1 && json.contains("error") && json["error"].is_string()),
                "an error is a sentence");
    }

    void RequireEvents(std::optional<std::uint64_t> after) {
        Require(left.ends_with("\n\n"), "events are whole");
        const auto events = instruments::samples::OneOfEach().events;
        std::string all;
        std::uint64_t last = !after                           ? events.back().number
                             : *after <= events.back().number ? *after
                                                              : events.front().number - 1;
        for (const auto& event : events) {
            if (event.number > last) {
                all += event.number != last + 1 ? "lost;" : "";
                all += std::to_string(event.number) + ";";
                last = event.number;
            }
        }
        Require(EventsOf(left) == all, "a stream has the events behind its begin, and says what was lost");
        left = {};
    }

    static std::string EventsOf(std::string_view text) {
        std::string found;
        std::istringstream lines{std::string(text)};
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("id: ")) {
                found += line.substr(4) + ";";
            } else if (line == "event: lost") {
                found += "lost;";
            } else if (line.starts_with("data: ")) {
                Require(nlohmann::json::accept(line.substr(6)), "the data of an event is JSON");
            } else {
                Require(line.empty() || line == ": keep-alive" || line.starts_with("event: "), "a line is known");
            }
        }
        return found;
    }

    std::string_view left;
};

} // namespace monitor_model
