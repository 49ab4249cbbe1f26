#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <vector>

namespace command_line {

/// A name with its meaning: a variable, an exit status, a signal, a file.
struct Entry {
    std::string name;
    std::string meaning;
};

struct Example {
    std::string command;
    std::string meaning;
};

/// What the help and the manual say of a command beside its options.
struct Notes {
    std::vector<std::string> description; ///< paragraphs behind the summary
    std::vector<Entry> environment;
    std::vector<Entry> files;
    std::vector<Entry> signals;
    std::vector<Entry> exitStatuses;
    std::vector<Example> examples;
};

/// A command line, or one of its commands: the options as the parser has them, and the notes. The help and the manual
/// are made from both, so that a fact stands in one place. Options are added with the functions of CLI::App.
class Command final : public CLI::App {
public:
    /// `summary`: one sentence.
    Command(const std::string& name, const std::string& summary);

    /// Adds a command, which is listed under the heading `group`; an empty one hides it. Lifetime: that of this object.
    Command& AddCommand(const std::string& name, const std::string& summary, const std::string& group);

    /// Returns: the commands of this one, in the order in which they were added.
    std::vector<const Command*> Commands() const;
    /// Returns: the command of that name, or nullptr.
    const Command* Find(const std::string& name) const;
    /// Returns: the innermost command that the last parsing has met: this one, or one of its commands.
    const Command& Parsed() const;
    /// Returns: the name behind those of the commands that this one belongs to: "msgbus sub".
    std::string Path() const;

    Notes notes;
};

/// Adds an option whose value may be left out: `--wait` or `--wait=5s`, never `--wait 5s`.
CLI::Option* AddOptionWithOptionalValue(CLI::App& command, const std::string& names, const std::string& typeName,
                                        const std::string& meaning);

/// Returns: the value that such an option was given last, empty for none; nothing when it was not given.
std::optional<std::string> OptionalValueOf(const CLI::Option& option);

/// Parses a command line, in which options may stand before the command too. Throws: as CLI::App::parse.
void Parse(Command& program, int argc, const char* const* argv);

/// Prints the help or the version on stdout, or what is wrong on stderr, as `error` of Parse asks for.
/// Returns: whether nothing was wrong.
bool Report(const Command& program, const CLI::ParseError& error);

/// Prints the help on stdout, as wide as the terminal.
void PrintHelp(const Command& command);

} // namespace command_line
