#pragma once

#include "action.h"
#include "command_line/command.h"

/// Adds the commands that look into the bus. The one that is parsed puts what it does into `chosen`, which must outlive
/// the parsing.
void AddLookCommands(command_line::Command& program, Action& chosen);
