#include "arguments.h"
#include "common/escape.h"
#include "end_watch.h"
#include "msgbus/subscriber.h"

#include <nlohmann/json.hpp>

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace {

std::string FormatPlain(const msgbus::Message& message) {
    return common::Escaped(message.topic) + ' ' + std::to_string(message.value) + '\n';
}

/// Replaces the control characters that JSON permits in a string, such as U+009B, by JSON's escapes: a terminal acts on
/// them. The same value for a program that parses it.
std::string WithoutControl(std::string_view json) {
    std::string line;
    while (!json.empty()) {
        const utf8::Step step = utf8::Decode(json);
        if (common::IsControl(step.point)) { // never outside a string, and never above U+FFFF
            std::array<char, 7> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(step.point));
            line += escape.data();
        } else {
            line += json.substr(0, step.length);
        }
        json.remove_prefix(step.length);
    }
    return line;
}

std::string FormatJson(const msgbus::Message& message, const std::string& subscriber) {
    const nlohmann::ordered_json object{{"topic", message.topic}, {"value", message.value}, {"subscriber", subscriber}};
    return WithoutControl(object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)) + '\n';
}

/// Writes `text` to stdout.
/// Returns: false when its reader has closed the pipe. Throws: std::system_error. Blocks: until all is written.
bool WriteOut(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EPIPE) {
            return false;
        } else if (errno == EAGAIN) { // another process that shares stdout has made it non-blocking
            pollfd output{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&output, 1, -1);
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
        }
    }
    return true;
}

ExitStatus Print(msgbus::Subscriber& subscriber, const EndWatch& watch, const ReceiveArguments& arguments) {
    for (std::uint64_t received = 0; received != arguments.count; ++received) {
        const auto message = subscriber.Next();
        if (!message) {
            return watch.WhyEnded() == EndWatch::Cause::TimeLimit ? ExitStatus::TimedOut : ExitStatus::Done;
        }
        if (!WriteOut(arguments.json ? FormatJson(*message, arguments.name) : FormatPlain(*message))) {
            return ExitStatus::Done;
        }
    }
    return ExitStatus::Done;
}

} // namespace

ExitStatus Receive(const ReceiveArguments& arguments) {
    for (const auto& topic : arguments.topics) {
        WarnAboutCutTopic(topic);
    }
    // Constructed after the watch, which must block the signals before anything is registered; destroyed after it too,
    // because the watch's threads use it.
    std::optional<msgbus::Subscriber> subscriber;
    EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    subscriber.emplace(arguments.name, arguments.topics, arguments.options);
    Say("subscribed as '" + arguments.name + "' (id " + std::to_string(subscriber->Id()) + ")");
    watch.OnEnd([&subscriber] { subscriber->Cancel(); });

    const ExitStatus status = Print(*subscriber, watch, arguments);
    if (const auto lost = subscriber->Lost().values; lost != 0) {
        Say("lost " + std::to_string(lost) + " values, which the server dropped because they were not read in time");
    }
    subscriber->Cancel(); // not left to the destructor: a server that does not answer is then handled by the watch
    return status;
}
