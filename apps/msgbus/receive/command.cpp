#include "arguments.h"
#include "receive/receive.h"

#include <memory>
#include <stdexcept>

namespace receive {

namespace {

/// The words of the command line.
struct Words {
    explicit Words(command_line::Command& command) : bus(command) {}

    BusOptions bus;
    topics::SelectionWords topics;
    std::optional<std::string> name, count, timeLimit, idleLimit, pattern;
    bool isCsv = false;
    const CLI::Option* json = nullptr;
    const CLI::Option* time = nullptr;
};

Style ParseJsonStyle(const std::string& word) {
    if (word.empty()) {
        return Style::Json;
    }
    if (word == "str") {
        return Style::JsonStrings;
    }
    throw std::invalid_argument("--json: '" + word + "' is not a style; there is str, which writes values as strings");
}

void SetFormat(const Words& words, Arguments& arguments) {
    const auto json = command_line::OptionalValueOf(*words.json);
    const auto time = command_line::OptionalValueOf(*words.time);
    if (int{json.has_value()} + int{words.isCsv} + int{words.pattern.has_value()} > 1) {
        throw std::invalid_argument("--json, --csv and --format exclude each other");
    }
    if (words.pattern && time) {
        throw std::invalid_argument("--format excludes --ts: it has fields for the time");
    }
    arguments.style = json ? ParseJsonStyle(*json) : words.isCsv ? Style::Csv : Style::Lines;
    arguments.pattern = words.pattern;
    if (time) {
        arguments.time = ParseTimeStyle(*time);
    }
}

Arguments ArgumentsOf(const Words& words) {
    Arguments arguments;
    SetFormat(words, arguments);
    arguments.access = words.bus.Resolve();
    arguments.topics = words.topics.Resolve();
    arguments.name = words.name ? *words.name : DefaultName();
    if (words.count) {
        arguments.count = ParseCount(*words.count);
    }
    if (words.timeLimit) {
        arguments.timeLimit = ParseDuration(*words.timeLimit);
    }
    if (words.idleLimit) {
        arguments.idleLimit = ParseDuration(*words.idleLimit);
    }
    return arguments;
}

void AddFormatOptions(command_line::Command& command, Words& words) {
    const char* const group = "Output";
    words.json =
        command_line::AddOptionWithOptionalValue(
            command, "--json", "str",
            "print each message as a JSON object on one line, with topic, value, subscriber, time and seq, "
            "which counts this subscription; =str: values as strings, because jq and JavaScript round integers "
            "above 2^53")
            ->group(group);
    command.add_flag("--csv", words.isCsv, "print comma-separated values: time,seq,topic,value")->group(group);
    command
        .add_option("-F,--format", words.pattern,
                    "print each message like this: %t topic, %T its bytes as they are, %v value, %x its bits in "
                    "hexadecimal, %n sequence number, %i time, %u seconds since 1970, %r seconds since the start, %d "
                    "seconds since the message before, %%; and \\n, \\t, \\0, \\\\")
        ->type_name("FORMAT")
        ->group(group);
    words.time =
        command_line::AddOptionWithOptionalValue(
            command, "--ts", "rel|delta|unix",
            "print the time of receipt in front of each message, in UTC (RFC 3339); rel: seconds since the "
            "start; delta: since the message before; unix: since 1970. With --json and --csv, what time is like")
            ->group(group);
}

void AddNotes(command_line::Command& command) {
    command.notes.description = {
        "In a line 'TOPIC VALUE', the value is what follows the last space, and no topic can control the terminal: a "
        "backslash is \\\\, a line feed \\n, a tab \\t; each byte of another control character, of a character that "
        "breaks "
        "or reorders lines, or that is not UTF-8 is \\xHH. printf %b of bash gives the bytes back. JSON is UTF-8: "
        "bytes of "
        "a topic that are not become U+FFFD, and topic_hex has all of them. CSV and %T give the bytes as they are.",
        topics::MatchDescription};
    command.notes.examples = {
        {"msgbus sub temperature pressure", "What is published from now on"},
        {"msgbus sub temperature -n 1 -W 10", "The next value, or status 124 after ten seconds"},
        {"msgbus sub temperature --idle 2s --csv > values.csv",
         "Until nothing came for two seconds, for a spreadsheet"},
        {"msgbus sub --match 'sensors/*'", "All of these, also those that come later"},
        {"msgbus sub temperature --json=str | jq .value", "For another program"},
        {"msgbus sub door -F '%i %v' --wait", "A format of your own, from a server that may not be up yet"}};
}

} // namespace

void AddCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand("sub", "Print the values of topics as they arrive, one line 'TOPIC VALUE' each.",
                                       "Commands");
    const auto words = std::make_shared<Words>(command);
    words->topics.AddTo(command);
    command
        .add_option("--name", words->name,
                    "name of this subscriber, 1 to 1023 bytes (default: made of the program, the user and the process)")
        ->type_name("NAME");
    command.add_option("-n,--count", words->count, "exit after this many messages")->type_name("COUNT");
    command
        .add_option("-W,--time-limit", words->timeLimit,
                    "exit with status 124 after this time, for example 10 (seconds), 1.5s, 200ms, 5m, 1h")
        ->type_name("DURATION");
    command
        .add_option("--idle", words->idleLimit,
                    "exit when no message came for this time; with status 124 if --count was not reached")
        ->type_name("DURATION");
    AddFormatOptions(command, *words);
    AddNotes(command);
    command.callback([&chosen, words] { chosen = [words] { return Receive(ArgumentsOf(*words)); }; });
}

} // namespace receive
