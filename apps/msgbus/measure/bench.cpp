#include "measure/bench.h"

#include "arguments.h"
#include "measure/latency_text.h"
#include "msgbus/subscriber.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <map>
#include <memory>
#include <stdexcept>

namespace measure {

namespace {

struct KindText {
    BenchKind kind;
    const char* latencyOf; ///< what the latency is
};

const std::map<std::string, KindText> Kinds{
    {"rtt", {BenchKind::RoundTrip, "there and back"}},
    {"pub", {BenchKind::Publish, "of an acknowledged publish"}},
    {"sub", {BenchKind::Subscribe, "from publisher to subscriber, under this load"}},
    {"fan", {BenchKind::FanOut, "from publisher to subscribers, under this load"}},
};

const std::pair<const std::string, KindText>& TextOf(BenchKind kind) {
    for (const auto& each : Kinds) {
        if (each.second.kind == kind) {
            return each;
        }
    }
    throw std::logic_error("a kind without a name");
}

double PerSecond(std::uint64_t count, std::chrono::nanoseconds time) {
    constexpr double nsPerSecond = 1e9;
    return time.count() <= 0 ? 0 : static_cast<double>(count) * nsPerSecond / static_cast<double>(time.count());
}

std::string Text(const BenchArguments& arguments, const BenchResult& result) {
    const auto& [name, text] = TextOf(arguments.kind);
    std::string lines =
        fmt::format("{:>12.0f} values/s published ({} in {:.3f} s)\n", PerSecond(result.published, result.time),
                    result.published, static_cast<double>(result.time.count()) / 1e9);
    if (arguments.kind == BenchKind::Subscribe || arguments.kind == BenchKind::FanOut) {
        lines +=
            fmt::format("{:>12.0f} values/s received by {} subscriber{}\n", PerSecond(result.received, result.time),
                        arguments.subscribers, arguments.subscribers == 1 ? "" : "s");
    }
    lines += fmt::format("latency {}:\n", text.latencyOf);
    const auto headings = LatencyHeadings();
    const auto cells = LatencyCells(result.latency);
    for (const auto& row : {headings, cells}) {
        for (const auto& cell : row) {
            lines += fmt::format("{:>9}", cell);
        }
        lines += '\n';
    }
    return lines + (arguments.withBars ? Bars(result.latency) : "");
}

std::string Json(const BenchArguments& arguments, const BenchResult& result) {
    nlohmann::ordered_json json{{"bench", TextOf(arguments.kind).first},
                                {"subscribers", arguments.kind == BenchKind::Publish ? 0 : arguments.subscribers},
                                {"published", result.published},
                                {"received", result.received},
                                {"time_ns", result.time.count()},
                                {"published_per_second", PerSecond(result.published, result.time)},
                                {"received_per_second", PerSecond(result.received, result.time)},
                                {"latency", LatencyJson(result.latency)}};
    if (arguments.withBars) {
        json["histogram"] = nlohmann::ordered_json::parse(result.latency.Json());
    }
    return terminal::JsonLine(json);
}

/// The words of the command line.
struct Words {
    explicit Words(command_line::Command& command) : bus(command) {}

    BusOptions bus;
    std::string kind;
    std::optional<std::string> count, duration, subscribers;
    bool isJson = false;
    bool withBars = false;
};

BenchArguments ArgumentsOf(const Words& words) {
    constexpr std::size_t usualFanOut = 10;
    constexpr std::size_t mostSubscribers = 1000; // each has a thread
    BenchArguments arguments;
    const auto found = Kinds.find(words.kind);
    if (found == Kinds.end()) {
        throw std::invalid_argument("'" + words.kind + "' is not what can be measured; there is rtt, pub, sub and fan");
    }
    arguments.kind = found->second.kind;
    arguments.access = words.bus.Resolve();
    if (words.count) {
        arguments.count = ParseCount(*words.count);
    }
    if (words.duration) {
        arguments.duration = ParseDuration(*words.duration);
    }
    if (arguments.kind == BenchKind::FanOut) {
        arguments.subscribers = words.subscribers ? ParseCount(*words.subscribers) : usualFanOut;
    } else if (words.subscribers) {
        throw std::invalid_argument("--subscribers is for 'msgbus bench fan'");
    }
    if (arguments.subscribers > mostSubscribers) {
        throw std::invalid_argument("--subscribers: at most " + std::to_string(mostSubscribers));
    }
    arguments.json = words.isJson;
    arguments.withBars = words.withBars;
    return arguments;
}

} // namespace

ExitStatus Bench(const BenchArguments& arguments) {
    const EndWatch watch(std::nullopt, EndWatch::Output::Ignored);
    // Only to wait for the server.
    if (!Connect(arguments.access, watch,
                 [&] { msgbus::Subscriber("msgbus-bench-probe", {"msgbus-bench-probe"}, arguments.access.options); })) {
        return ExitStatus::Done;
    }
    const BenchResult result = MeasureBus(arguments, watch);
    terminal::WriteOut(arguments.json ? Json(arguments, result) : Text(arguments, result));
    return ExitStatus::Done;
}

void AddBenchCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand("bench", "Measure the bus that runs, with clients in this process.", "Commands");
    const auto words = std::make_shared<Words>(command);
    command
        .add_option(
            "KIND", words->kind,
            "rtt: one value at a time, there and back; pub: acknowledged publishes without a subscriber; sub: what "
            "one subscriber receives; fan: what several receive")
        ->type_name("rtt|pub|sub|fan")
        ->required();
    command.add_option("-n,--count", words->count, "values to publish (default: as many as fit into the time)")
        ->type_name("COUNT");
    command.add_option("-d,--duration", words->duration, "how long to measure (default: 3s)")->type_name("DURATION");
    command.add_option("--subscribers", words->subscribers, "of fan: how many (default: 10)")->type_name("COUNT");
    command.add_flag("--histogram", words->withBars, "print how the latencies are distributed");
    command.add_flag("--json", words->isJson, "print one JSON object on one line");
    command.notes.description = {
        "It uses a topic of its own and checks that every value arrives once and in order, but takes part of the bus's "
        "time from its clients while it runs. On the bus of a busy system it measures that system."};
    command.notes.examples = {
        {"msgbus bench rtt", "How long a value takes"},
        {"msgbus bench fan --subscribers 100 -d 10s --json", "Fan-out to a hundred, for a program"}};
    command.callback([&chosen, words] { chosen = [words] { return Bench(ArgumentsOf(*words)); }; });
}

} // namespace measure
