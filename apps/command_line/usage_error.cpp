#include "usage_error.h"

#include "common/escape.h"
#include "nearest.h"

#include <string_view>

namespace command_line {

namespace {

std::string Quoted(const std::string& word) {
    return "'" + common::Escaped(word) + "'";
}

std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates) {
    const auto nearest = Nearest(word, candidates);
    return nearest ? "; did you mean '" + *nearest + "'?" : "";
}

std::vector<std::string> LongNamesOf(const Command& command) {
    std::vector<std::string> names;
    for (const auto* option : command.get_options()) {
        for (const auto& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

std::string DescribeUnknownOption(const Command& command, const std::string& word) {
    const std::string name = word.substr(0, word.find('='));
    std::string sentence = "unknown option " + Quoted(name);
    if (command.get_parent() != nullptr) {
        sentence += " of '" + command.Path() + "'";
    }
    return sentence + (name.starts_with("--") ? Suggestion(name, LongNamesOf(command)) : "");
}

/// Returns: what stands before `mark` in the message of the library.
std::string Before(const std::string& message, std::string_view mark) {
    return message.substr(0, message.find(mark));
}

std::string DescribeMismatch(const std::string& message) {
    const std::string option = Before(message, ":");
    if (message.find(" missing") != std::string::npos) {
        return "option '" + option + "' needs a value";
    }
    return message.find(": At Most") != std::string::npos ? "option '" + option + "' may be given only once" : message;
}

std::string DescribeConversion(const Command& command, const std::string& message) {
    constexpr std::string_view start = "Could not convert: ";
    constexpr std::string_view equals = " = ";
    const auto middle = message.find(equals);
    if (!message.starts_with(start) || middle == std::string::npos) {
        return "option '" + Before(message, ":") + "' takes no value"; // of flags the library says what they are like
    }
    const std::string name = message.substr(start.size(), middle - start.size());
    const auto* const option = command.get_option_no_throw(name);
    return option != nullptr && option->get_items_expected_max() == 0
               ? "option '" + name + "' takes no value"
               : name + ": '" + message.substr(middle + equals.size()) + "' cannot be used";
}

/// Arguments that are options, too, are called by the name that the usage shows.
std::string DescribeRequirement(const Command& command, const std::string& message) {
    constexpr std::string_view mark = " is required";
    const auto* const option = command.get_option_no_throw(Before(message, mark));
    return option != nullptr && option->get_positional() ? option->get_name(true) + std::string(mark) : message;
}

} // namespace

std::string DescribeUnknownCommand(const Command& program, const std::string& word) {
    std::vector<std::string> names;
    for (const auto* command : program.Commands()) {
        if (!command->get_group().empty()) { // hidden
            names.push_back(command->get_name());
        }
    }
    return "unknown command " + Quoted(word) + Suggestion(word, names);
}

std::string DescribeUsageError(const Command& program, const CLI::Error& error) {
    const auto code = static_cast<CLI::ExitCodes>(error.get_exit_code());
    const Command& command = program.Parsed();
    const auto words = program.remaining(true);
    for (const auto& word : words) {
        if (word.size() > 1 && word.starts_with('-')) {
            return DescribeUnknownOption(command, word);
        }
    }
    const bool lacksCommand = code == CLI::ExitCodes::RequiredError && program.get_subcommands().empty() &&
                              program.get_require_subcommand_min() > 0;
    if (lacksCommand) {
        return words.empty() ? "no command given" : DescribeUnknownCommand(program, words.front());
    }
    if (code == CLI::ExitCodes::ExtrasError && !words.empty()) {
        return "unexpected argument " + Quoted(words.front());
    }
    const std::string message = common::Escaped(error.what());
    switch (code) {
    case CLI::ExitCodes::ArgumentMismatch:
        return DescribeMismatch(message);
    case CLI::ExitCodes::RequiredError:
        return DescribeRequirement(command, message);
    case CLI::ExitCodes::ConversionError:
        return DescribeConversion(command, message);
    default:
        return message;
    }
}

} // namespace command_line
