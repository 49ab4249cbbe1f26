#pragma once

#include "base/unique_fd.h"
#include "records/shared_memory_region.h"

#include <cstdint>

namespace borven_host {

/// What a server and one client share, besides the socket.
struct SharedMemoryEnds {
    SharedMemoryRegion region;
    UniqueFd bell;     ///< event descriptor: the client rings for the server
    UniqueFd doorbell; ///< event descriptor: the server rings for the client
};

/// Server: sends the answer that joins a client, with its ends. `file`: the region's.
///
/// Returns: 0; KnStatusPeerGone; KnStatusNoResources. Blocks: never.
std::int32_t SendEnds(int socket, const UniqueFd& file, const SharedMemoryEnds& ends) noexcept;

/// Client: reads the server's answer, which has arrived on `socket`.
///
/// Returns: 0 and `ends`; the status that the server refused with; KnStatusClosed when there is no answer;
/// KnStatusDenied when the answer does not follow this protocol; KnStatusNoResources. Blocks: never.
std::int32_t ReceiveEnds(int socket, SharedMemoryEnds& ends);

} // namespace borven_host
