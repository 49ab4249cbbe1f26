#pragma once

#include "action.h"
#include "command_line/command.h"
#include "recordings/summary.h"

#include <string>

namespace recordings {

/// Returns: the summary for people; what is missing stands at the end.
std::string ToText(const Summary& summary);
/// Returns: one object on one line.
std::string ToJson(const Summary& summary);

/// Adds `msgbus inspect`. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddInspectCommand(command_line::Command& program, Action& chosen);

} // namespace recordings
