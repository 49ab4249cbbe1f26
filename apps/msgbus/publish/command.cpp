#include "arguments.h"
#include "publish/publish.h"
#include "publish/value_source.h"

#include <memory>
#include <stdexcept>
#include <utility>

namespace publish {

namespace {

/// The words of the command line.
struct Words {
    explicit Words(command_line::Command& command) : bus(command) {}

    BusOptions bus;
    std::optional<std::string> topic;    ///< by -t
    std::optional<std::string> argument; ///< the topic, or with -t the first value
    std::vector<std::string> values;
    std::optional<std::string> rate, interval, repeat, waitForTopic;
    std::string description;
    bool readsInput = false;
    bool isClock = false;
    bool skipsEmptyLines = false;
    bool isVerbose = false;
};

/// Takes the topic and the values from where they stand.
void SetTopicAndSource(const Words& words, Arguments& arguments) {
    auto values = words.values;
    if (!words.topic && !words.argument) {
        throw std::invalid_argument("TOPIC is required");
    }
    arguments.topic = words.topic ? *words.topic : *words.argument;
    if (words.topic && words.argument) {
        values.insert(values.begin(), *words.argument);
    }
    const bool isInput = words.readsInput || (values.size() == 1 && values.front() == "-");
    if (words.readsInput && !values.empty() && values.front() != "-") {
        throw std::invalid_argument("--lines excludes values on the command line");
    }
    if (words.isClock && (isInput || !values.empty())) {
        throw std::invalid_argument("--now excludes other values");
    }
    if (words.skipsEmptyLines && !isInput) {
        throw std::invalid_argument("--skip-empty is for values of standard input");
    }
    if (isInput && words.repeat) {
        throw std::invalid_argument("--repeat excludes values of standard input, which is read only once");
    }
    if (!isInput && !words.isClock && values.empty()) {
        throw std::invalid_argument("nothing to publish: give values, or - to read them from standard input");
    }
    arguments.source = isInput ? Source::Input : words.isClock ? Source::Clock : Source::List;
    arguments.skipsEmptyLines = words.skipsEmptyLines;
    if (arguments.source == Source::List) {
        for (const auto& text : values) {
            arguments.values.push_back(ParseValue(text));
        }
    }
}

Arguments ArgumentsOf(const Words& words) {
    Arguments arguments;
    SetTopicAndSource(words, arguments);
    arguments.access = words.bus.Resolve();
    arguments.access.options.description = words.description;
    if (words.waitForTopic) {
        arguments.access.waitForTopic = ParseDuration(*words.waitForTopic);
    }
    if (words.repeat) {
        arguments.repetitions = *words.repeat == "forever" ? Forever : ParseCount(*words.repeat);
    }
    if (words.rate) {
        arguments.interval = ParseRate(*words.rate);
    }
    if (words.interval) {
        arguments.interval = ParseDuration(*words.interval);
    }
    if (words.isClock && arguments.interval && !words.repeat) {
        arguments.repetitions = Forever;
    }
    arguments.isVerbose = words.isVerbose;
    return arguments;
}

void AddNotes(command_line::Command& command) {
    command.notes.description = {
        "A value is a decimal 64-bit integer, or 0x and up to 16 hexadecimal digits: the bits of one. On standard "
        "input, "
        "lines may end with CR LF, and blanks around a value are ignored. A bad line ends the command; its number, and "
        "how many values were published before it, are printed."};
    command.notes.examples = {
        {"msgbus pub temperature 21 22 23", "Three values"},
        {"seq 1000 | msgbus pub counter -", "Values of another program"},
        {"msgbus pub heartbeat 1 --repeat forever -r 10", "Ten values a second, until Ctrl-C"},
        {"msgbus pub clock --now -r 100 --repeat 1000", "Times at which they were published, for 'msgbus delay clock'"},
        {"msgbus pub door 1 --wait=10s --wait-topic 5s",
         "Wait for a server that is being started, and for the topic's last publisher to end"}};
}

} // namespace

void AddCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand("pub", "Publish 64-bit integers to a topic.", "Commands");
    const auto words = std::make_shared<Words>(command);
    command.add_option("TOPIC", words->argument, "topic of 1 to 1023 bytes; it has one publisher at a time")
        ->type_name("TOPIC");
    command
        .add_option("VALUE", words->values,
                    "values to publish, in this order; - alone: those of standard input, one per line")
        ->type_name("VALUE");
    command.add_option("-t,--topic", words->topic, "the topic, in place of the first argument")->type_name("TOPIC");
    command.add_flag("-l,--lines", words->readsInput, "read the values from standard input, as - does");
    command.add_flag("--skip-empty", words->skipsEmptyLines, "ignore empty lines of standard input");
    command.add_flag(
        "--now", words->isClock,
        "publish the time: nanoseconds since 1970, read when the value is published; once, or without end at the "
        "rate that is given");
    auto* const rate =
        command.add_option("-r,--rate", words->rate, "values per second, the first at once; such as 10 or 0.5")
            ->type_name("HZ");
    command.add_option("--interval", words->interval, "time between two values, the first at once")
        ->type_name("DURATION")
        ->excludes(rate);
    command.add_option("--repeat", words->repeat, "publish the values so many times over, or 'forever'")
        ->type_name("COUNT");
    command.add_option("--wait-topic", words->waitForTopic, "how long to wait while the topic has another publisher")
        ->type_name("DURATION");
    command
        .add_option("--description", words->description,
                    "what the values mean, for those who look at the bus, such as 'fixed;step=1/10;unit=V'")
        ->type_name("TEXT");
    command.add_flag("-v,--verbose", words->isVerbose, "print the publisher's id on standard error");
    AddNotes(command);
    command.callback([&chosen, words] { chosen = [words] { return Publish(ArgumentsOf(*words)); }; });
}

} // namespace publish
