#include "recordings/export.h"

#include "arguments.h"
#include "receive/message_format.h"
#include "recording/recording_reader.h"
#include "terminal/write_out.h"

#include <bit>
#include <memory>
#include <stdexcept>

namespace recordings {

namespace {

receive::Style ParseStyle(const std::string& word) {
    if (word == "jsonl") {
        return receive::Style::Json;
    }
    if (word == "csv") {
        return receive::Style::Csv;
    }
    throw std::invalid_argument("'" + word + "' is not a format; there is jsonl and csv");
}

receive::Receipt ReceiptAt(recording::Time time) {
    return {std::chrono::time_point_cast<std::chrono::system_clock::duration>(time),
            std::chrono::steady_clock::time_point(time.time_since_epoch())};
}

/// Prints the values. Returns: false when the reader of standard output is gone. Throws: recording::RecordingError;
/// then `text` has what is still to be printed.
bool PrintAll(recording::RecordingReader& reader, receive::MessageFormat& format, std::string& text) {
    constexpr std::size_t writeSize = 65536;
    while (const auto item = reader.Next()) {
        const auto* const message = std::get_if<recording::Message>(&*item);
        if (message == nullptr) {
            continue;
        }
        const receive::Receipt receipt = ReceiptAt(message->time);
        const recording::Channel& channel = reader.Channels().at(message->channel);
        receive::Received received{{channel.topic, message->value}, message->sequence, receipt};
        if (channel.isFloat) {
            received.number = std::bit_cast<double>(message->value);
        }
        text += format.Line(received);
        if (text.size() >= writeSize) {
            if (!terminal::WriteOut(text)) {
                return false;
            }
            text.clear();
        }
    }
    return terminal::WriteOut(text);
}

ExitStatus Export(const std::string& file, receive::Style style) {
    recording::RecordingReader reader(file);
    const auto format = MakeFormat(style, std::nullopt, "", {}); // which shows no time since a subscription
    std::string text = format->Header();
    try {
        if (!PrintAll(reader, *format, text)) {
            return ExitStatus::Done;
        }
    } catch (const recording::RecordingError&) {
        terminal::WriteOut(text);
        throw;
    }
    if (!reader.End().isComplete) {
        Say("the recording is incomplete: " + reader.End().reason);
    }
    return ExitStatus::Done;
}

} // namespace

void AddExportCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand("export", "Print the values of a recording as text.", "Recordings");
    struct Words {
        std::string file;
        std::string format;
    };
    const auto words = std::make_shared<Words>();
    command.add_option("FILE", words->file, "recording")->type_name("FILE")->required();
    command.add_option("--to", words->format, "one JSON object on each line, or comma-separated values")
        ->type_name("jsonl|csv")
        ->required();
    command.notes.description = {
        "As 'msgbus sub --json' and 'msgbus sub --csv' print them, with the times of the recording; seq "
        "counts the values of a topic from 0. Values are integers of 64 bits; of a topic that is described as float64 "
        "they are the numbers, with "
        "the integer that has their bits as raw in jsonl."};
    command.notes.exitStatuses = Describe({ExitStatus::Done, ExitStatus::Failed, ExitStatus::Usage});
    command.notes.examples = {{"msgbus export drive.mcap --to csv > drive.csv", "For a spreadsheet"}};
    command.callback([&chosen, words] { chosen = [words] { return Export(words->file, ParseStyle(words->format)); }; });
}

} // namespace recordings
