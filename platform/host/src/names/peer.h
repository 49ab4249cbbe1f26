#pragma once

#include "base/unique_fd.h"

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace borven_host {

/// The process at the other end of a socket, as it was when the connection was made.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::uint64_t startTime = 0;     ///< in clock ticks since the system started; 0: not known
    std::string program = "unknown"; ///< its name; characters that could confuse a log or a file name are replaced
    UniqueFd process; ///< readable once the process has exited; empty where the kernel does not offer that
};

/// Returns: 0 and `peer`; KnStatusPeerGone when it has exited; KnStatusNoResources.
std::int32_t IdentifyPeer(int socket, Peer& peer);

/// Returns: the peer, as log lines name it.
std::string Describe(const Peer& peer);

} // namespace borven_host
