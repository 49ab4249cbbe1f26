#include "manual.h"

#include <algorithm>
#include <cctype>

// The language of man(7). A page is made of few macros: TH its header, SH and SS headings, PP a paragraph, TP an entry,
// EX and EE what is shown as it stands.

namespace command_line {

namespace {

/// Returns: `text` so that troff prints these characters.
std::string Plain(const std::string& text) {
    std::string plain;
    for (const char c : text) {
        switch (c) {
        case '\\':
            plain += "\\e";
            break;
        case '-':
            plain += "\\-";
            break;
        case '\'':
            plain += "\\(aq";
            break;
        case '`':
            plain += "\\(ga";
            break;
        case '^':
            plain += "\\(ha";
            break;
        case '~':
            plain += "\\(ti";
            break;
        default:
            plain += c;
        }
    }
    return plain.starts_with('.') ? "\\&" + plain : plain;
}

std::string Bold(const std::string& text) {
    return "\\fB" + Plain(text) + "\\fR";
}

std::string Upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); });
    return text;
}

std::string Paragraph(const std::string& text) {
    return ".PP\n" + Plain(text) + '\n';
}

std::string EntriesOf(const Section& section) {
    std::string page;
    for (const auto& entry : section.entries) {
        page += ".TP\n" + Bold(entry.name) + '\n' + Plain(entry.meaning) + '\n';
    }
    return page;
}

/// Returns: what follows a heading.
std::string ExamplesOf(const Command& command) {
    std::string page;
    for (const auto& example : command.notes.examples) {
        page += (page.empty() ? "" : ".PP\n") + Plain(example.meaning) + ":\n.PP\n.in +4n\n.EX\n" +
                Plain(example.command) + "\n.EE\n.in\n";
    }
    return page;
}

std::string CommandPart(const Command& command) {
    std::string page = ".SS " + Bold(UsageOf(command)) + '\n' + Plain(command.get_description()) + '\n';
    for (const auto& paragraph : command.notes.description) {
        page += Paragraph(paragraph);
    }
    for (const auto& sections : {OptionsOf(command), NotesOf(command)}) {
        for (const auto& section : sections) {
            page += ".PP\n" + Bold(section.title + ':') + '\n' + EntriesOf(section);
        }
    }
    return command.notes.examples.empty() ? page : page + ".PP\n" + Bold("Examples:") + "\n.PP\n" + ExamplesOf(command);
}

/// Returns: the summary as the line of NAME has it, without capital and full stop.
std::string NameLine(const Command& program) {
    std::string summary = program.get_description();
    if (summary.ends_with('.')) {
        summary.pop_back();
    }
    if (!summary.empty()) {
        summary.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(summary.front())));
    }
    return Plain(program.get_name()) + " \\- " + Plain(summary) + '\n';
}

} // namespace

std::string ManualPage(const Command& program, const ManualMargins& margins, const std::vector<std::string>& seeAlso) {
    std::string page = ".TH " + Upper(program.get_name()) + ' ' + margins.section + " \"" + margins.date + "\" \"" +
                       Plain(margins.source) + "\"\n.SH NAME\n" + NameLine(program) + ".SH SYNOPSIS\n" +
                       Bold(UsageOf(program)) + '\n' + ".SH DESCRIPTION\n" + Plain(program.get_description()) + '\n';
    for (const auto& paragraph : program.notes.description) {
        page += Paragraph(paragraph);
    }
    for (const auto& section : OptionsOf(program)) {
        page += ".SH " + Upper(section.title) + '\n' + EntriesOf(section);
    }
    for (const auto& section : CommandsOf(program)) {
        page += ".SH " + Upper(section.title) + '\n';
        for (const auto& entry : section.entries) {
            page += CommandPart(*program.Find(entry.name));
        }
    }
    for (const auto& section : NotesOf(program)) {
        page += ".SH " + Upper(section.title) + '\n' + EntriesOf(section);
    }
    if (!program.notes.examples.empty()) {
        page += ".SH EXAMPLES\n" + ExamplesOf(program);
    }
    if (!seeAlso.empty()) {
        page += ".SH SEE ALSO\n";
        for (const auto& other : seeAlso) {
            const auto bracket = other.find('(');
            page += ".BR " + Plain(other.substr(0, bracket)) + ' ' + other.substr(bracket) +
                    (&other == &seeAlso.back() ? "\n" : ",\n");
        }
    }
    return page;
}

} // namespace command_line
