#include "manual.h"

namespace command_line {

namespace {

/// Returns: `text` so that Markdown, and the HTML made of it, show these characters.
std::string Plain(const std::string& text) {
    std::string plain;
    for (const char c : text) {
        switch (c) {
        case '<':
            plain += "&lt;";
            break;
        case '>':
            plain += "&gt;";
            break;
        case '&':
            plain += "&amp;";
            break;
        case '*':
        case '_':
        case '`':
        case '[':
        case ']':
        case '\\':
        case '|':
            plain += '\\';
            plain += c;
            break;
        default:
            plain += c;
        }
    }
    return plain;
}

std::string Table(const Section& section, bool isLinked) {
    std::string page = "| | |\n|---|---|\n";
    for (const auto& entry : section.entries) {
        std::string name = "`" + entry.name + "`";
        for (auto bar = name.find('|'); bar != std::string::npos; bar = name.find('|', bar + 2)) {
            name.insert(bar, 1, '\\'); // even in code it would end the cell
        }
        page +=
            "| " + (isLinked ? "[" + name + "](#" + entry.name + ")" : name) + " | " + Plain(entry.meaning) + " |\n";
    }
    return page;
}

std::string PartOf(const Command& command, const std::string& heading) {
    std::string page = "```text\n" + UsageOf(command) + "\n```\n\n" + Plain(command.get_description()) + '\n';
    for (const auto& paragraph : command.notes.description) {
        page += '\n' + Plain(paragraph) + '\n';
    }
    for (const auto& section : OptionsOf(command)) {
        page += '\n' + heading + ' ' + section.title + "\n\n" + Table(section, false);
    }
    for (const auto& section : CommandsOf(command)) {
        page += '\n' + heading + ' ' + section.title + "\n\n" + Table(section, true);
    }
    for (const auto& section : NotesOf(command)) {
        page += '\n' + heading + ' ' + section.title + "\n\n" + Table(section, false);
    }
    if (!command.notes.examples.empty()) {
        page += '\n' + heading + " Examples\n";
        for (const auto& example : command.notes.examples) {
            page += '\n' + Plain(example.meaning) + ":\n\n```sh\n" + example.command + "\n```\n";
        }
    }
    return page;
}

} // namespace

std::string MarkdownPage(const Command& program) {
    std::string page = "# " + program.get_name() + "\n\n" + PartOf(program, "##");
    for (const auto* command : program.Commands()) {
        if (command->get_group().empty()) { // hidden
            continue;
        }
        page += "\n## " + command->get_name() + "\n\n" + PartOf(*command, "###");
    }
    return page;
}

} // namespace command_line
