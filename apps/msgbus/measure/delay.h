#pragma once

#include "action.h"
#include "bus_options.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace measure {

/// `msgbus delay`
struct DelayArguments {
    BusAccess access;
    std::string topic;
    std::string name;
    std::optional<std::uint64_t> count;
    std::optional<std::chrono::milliseconds> timeLimit;
    std::chrono::milliseconds interval{1000}; ///< between two lines
    bool json = false;
};

/// Runs `msgbus delay`: prints how old the values of a topic are that are readings of the clock, in nanoseconds since
/// 1970. Throws: what the client library throws; std::runtime_error for a value that is no such reading;
/// std::system_error.
ExitStatus Delay(const DelayArguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddDelayCommand(command_line::Command& program, Action& chosen);

} // namespace measure
