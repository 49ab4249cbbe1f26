#pragma once

#include "action.h"
#include "bus_options.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace publish {

enum class Source { List, Input, Clock };

/// `msgbus pub`
struct Arguments {
    BusAccess access;
    std::string topic;
    Source source = Source::List;
    std::vector<std::int64_t> values;                 ///< Source::List
    bool skipsEmptyLines = false;                     ///< Source::Input
    std::uint64_t repetitions = 1;                    ///< not of Source::Input; Forever: until the program is ended
    std::optional<std::chrono::nanoseconds> interval; ///< between two values
    bool isVerbose = false;
};

/// Runs `msgbus pub`: registers, publishes, unregisters.
/// Throws: what the client library throws; std::invalid_argument for a bad value; std::system_error.
ExitStatus Publish(const Arguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddCommand(command_line::Command& program, Action& chosen);

} // namespace publish
