#pragma once

#include "action.h"
#include "bus_options.h"

#include <cstdint>
#include <string>
#include <vector>

namespace stream {

/// `msgbus stream`
struct Arguments {
    BusAccess access;
    std::vector<std::string> topics;
    std::string name;
    std::uint16_t port = 8765; ///< 0: a free one
    std::vector<std::string> origins;
    bool letsAnyUserIn = false;
};

/// Runs `msgbus stream`: serves the values of topics over WebSocket on 127.0.0.1 until a signal.
/// Throws: what the client library throws; std::invalid_argument; std::system_error when the port cannot be had.
ExitStatus Stream(const Arguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddCommand(command_line::Command& program, Action& chosen);

} // namespace stream
