#include "recordings/inspect.h"

#include "common/escape.h"
#include "receive/message_format.h"
#include "terminal/quantity.h"
#include "terminal/text_table.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <memory>

namespace recordings {

namespace {

std::string TimeText(recording::Time time) {
    return receive::Rfc3339(std::chrono::time_point_cast<std::chrono::system_clock::duration>(time));
}

std::string TextOf(const recording::Note& note) {
    std::string text = common::Escaped(note.name);
    for (const auto& [key, value] : note.texts) {
        text += ' ' + common::Escaped(key) + '=' + common::Escaped(value);
    }
    return text;
}

/// Returns: what is missing in the file, as sentences; empty when nothing is.
std::string MissingOf(const Summary& summary) {
    std::string missing;
    if (summary.damageCount != 0) {
        missing = summary.damageCount == 1 ? "a part that is damaged"
                                           : std::to_string(summary.damageCount) + " parts that are damaged";
    }
    if (summary.end.isComplete) {
        return missing;
    }
    return (missing.empty() ? "" : missing + "; ") + summary.end.reason +
           (summary.end.cutBytes == 0
                ? ""
                : ": " + std::to_string(summary.end.cutBytes) + " bytes at its end are no whole record") +
           "; a program that was killed may not have written what it received in its last second";
}

} // namespace

std::string ToText(const Summary& summary) {
    std::string text = fmt::format("{} values, {} {}, {}, written by {}\n", summary.values, summary.topics.size(),
                                   summary.topics.size() == 1 ? "topic" : "topics", terminal::Bytes(summary.fileBytes),
                                   common::Escaped(summary.writtenBy));
    if (summary.values != 0) {
        text += TimeText(summary.first) + " to " + TimeText(summary.last) + ", " +
                terminal::Duration((summary.last - summary.first).count()) + '\n';
    }
    using Align = terminal::Table::Align;
    terminal::Table table(
        {{"VALUES"}, {"RATE"}, {"FIRST", Align::Left}, {"TYPE", Align::Left}, {"TOPIC", Align::Left}});
    for (const auto& topic : summary.topics) {
        const double seconds = std::chrono::duration<double>(topic.last - topic.first).count();
        const double rate = seconds > 0 ? static_cast<double>(topic.values - 1) / seconds : 0;
        const std::string& description = topic.channel.description;
        table.Add({std::to_string(topic.values), terminal::Rate(rate), TimeText(topic.first),
                   !description.empty()    ? common::Escaped(description)
                   : topic.channel.isFloat ? "float64"
                                           : "int64",
                   common::Escaped(topic.channel.topic)});
    }
    text += table.Text();
    for (const auto& note : summary.notes) {
        text += "note: " + TextOf(note) + '\n';
    }
    if (summary.noteCount > summary.notes.size()) {
        text += fmt::format("and {} more notes\n", summary.noteCount - summary.notes.size());
    }
    if (summary.otherMessages != 0) {
        text += fmt::format("{} messages of other types are passed over\n", summary.otherMessages);
    }
    for (const auto& damage : summary.damages) {
        text += "damaged: " + common::Escaped(damage) + '\n';
    }
    const std::string missing = MissingOf(summary);
    return missing.empty() ? text : text + "incomplete: " + common::Escaped(missing) + '\n';
}

std::string ToJson(const Summary& summary) {
    auto topics = nlohmann::ordered_json::array();
    for (const auto& topic : summary.topics) {
        topics.push_back({{"topic", common::Escaped(topic.channel.topic)},
                          {"values", topic.values},
                          {"first_unix_ns", topic.first.time_since_epoch().count()},
                          {"last_unix_ns", topic.last.time_since_epoch().count()},
                          {"float", topic.channel.isFloat},
                          {"description", topic.channel.description}});
    }
    auto notes = nlohmann::ordered_json::array();
    for (const auto& note : summary.notes) {
        notes.push_back({{"name", note.name}, {"texts", note.texts}});
    }
    const std::string missing = MissingOf(summary);
    return terminal::JsonLine({{"values", summary.values},
                               {"bytes", summary.fileBytes},
                               {"library", summary.writtenBy},
                               {"topics", topics},
                               {"notes", notes},
                               {"note_count", summary.noteCount},
                               {"other_messages", summary.otherMessages},
                               {"damages", summary.damages},
                               {"complete", missing.empty()},
                               {"missing", missing}});
}

void AddInspectCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand("inspect", "Print what is in a recording, and what is missing.", "Recordings");
    struct Words {
        std::string file;
        bool isJson = false;
    };
    const auto words = std::make_shared<Words>();
    command.add_option("FILE", words->file, "recording")->type_name("FILE")->required();
    command.add_flag("--json", words->isJson, "print one JSON object on one line");
    command.notes.exitStatuses = {{"0", "the file is complete, or was only cut"},
                                  {"1", "it is damaged, and the rest was read; or it cannot be read"},
                                  {"2", "usage error"}};
    command.notes.examples = {{"msgbus inspect drive.mcap", "Topics, rates, losses"}};
    command.callback([&chosen, words] {
        chosen = [words] {
            const Summary summary = Summarize(words->file);
            terminal::WriteOut(words->isJson ? ToJson(summary) : ToText(summary));
            return summary.damages.empty() ? ExitStatus::Done : ExitStatus::Failed;
        };
    });
}

} // namespace recordings
