#pragma once

#include "exit_status.h"

#include <CLI/CLI.hpp>

#include <functional>

/// What the command line has chosen to do.
using Action = std::function<ExitStatus()>;

/// Adds the commands that look into the bus. The one that is parsed puts what it does into `chosen`, which must outlive
/// the parsing. Such an action throws what the client library throws, instruments::NoAccountError,
/// instruments::AccountError, std::invalid_argument for what is wrong on the command line, std::system_error.
void AddLookCommands(CLI::App& app, Action& chosen);

/// Returns: the exit status for a command line that cannot be used: `check` has its own.
int UsageStatus(const CLI::App& app);
