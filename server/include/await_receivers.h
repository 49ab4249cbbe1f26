#pragma once

#include "ipc_server.h"

#include <string>

namespace msgbus_server {

/// Waits until a thread receives on every channel of this server: connects to each as a client does, and makes a call
/// that the platform answers, because its record has no size; the bus never sees it. The host platform answers it on
/// the thread that receives it. Where the platform answers it sooner, it shows only that the client was accepted.
///
/// In dynamic mode the bus starts the dispatcher of a service when the service gets its first client. This is that
/// client, so no later one makes the bus start a thread.
///
/// Returns: empty, or which channel does not answer, for the operator.
/// Blocks: until then; until the server ends close when a dispatcher could not be started.
std::string AwaitReceivers(message_bus::ConnectionType type);

} // namespace msgbus_server
