#pragma once

#include "action.h"
#include "command_line/command.h"

#include <optional>
#include <string>

namespace explain {

/// Returns: what a code means and what to do about it, as lines of text; nothing for a code that is not used. The codes
/// from 0 to 10 are results of the bus, those below 0 statuses of the platform.
std::optional<std::string> CodeText(std::int32_t code);

/// Adds `msgbus errors`. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddErrorsCommand(command_line::Command& program, Action& chosen);

} // namespace explain
