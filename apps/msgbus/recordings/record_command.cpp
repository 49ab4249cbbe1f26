#include "arguments.h"
#include "receive/receive.h"
#include "recordings/record.h"
#include "topics/glob_set.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace recordings {

namespace {

struct Words {
    explicit Words(command_line::Command& command) : bus(command) {}

    BusOptions bus;
    std::string file;
    topics::SelectionWords topics;
    std::optional<std::string> name, count, timeLimit, split, mostBytes, ring, ringBytes;
    std::vector<std::string> conditions;
    bool isForced = false;
};

void AddFileOptions(command_line::Command& command, Words& words) {
    command.add_flag("--force", words.isForced, "replace a file that is there");
    command
        .add_option(
            "--split", words.split,
            "go on in another file when this one has this size (such as 100M) or age (such as 1h): NAME_0.mcap, "
            "NAME_1.mcap and so on")
        ->type_name("SIZE|DURATION");
    command
        .add_option("--max-disk", words.mostBytes,
                    "with --split: remove the oldest files of this recording when all take more than this size")
        ->type_name("SIZE");
    const char* const group = "Ring";
    command
        .add_option(
            "--ring", words.ring,
            "keep the values of this last time in memory, and write them to NAME_0.mcap, NAME_1.mcap and so on: "
            "on SIGUSR1, on what --on says, and when the server is gone")
        ->type_name("DURATION")
        ->group(group);
    command
        .add_option("--on", words.conditions,
                    "with --ring: write a file when values were lost (loss), when the server has cut this subscriber "
                    "(cut), or when a value is out of range: 'TOPIC<NUMBER' or 'TOPIC>NUMBER' (repeatable)")
        ->type_name("CONDITION")
        ->allow_extra_args(false)
        ->group(group);
    command
        .add_option("--ring-bytes", words.ringBytes,
                    "with --ring: how much memory the values may take, 32 bytes each; the oldest are dropped (default: "
                    "64M)")
        ->type_name("SIZE")
        ->group(group);
}

void AddNotes(command_line::Command& command) {
    command.notes.description = {
        "Recordings are MCAP files, which Foxglove, PlotJuggler and rosbag2 read: a channel for each topic, values as "
        "std_msgs/msg/Int64, or Float64 where the topic is described as a double. The time is that of the receipt. "
        "What was "
        "received a second ago is in the file and can be read, whatever becomes of this program.",
        "Lost values and restarts of the server are noted in the file. A size is a number of bytes, with k, M or G of "
        "1024.",
        "With --ring nothing is written at first. Each file is a whole recording of what is in memory then, with a "
        "note "
        "msgbus.ring that says why; recording goes on. A condition writes one file: the next one when it was false in "
        "between, and not before the time of --ring has passed. A value is compared by what it stands for where its "
        "topic is described, within 0.1 s of its receipt.",
        topics::MatchDescription};
    command.notes.signals = {{"SIGINT, SIGTERM", "end the recording"},
                             {"SIGUSR1", "with --ring: write a file and go on; else end at once"}};
    command.notes.examples = {
        {"msgbus record drive.mcap speed voltage", "Until Ctrl-C"},
        {"msgbus record all.mcap --match '*'", "Every topic, also those that come later"},
        {"msgbus record crash.mcap --match '*' --ring 60s --on loss --on 'voltage<11.5'", "The minute before a mishap"},
        {"msgbus record log.mcap speed --split 1h --max-disk 10G", "For ever, the last ten gigabytes"}};
}

SplitRules SplitRulesOf(const Words& words) {
    SplitRules rules;
    if (words.split) {
        if (IsSize(*words.split)) {
            rules.bytes = ParseSize(*words.split);
        } else if (const char last = words.split->empty() ? ' ' : words.split->back();
                   last == 's' || last == 'm' || last == 'h') {
            rules.time = ParseDuration(*words.split);
        } else {
            throw std::invalid_argument("--split: '" + *words.split +
                                        "' is neither a size, such as 100M, nor a duration with its unit, such as 1h");
        }
    }
    if (words.mostBytes) {
        if (!words.split) {
            throw std::invalid_argument("--max-disk needs --split");
        }
        rules.mostBytes = ParseSize(*words.mostBytes);
        if (rules.bytes && *rules.mostBytes < *rules.bytes) {
            throw std::invalid_argument("--max-disk is less than --split, so that not even one file would fit");
        }
    }
    return rules;
}

std::optional<RingRules> RingRulesOf(const Words& words, const topics::Selection& selection) {
    if (!words.ring) {
        if (!words.conditions.empty() || words.ringBytes) {
            throw std::invalid_argument(words.ringBytes ? "--ring-bytes needs --ring" : "--on needs --ring");
        }
        return std::nullopt;
    }
    if (words.split) {
        throw std::invalid_argument("--ring and --split exclude each other");
    }
    RingRules rules;
    rules.age = ParseDuration(*words.ring);
    rules.conditions = ParseConditions(words.conditions);
    if (words.ringBytes) {
        rules.bytes = ParseSize(*words.ringBytes);
    }
    const topics::GlobSet globs(selection.globs);
    for (const auto& condition : rules.conditions.onValues) {
        const bool isNamed =
            std::find(selection.named.begin(), selection.named.end(), condition.topic) != selection.named.end();
        if (!isNamed && !globs.Matches(condition.topic)) {
            throw std::invalid_argument("--on: '" + condition.text + "': topic '" + condition.topic +
                                        "' is not recorded");
        }
    }
    return rules;
}

RecordArguments ArgumentsOf(const Words& words) {
    RecordArguments arguments;
    arguments.access = words.bus.Resolve();
    arguments.file = words.file;
    arguments.topics = words.topics.Resolve();
    arguments.name = words.name ? *words.name : receive::DefaultName();
    if (words.count) {
        arguments.count = ParseCount(*words.count);
    }
    if (words.timeLimit) {
        arguments.timeLimit = ParseDuration(*words.timeLimit);
    }
    if (words.isForced) {
        arguments.existing = recording::ExistingFile::IsReplaced;
    }
    arguments.rules = SplitRulesOf(words);
    arguments.ring = RingRulesOf(words, arguments.topics);
    return arguments;
}

} // namespace

void AddRecordCommand(command_line::Command& program, Action& chosen) {
    auto& command =
        program.AddCommand("record", "Write the values of topics, with their times, to a file.", "Recordings");
    const auto words = std::make_shared<Words>(command);
    command.add_option("FILE", words->file, "file to create, in the MCAP format; usually NAME.mcap")
        ->type_name("FILE")
        ->required();
    words->topics.AddTo(command);
    command.add_option("--name", words->name, "name of this subscriber (default: made of user and process)")
        ->type_name("NAME");
    command.add_option("-n,--count", words->count, "exit after this many values")->type_name("COUNT");
    command
        .add_option("-W,--time-limit", words->timeLimit,
                    "exit after this time; with status 124 if --count was not reached")
        ->type_name("DURATION");
    AddFileOptions(command, *words);
    AddNotes(command);
    command.callback([&chosen, words] { chosen = [words] { return Record(ArgumentsOf(*words)); }; });
}

} // namespace recordings
