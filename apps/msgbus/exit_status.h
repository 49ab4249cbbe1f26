#pragma once

#include "command_line/command.h"

#include <initializer_list>
#include <vector>

/// The exit statuses of msgbus.
enum class ExitStatus : int {
    Done = 0,
    Failed = 1,
    Usage = 2,
    Refused = 3,    ///< by the bus
    NoServer = 4,   ///< no server was found, or the server is gone or does not answer
    TimedOut = 124, ///< as timeout(1)
};

/// Returns: what the help says about these statuses.
std::vector<command_line::Entry> Describe(std::initializer_list<ExitStatus> statuses);
