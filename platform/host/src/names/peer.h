#pragma once

#include "base/unique_fd.h"

#include <cstdint>
#include <sys/types.h>

namespace borven_host {

/// The process at the other end of a socket, as it was when the connection was made.
struct Peer {
    pid_t pid = 0;
    UniqueFd process; ///< readable once the process is gone; empty where the kernel does not offer it
};

/// Returns: 0 and `peer`; KnStatusDenied when it belongs to another user; KnStatusPeerGone; KnStatusNoResources.
std::int32_t IdentifyPeer(int socket, Peer& peer);

} // namespace borven_host
