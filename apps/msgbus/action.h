#pragma once

#include "exit_status.h"

#include <functional>

/// What the command line has chosen to do. It throws what the client library throws, instruments::NoAccountError,
/// instruments::AccountError, std::invalid_argument for what is wrong on the command line, std::system_error.
using Action = std::function<ExitStatus()>;

/// Runs `action`, and prints the sentence of what it throws on stderr. Returns: the status of the program.
ExitStatus Run(const Action& action);
