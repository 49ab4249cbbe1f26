#pragma once

#include "action.h"
#include "command_line/command.h"

#include <memory>

/// Returns: the command line of msgbus. What a parsed command is to do is put into `chosen`, which must outlive it.
std::unique_ptr<command_line::Command> MakeProgram(Action& chosen);

/// Returns: the exit status for a command line that cannot be used: `check` has its own.
int UsageStatus(const command_line::Command& program);
