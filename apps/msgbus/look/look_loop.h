#pragma once

#include "end_watch.h"
#include "exit_status.h"
#include "instruments/snapshot.h"

#include <chrono>

// What commands that look again and again have in common.

namespace look {

/// Blocks: for `time`. Returns: false, at once, when the program is to end.
bool Pause(const EndWatch& watch, std::chrono::milliseconds time);

/// Returns: the exit status of a command that was ended.
ExitStatus StatusOf(const EndWatch& watch);

/// Returns: whether the server will write nothing more.
bool HasEnded(const instruments::ServerAccount& server);

} // namespace look
