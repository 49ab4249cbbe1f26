#pragma once

#include "action.h"
#include "command_line/command.h"

namespace completion {

/// Adds `msgbus completion`, which prints what a shell needs to complete command lines, and the hidden command that
/// this then calls. The action is put into `chosen`, which must outlive the parsing, when one is parsed.
void AddCommands(command_line::Command& program, Action& chosen);

} // namespace completion
