#pragma once

#include "action.h"
#include "command_line/command.h"

namespace recordings {

/// Adds `msgbus export`. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddExportCommand(command_line::Command& program, Action& chosen);

} // namespace recordings
