#include "measure/delay.h"

#include "arguments.h"
#include "common/escape.h"
#include "end_watch.h"
#include "measure/latency_text.h"
#include "msgbus/subscriber.h"
#include "receive/receive.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <stdexcept>
#include <utility>

namespace measure {

namespace {

using std::chrono::steady_clock;

/// The delays of some values.
struct Delays {
    common::Histogram histogram;
    std::uint64_t early = 0; ///< values from the future: the clock was set, or another machine's differs

    void Add(const Delays& other) {
        histogram.Add(other.histogram);
        early += other.early;
    }
};

/// Throws: std::runtime_error when `value` is no time near now.
void Count(Delays& delays, const msgbus::Message& message) {
    constexpr std::int64_t dayNs = 86'400'000'000'000;
    const std::int64_t now =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    if (message.value < now - dayNs || message.value > now + dayNs) {
        throw std::runtime_error("value " + std::to_string(message.value) + " of topic '" + message.topic +
                                 "' is no reading of the clock within a day of now; 'msgbus pub TOPIC --now' publishes "
                                 "such values");
    }
    delays.early += message.value > now ? 1 : 0;
    delays.histogram.Record(now - message.value);
}

std::string Row(const std::string& first, const std::vector<std::string>& cells) {
    std::string row = fmt::format("{:>12}", first);
    for (const auto& cell : cells) {
        row += fmt::format("  {:>7}", cell);
    }
    return row + '\n';
}

/// `what`: "interval" or "total".
std::string Line(const Delays& delays, const char* what, const DelayArguments& arguments) {
    if (!arguments.json) {
        return Row(std::to_string(delays.histogram.Count()), LatencyCells(delays.histogram));
    }
    nlohmann::ordered_json json{{"topic", common::Escaped(arguments.topic)}, {"part", what}};
    json.update(LatencyJson(delays.histogram));
    json["early"] = delays.early;
    return terminal::JsonLine(json);
}

struct End {
    ExitStatus status = ExitStatus::Done;
    bool isOutputOpen = true;
};

/// Prints a line for each interval, and counts everything in `total`.
End Measure(msgbus::Subscriber& subscriber, const EndWatch& watch, const DelayArguments& arguments, Delays& total) {
    while (true) {
        Delays delays;
        const auto end = steady_clock::now() + arguments.interval;
        bool isLast = false;
        while (!isLast) {
            const auto received = subscriber.NextUntil(end);
            if (received.outcome == msgbus::Outcome::TimedOut) {
                break;
            }
            if (received.outcome == msgbus::Outcome::Value) {
                Count(delays, *received);
            }
            isLast = received.outcome == msgbus::Outcome::Canceled ||
                     total.histogram.Count() + delays.histogram.Count() == arguments.count ||
                     steady_clock::now() >= end;
        }
        total.Add(delays);
        const bool isOver = watch.WhyEnded() != EndWatch::Cause::None || total.histogram.Count() == arguments.count;
        if (delays.histogram.Count() != 0 && !terminal::WriteOut(Line(delays, "interval", arguments))) {
            return {ExitStatus::Done, false};
        }
        if (isOver) {
            const bool isTimeUp = watch.WhyEnded() == EndWatch::Cause::TimeLimit;
            return {isTimeUp && arguments.count ? ExitStatus::TimedOut : ExitStatus::Done, true};
        }
    }
}

} // namespace

ExitStatus Delay(const DelayArguments& arguments) {
    WarnAboutCutTopic(arguments.topic);
    std::optional<msgbus::Subscriber> subscriber;
    EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    const std::vector<std::string> topics{arguments.topic};
    if (!Connect(arguments.access, watch,
                 [&] { subscriber.emplace(arguments.name, topics, arguments.access.options); })) {
        return watch.WhyEnded() == EndWatch::Cause::TimeLimit ? ExitStatus::TimedOut : ExitStatus::Done;
    }
    Say(arguments.access, "subscribed as '" + arguments.name + "' (id " + std::to_string(subscriber->Id()) + ")");
    watch.OnEnd([&subscriber] { subscriber->Cancel(); });
    if (!arguments.json && !terminal::WriteOut(Row("VALUES", LatencyHeadings()))) {
        return ExitStatus::Done;
    }
    Delays total;
    const End end = Measure(*subscriber, watch, arguments, total);
    if (end.isOutputOpen && (arguments.json || terminal::WriteOut("total:\n"))) {
        terminal::WriteOut(Line(total, "total", arguments));
    }
    if (total.early != 0) {
        Say(std::to_string(total.early) + " values came before their time; they count as 0");
    }
    subscriber->Cancel();
    return end.status;
}

void AddDelayCommand(command_line::Command& program, Action& chosen) {
    struct Words {
        explicit Words(command_line::Command& command) : bus(command) {}
        BusOptions bus;
        std::string topic;
        std::optional<std::string> name, count, timeLimit, interval;
        bool isJson = false;
    };
    auto& command = program.AddCommand(
        "delay", "Print how long the values of a topic take that are readings of the clock.", "Commands");
    const auto words = std::make_shared<Words>(command);
    command.add_option("-t,--topic,TOPIC", words->topic, "topic")->type_name("TOPIC")->required();
    command.add_option("--name", words->name, "name of this subscriber (default: made of user and process)")
        ->type_name("NAME");
    command.add_option("-n,--count", words->count, "exit after this many values")->type_name("COUNT");
    command
        .add_option("-W,--time-limit", words->timeLimit,
                    "exit after this time; with status 124 if --count was not reached")
        ->type_name("DURATION");
    command.add_option("-d,--delay", words->interval, "time between two lines (default: 1s)")->type_name("DURATION");
    command.add_flag("--json", words->isJson, "print a JSON object on each line");
    command.notes.description = {"The values are nanoseconds since 1970, as 'msgbus pub --now' publishes them. A line "
                                 "for each interval in which "
                                 "values came and one for all: how many there were, the least time between the reading "
                                 "and the receipt, quantiles, "
                                 "and the greatest. Times are right within 0.1 %."};
    command.notes.examples = {{"msgbus pub clock --now -r 1000", "Publish readings of the clock, in one terminal"},
                              {"msgbus delay clock -n 10000", "How long ten thousand of them take, in another"}};
    command.callback([&chosen, words] {
        chosen = [words] {
            DelayArguments arguments;
            arguments.access = words->bus.Resolve();
            arguments.topic = words->topic;
            arguments.name = words->name ? *words->name : receive::DefaultName();
            arguments.json = words->isJson;
            if (words->count) {
                arguments.count = ParseCount(*words->count);
            }
            if (words->timeLimit) {
                arguments.timeLimit = ParseDuration(*words->timeLimit);
            }
            if (words->interval) {
                arguments.interval = ParseDuration(*words->interval);
            }
            return Delay(arguments);
        };
    });
}

} // namespace measure
