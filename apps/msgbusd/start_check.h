#pragma once

#include "ipc_server.h"

#include <stdexcept>

namespace msgbusd {

/// The server cannot start: what() is one sentence that names the thing in the way, and what to do where that is known.
class StartError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Looks for what would keep the bus from being served: the runtime directory, another server, too few descriptors. The
/// bus finds out by itself, too, but leaves several lines in the log, none of which has everything.
/// Throws: StartError. Requires: no other thread logs.
void CheckStart(message_bus::ConnectionType type);

} // namespace msgbusd
