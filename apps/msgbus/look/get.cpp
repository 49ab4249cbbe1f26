#include "get.h"

#include "account_source.h"
#include "arguments.h"
#include "common/escape.h"
#include "find.h"
#include "instruments/account_json.h"
#include "look_loop.h"
#include "terminal/quantity.h"
#include "terminal/write_out.h"
#include "value_text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>

namespace look {

namespace {

using instruments::AccountReader;
using instruments::Snapshot;

constexpr std::chrono::milliseconds LookInterval{20};

/// Of a big bus a look takes long: it must not take more than a tenth of a CPU.
std::chrono::milliseconds PauseBehind(std::chrono::nanoseconds look) {
    constexpr int share = 10;
    return std::chrono::duration_cast<std::chrono::milliseconds>(share * look);
}

ExitStatus Await(AccountSource& source, const GetArguments& arguments) {
    const EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    ServerWarning warning;
    std::chrono::milliseconds interval = LookInterval;
    while (Pause(watch, interval)) {
        const auto begin = std::chrono::steady_clock::now();
        source.FollowRestart();
        const Snapshot snapshot = source.Read(AccountReader::Depth::WithoutLatency);
        if (const auto line = LastValueLine(snapshot, arguments.topic, arguments.json)) {
            terminal::WriteOut(*line);
            return ExitStatus::Done;
        }
        warning.Update(snapshot.server);
        if (HasEnded(snapshot.server)) {
            return ExitStatus::NoServer;
        }
        interval = std::max(LookInterval, PauseBehind(std::chrono::steady_clock::now() - begin));
    }
    return StatusOf(watch);
}

} // namespace

std::optional<std::string> LastValueLine(const Snapshot& snapshot, const std::string& topic, bool json) {
    const auto view = FindTopic(snapshot, topic);
    if (!view || !view->publisher || !snapshot.publishers[*view->publisher].lastValue) {
        return std::nullopt;
    }
    const auto& publisher = snapshot.publishers[*view->publisher];
    const std::string value = std::to_string(*publisher.lastValue);
    if (!json) {
        return ValueText(*publisher.lastValue, view->description) + ' ' +
               terminal::Age(snapshot.readAt, publisher.lastAt) + '\n';
    }
    return terminal::JsonLine(
        {{"version", instruments::JsonVersion},
         {"topic", common::Escaped(view->topic)},
         {"last_value", *publisher.lastValue},
         {"last_value_text", value},
         {"last_value_described", instruments::DescribedValueToJson(view->description, publisher.lastValue)},
         {"last_unix_ns", publisher.lastAt + snapshot.server.clockOffset},
         {"last_age_ns", snapshot.readAt - publisher.lastAt}});
}

ExitStatus Get(const GetArguments& arguments) {
    RequireTopic(arguments.topic);
    AccountSource source(arguments.account);
    const Snapshot snapshot = source.Read(AccountReader::Depth::WithoutLatency);
    ServerWarning().Update(snapshot.server);
    if (const auto line = LastValueLine(snapshot, arguments.topic, arguments.json)) {
        terminal::WriteOut(*line);
        return ExitStatus::Done;
    }
    if (HasEnded(snapshot.server)) {
        Say("topic '" + arguments.topic + "' had no value");
        return ExitStatus::NoServer;
    }
    if (arguments.timeLimit) {
        return Await(source, arguments);
    }
    Say("topic '" + arguments.topic + "' has no value yet; -W waits for the first");
    return ExitStatus::Failed;
}

} // namespace look
