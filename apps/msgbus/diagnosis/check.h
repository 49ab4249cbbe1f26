#pragma once

#include "exit_status.h"

#include <optional>
#include <string>

namespace diagnosis {

/// `msgbus check`. The thresholds are what was on the command line.
struct CheckArguments {
    struct Limits {
        std::optional<std::string> warning;
        std::optional<std::string> critical;
    };

    std::optional<std::string> account;
    Limits lag, age, drops, inbound, away;
    std::string format = "nagios"; ///< or "json", "prometheus"
};

/// Runs `msgbus check`. Returns: not a status of this program but that of a monitoring plug-in: 0 OK, 1 WARNING,
/// 2 CRITICAL, 3 UNKNOWN, which is also for what is wrong on the command line. Throws: std::system_error.
ExitStatus Check(const CheckArguments& arguments);

} // namespace diagnosis
