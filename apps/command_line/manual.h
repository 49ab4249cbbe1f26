#pragma once

#include "command.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The help and the manual of a command line, made from its options and notes.

namespace command_line {

/// Entries under one heading.
struct Section {
    std::string title;
    std::vector<Entry> entries;
};

/// Returns: "msgbus sub [OPTION...] TOPIC...".
std::string UsageOf(const Command& command);

/// Returns: the arguments, then each group of options, in the order in which the first of each was added; with their
/// values, as in "-n, --count COUNT".
std::vector<Section> OptionsOf(const Command& command);

/// Returns: the commands, with their summaries, in their groups.
std::vector<Section> CommandsOf(const Command& command);

/// Returns: those of environment, files, signals and exit statuses that the command has notes about.
std::vector<Section> NotesOf(const Command& command);

/// Returns: what --help prints, in lines of at most `width` columns where words permit.
std::string HelpText(const Command& command, std::size_t width);

/// What stands in the margins of a manual page.
struct ManualMargins {
    std::string section; ///< "1", or "8" for what an administrator runs
    std::string date;    ///< "2026-11-23"
    std::string source;  ///< "msgbus 1.0.0"
};

/// Returns: the manual page of a program and its commands, for man(1). `seeAlso`: pages as in "msgbusd(8)".
std::string ManualPage(const Command& program, const ManualMargins& margins, const std::vector<std::string>& seeAlso);

/// Returns: the same as a page in Markdown.
std::string MarkdownPage(const Command& program);

} // namespace command_line
