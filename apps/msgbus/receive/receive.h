#pragma once

#include "action.h"
#include "bus_options.h"
#include "receive/message_format.h"
#include "topics/subscribe.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace receive {

/// `msgbus sub`
struct Arguments {
    BusAccess access;
    topics::Selection topics;
    std::string name;
    std::optional<std::uint64_t> count;
    std::optional<std::chrono::milliseconds> timeLimit;
    std::optional<std::chrono::milliseconds> idleLimit;
    Style style = Style::Lines;
    std::optional<TimeStyle> time;
    std::optional<std::string> pattern; ///< of a format of the user's own, in place of `style` and `time`
};

/// Runs `msgbus sub`: subscribes, prints, unregisters.
/// Throws: what the client library throws; std::invalid_argument; std::system_error.
ExitStatus Receive(const Arguments& arguments);

/// Returns: a name for a subscriber of this process, which shows the user and the process.
std::string DefaultName();

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddCommand(command_line::Command& program, Action& chosen);

} // namespace receive
