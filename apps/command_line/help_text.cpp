#include "manual.h"

#include <algorithm>
#include <sstream>

namespace command_line {

namespace {

constexpr std::size_t Indent = 2;

/// Appends `text` in lines of at most `width` columns, which begin in column `column`; the first line has `used`
/// columns already.
void AppendWrapped(std::string& help, const std::string& text, std::size_t column, std::size_t used,
                   std::size_t width) {
    std::istringstream words(text);
    std::string word;
    while (words >> word) {
        const bool isFirst = used <= column;
        if (!isFirst && used + 1 + word.size() > width) {
            help += '\n';
            used = 0;
        } else if (!isFirst) {
            help += ' ';
            ++used;
        }
        if (used < column) {
            help.append(column - used, ' ');
            used = column;
        }
        help += word;
        used += word.size();
    }
    help += '\n';
}

void AppendSection(std::string& help, const Section& section, std::size_t width) {
    constexpr std::size_t widestName = 26; // the meaning of a wider one begins on a line of its own
    std::size_t column = 0;
    for (const auto& entry : section.entries) {
        column = std::max(column, std::min(entry.name.size(), widestName));
    }
    column += 2 * Indent;
    help += '\n' + section.title + ":\n";
    for (const auto& entry : section.entries) {
        help += std::string(Indent, ' ') + entry.name;
        std::size_t used = Indent + entry.name.size();
        if (used + Indent > column) {
            help += '\n';
            used = 0;
        }
        AppendWrapped(help, entry.meaning, column, used, width);
    }
}

} // namespace

std::string HelpText(const Command& command, std::size_t width) {
    std::string help = "Usage: " + UsageOf(command) + "\n\n";
    AppendWrapped(help, command.get_description(), 0, 0, width);
    for (const auto& paragraph : command.notes.description) {
        help += '\n';
        AppendWrapped(help, paragraph, 0, 0, width);
    }
    for (const auto& sections : {OptionsOf(command), CommandsOf(command), NotesOf(command)}) {
        for (const auto& section : sections) {
            AppendSection(help, section, width);
        }
    }
    if (!command.Commands().empty()) {
        help += "\nSee '" + command.Path() + " COMMAND --help' for the options of a command.\n";
    }
    if (!command.notes.examples.empty()) {
        help += "\nExamples:\n";
        for (const auto& example : command.notes.examples) {
            help += std::string(Indent, ' ') + example.command + '\n';
            AppendWrapped(help, example.meaning, 3 * Indent, 0, width);
        }
    }
    return help;
}

} // namespace command_line
