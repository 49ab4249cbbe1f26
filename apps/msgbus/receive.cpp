#include "arguments.h"
#include "common/escape.h"
#include "end_watch.h"
#include "msgbus/subscriber.h"
#include "terminal/write_out.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace {

std::string FormatPlain(const msgbus::Message& message) {
    return common::Escaped(message.topic) + ' ' + std::to_string(message.value) + '\n';
}

std::string FormatJson(const msgbus::Message& message, const std::string& subscriber) {
    const nlohmann::ordered_json object{{"topic", message.topic}, {"value", message.value}, {"subscriber", subscriber}};
    return terminal::JsonLine(object);
}

ExitStatus Print(msgbus::Subscriber& subscriber, const EndWatch& watch, const ReceiveArguments& arguments) {
    for (std::uint64_t received = 0; received != arguments.count; ++received) {
        const auto message = subscriber.Next();
        if (!message) {
            return watch.WhyEnded() == EndWatch::Cause::TimeLimit ? ExitStatus::TimedOut : ExitStatus::Done;
        }
        if (!terminal::WriteOut(arguments.json ? FormatJson(*message, arguments.name) : FormatPlain(*message))) {
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
