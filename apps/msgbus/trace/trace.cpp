#include "trace/trace.h"

#include "arguments.h"
#include "bus_options.h"
#include "end_watch.h"
#include "look/account_source.h"
#include "look/look_loop.h"
#include "server_access/ask_monitor.h"
#include "server_access/monitor_endpoint.h"
#include "terminal/write_out.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <utility>

namespace trace {

using instruments::TraceRecord;
using server_access::AskMonitor;

namespace {

constexpr std::size_t MostValues = 1000; // that the server follows
constexpr std::chrono::milliseconds TimeBetweenLooks{20};

constexpr unsigned Ok = 200;
constexpr unsigned NoContent = 204;

/// A trace in the server, while this object exists.
class RunningTrace final {
public:
    RunningTrace(const std::string& topic, std::size_t count) {
        const auto answer =
            AskMonitor("PUT", "/v1/trace?topic=" + server_access::Percents(topic) + "&values=" + std::to_string(count));
        if (answer.status != NoContent) {
            throw std::runtime_error("the server does not follow values: " + answer.Reason());
        }
    }
    RunningTrace(const RunningTrace&) = delete;
    RunningTrace& operator=(const RunningTrace&) = delete;
    ~RunningTrace() {
        try {
            AskMonitor("DELETE", "/v1/trace");
        } catch (const std::exception&) { // Justified: the server ends it by itself when no one reads it.
        }
    }

    TraceRecord Read() const {
        const auto answer = AskMonitor("GET", "/v1/trace");
        if (answer.status != Ok) {
            throw std::runtime_error("the server does not follow values any more: " + answer.Reason());
        }
        return instruments::TraceFromJson(answer.body);
    }
};

/// Starts the trace, if need be when there is a server. Returns: nothing when the program is to end first.
std::unique_ptr<RunningTrace> Start(const Arguments& arguments, const EndWatch& watch) {
    const auto deadline = std::chrono::steady_clock::now() + arguments.waitForServer;
    bool isNoted = false;
    do {
        try {
            return std::make_unique<RunningTrace>(arguments.topic, arguments.count);
        } catch (const server_access::ServerAwayError& error) {
            if (std::chrono::steady_clock::now() >= deadline) {
                throw;
            }
            if (!std::exchange(isNoted, true)) {
                Say(std::string(error.what()) + "; waiting for one");
            }
        }
    } while (look::Pause(watch, TimeBetweenLooks));
    return nullptr;
}

Names NamesOnTheBus() {
    Names names;
    for (const auto& subscriber :
         look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency).subscribers) {
        names[subscriber.id] = subscriber.name;
    }
    return names;
}

void WriteFile(const std::string& file, const std::string& text) {
    std::ofstream stream(file);
    stream << text << std::flush;
    if (!stream) {
        throw std::runtime_error("cannot write '" + file + "': " + std::strerror(errno));
    }
}

void Print(const Arguments& arguments, const TraceRecord& record) {
    const Names names = NamesOnTheBus();
    if (arguments.output) {
        WriteFile(*arguments.output, ToTraceEvents(record, names));
    }
    terminal::WriteOut(arguments.json ? terminal::JsonLine(TraceToJson(record, 0)) : ToText(record, names));
    if (record.lostSteps != 0) {
        Say(std::to_string(record.lostSteps) + " steps found no room in the server: follow fewer values");
    }
}

} // namespace

ExitStatus Trace(const Arguments& arguments) {
    RequireTopic(arguments.topic);
    const EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    const auto running = Start(arguments, watch);
    if (!running) {
        return look::StatusOf(watch);
    }
    Say("following the next " + std::to_string(arguments.count) + (arguments.count == 1 ? " value" : " values") +
        " of topic '" + arguments.topic + "'");
    TraceRecord record;
    bool isComplete = false;
    while (!isComplete && look::Pause(watch, TimeBetweenLooks)) {
        record = running->Read();
        isComplete = record.HasEnded();
    }
    Print(arguments, record);
    return isComplete ? ExitStatus::Done : look::StatusOf(watch);
}

void AddCommand(command_line::Command& program, Action& chosen) {
    struct Words {
        Arguments arguments;
        std::optional<std::string> count, timeLimit;
        const CLI::Option* wait = nullptr;
    };
    auto& command = program.AddCommand("trace", "Follow single values of a topic through the bus.",
                                       "Commands that look into the bus");
    const auto words = std::make_shared<Words>();
    auto& arguments = words->arguments;
    command.add_option("-t,--topic,TOPIC", arguments.topic, "topic")->type_name("TOPIC")->required();
    command.add_option("-n,--count", words->count, "how many values, up to 1000 (default: 10)")->type_name("COUNT");
    command
        .add_option("-W,--time-limit", words->timeLimit,
                    "print what there is after this time, and exit with status 124")
        ->type_name("DURATION");
    command.add_option("-o,--output", arguments.output, "write the trace to this file, too, for ui.perfetto.dev")
        ->type_name("FILE");
    command.add_flag("--json", arguments.json, "print one JSON object on one line");
    words->wait = command_line::AddOptionWithOptionalValue(
        command, "--wait", "DURATION",
        "wait for a server that is not up yet; without a duration for as long as it takes");
    command.notes.description = {
        "For each value: when it was pushed, and how long after that it was fanned out, put into the queue of each "
        "subscriber, offered to it (laid into memory from which its client takes values without a request) and taken. "
        "The "
        "server learns that an offered value was taken when the client asks for more, so the client may have had it "
        "earlier.",
        "It costs the bus some nanoseconds for each step of these values. There is one trace at a time, and it needs "
        "the "
        "server's monitor (not --no-monitor, --bare)."};
    command.notes.environment = {{"BORVEN_RUNTIME_DIR",
                                  "directory of the server's monitor.sock; if unset, "
                                  "$XDG_RUNTIME_DIR/borven, else a directory of the user's own in "
                                  "/tmp"}};
    command.notes.exitStatuses =
        Describe({ExitStatus::Done, ExitStatus::Failed, ExitStatus::Usage, ExitStatus::NoServer, ExitStatus::TimedOut});
    command.notes.examples = {{"msgbus trace temperature -n 3", "Where the next three values spend their time"},
                              {"msgbus trace temperature -n 1000 -o trace.json", "The same as a picture"}};
    command.callback([&chosen, words] {
        chosen = [words] {
            auto& parsed = words->arguments;
            if (words->count) {
                const auto count = ParseCount(*words->count);
                if (count > MostValues) {
                    throw std::invalid_argument("--count: at most " + std::to_string(MostValues));
                }
                parsed.count = static_cast<std::size_t>(count);
            }
            if (words->timeLimit) {
                parsed.timeLimit = ParseDuration(*words->timeLimit);
            }
            if (const auto wait = command_line::OptionalValueOf(*words->wait)) {
                parsed.waitForServer = ParseWait(*wait);
            }
            return Trace(parsed);
        };
    });
}

} // namespace trace
