#pragma once

#include "command.h"

#include <string>

namespace command_line {

/// Returns: what is wrong with the command line, as one sentence without full stop; what it quotes is escaped.
std::string DescribeUsageError(const Command& program, const CLI::Error& error);

/// Returns: "unknown command 'x'", with the command that was probably meant.
std::string DescribeUnknownCommand(const Command& program, const std::string& word);

} // namespace command_line
