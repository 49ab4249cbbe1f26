#include "command.h"

#include "manual.h"
#include "usage_error.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <utility>

namespace command_line {

namespace {

/// Returns: the columns for help on the standard stream `descriptor`.
std::size_t WidthOf(int descriptor) {
    constexpr std::size_t least = 60;
    constexpr std::size_t most = 100; // longer lines are hard to read
    winsize size{};
    const bool isTerminal = ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return isTerminal ? std::clamp<std::size_t>(size.ws_col, least, most) : most;
}

/// Returns: whether `word`, an option before the command, takes the next word as its value.
bool TakesNextWord(const Command& program, const std::string& word) {
    if (word.size() < 2 || word.find('=') != std::string::npos) {
        return false;
    }
    const bool isShort = word[1] != '-';
    if (isShort && word.size() > 2) {
        return false; // the value follows at once
    }
    for (const auto* command : program.Commands()) {
        if (const auto* option = command->get_option_no_throw(word); option != nullptr) {
            return option->get_items_expected_max() != 0;
        }
    }
    return false;
}

/// Returns: `words` with what stands before the command moved behind it; the same if there is no command, or the first
/// word is an option of the program itself.
std::vector<std::string> WithCommandFirst(const Command& program, std::vector<std::string> words) {
    std::size_t position = 0;
    while (position < words.size() && words[position].starts_with('-')) {
        if (words[position] == "--" || program.get_option_no_throw(words[position]) != nullptr) {
            return words;
        }
        position += TakesNextWord(program, words[position]) ? 2 : 1;
    }
    if (position < words.size() && program.Find(words[position]) != nullptr) {
        const auto command = words.begin() + static_cast<std::ptrdiff_t>(position);
        std::rotate(words.begin(), command, command + 1);
    }
    return words;
}

} // namespace

Command::Command(const std::string& name, const std::string& summary) : App(summary, name) {
    set_help_flag("-h,--help", "print this help and exit");
}

Command& Command::AddCommand(const std::string& name, const std::string& summary, const std::string& group) {
    auto command = std::make_shared<Command>(name, summary);
    command->group(group);
    add_subcommand(command);
    return *command;
}

std::vector<const Command*> Command::Commands() const {
    std::vector<const Command*> commands;
    for (const auto* command : get_subcommands([](const CLI::App*) { return true; })) {
        commands.push_back(dynamic_cast<const Command*>(command));
    }
    return commands;
}

const Command* Command::Find(const std::string& name) const {
    const auto commands = Commands();
    const auto found =
        std::find_if(commands.begin(), commands.end(), [&](const Command* each) { return each->get_name() == name; });
    return found == commands.end() ? nullptr : *found;
}

const Command& Command::Parsed() const {
    const auto parsed = get_subcommands();
    return parsed.empty() ? *this : dynamic_cast<const Command&>(*parsed.back()).Parsed();
}

std::string Command::Path() const {
    const auto* const parent = dynamic_cast<const Command*>(get_parent());
    return (parent == nullptr ? "" : parent->Path() + ' ') + get_name();
}

CLI::Option* AddOptionWithOptionalValue(CLI::App& command, const std::string& names, const std::string& typeName,
                                        const std::string& meaning) {
    return command.add_flag(names, meaning)->type_name(typeName);
}

std::optional<std::string> OptionalValueOf(const CLI::Option& option) {
    if (option.count() == 0) {
        return std::nullopt;
    }
    const std::string& last = option.results().back();
    return last == "true" ? "" : last; // what the parser stores when there is no value
}

void Parse(Command& program, int argc, const char* const* argv) {
    auto words = WithCommandFirst(program, {argv + std::min(argc, 1), argv + argc});
    std::reverse(words.begin(), words.end()); // as the parser expects them
    program.parse(std::move(words));
}

bool Report(const Command& program, const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        if (error.get_name() == "CallForHelp") {
            PrintHelp(program.Parsed());
        } else {
            std::cout << error.what() << '\n' << std::flush; // the version
        }
        return true;
    }
    std::cerr << program.get_name() << ": " << DescribeUsageError(program, error) << '\n';
    const bool isEmpty = program.get_subcommands().empty() && program.remaining(true).empty();
    if (isEmpty && program.get_require_subcommand_min() > 0) {
        std::cerr << '\n' << HelpText(program, WidthOf(STDERR_FILENO));
    } else {
        std::cerr << "See '" << program.Parsed().Path() << " --help'.\n";
    }
    std::cerr << std::flush;
    return false;
}

void PrintHelp(const Command& command) {
    std::cout << HelpText(command, WidthOf(STDOUT_FILENO)) << std::flush;
}

} // namespace command_line
