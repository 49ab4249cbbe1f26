#pragma once

#include "command_line/command.h"
#include "msgbusd/options/settings.h"

#include <memory>
#include <optional>
#include <string>

namespace msgbusd {

constexpr int ExitUsage = 2;

struct ChosenOptions {
    Settings settings;
    std::string asCommandLine; ///< those that differ from the defaults, whatever they come from
    std::string configFile;    ///< that was read; empty: none
    std::vector<std::string> warnings;
};

/// Returns: the program's command line, with its notes, for help and manual.
std::unique_ptr<command_line::Command> MakeCommand();

/// Reads the command line, the environment and the file that they name, and prints what the command line asks for or
/// what is wrong. Returns: nothing to go on with `chosen`, or the exit status.
std::optional<int> ReadOptions(int argc, const char* const* argv, ChosenOptions& chosen);

} // namespace msgbusd
