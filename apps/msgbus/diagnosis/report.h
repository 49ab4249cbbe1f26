#pragma once

#include "exit_status.h"

#include <optional>
#include <string>

namespace diagnosis {

/// `msgbus report`
struct ReportArguments {
    std::optional<std::string> account;
    std::optional<std::string> output; ///< unset: a name with the time, in the working directory
    std::optional<std::string> log;    ///< a file; unset: what the server logs to, if that can be found
};

/// Runs `msgbus report`: collects in one archive what helps to find a fault of the bus, and prints what that is. The
/// values of topics are not in it. Without an account, or with a damaged one, the rest is collected all the same.
/// Throws: std::invalid_argument when `log` cannot be read; std::runtime_error; std::system_error.
ExitStatus Report(const ReportArguments& arguments);

} // namespace diagnosis
