#pragma once

#include "base/unique_fd.h"
#include "names/peer.h"

#include <memory>

namespace borven_host {

/// Returns: a descriptor of the server's process, which all connections to that process share; empty when the peer has
/// none. Moves from `server.process`. Threads: any.
std::shared_ptr<const UniqueFd> ShareProcess(Peer& server);

} // namespace borven_host
