#pragma once

#include "kn/handle.h"
#include "nk/deferred_reply.h"

#include <cstdint>

// Losses: what a server says about replies that a client will never get, beside its replies.
//
// Contract:
// - A client that has the reply to a request sees what the server noted before that reply, or something newer.
// - The client sees it also once the connection has ended.
// - A client may write anything to the memory that it shares with the server, and a server too: the numbers decide
//   nothing.

struct NkLoss {
    std::uint32_t reason = 0; ///< why the server ended what the client had; 0: it has not. The server's numbers
    std::uint64_t lost = 0;   ///< how many replies, such as values, were dropped so far

    bool operator==(const NkLoss&) const = default;
};

/// Server: notes a loss for the client of a request that was deferred, in place of the last note.
///
/// Returns: 0; KnStatusPeerGone when the client is known to be gone; KnStatusClosed; KnStatusInvalidArgument when it
/// never was a client. Blocks: never. Threads: any; of two at once, one wins.
std::int32_t NkNoteLoss(const NkDeferredReply& deferred, const NkLoss& loss) noexcept;

/// Client: reads what the server noted last for this connection.
///
/// Returns: 0 and `*loss`; KnStatusClosed when the client end is closed; KnStatusInvalidArgument. Threads: any.
std::int32_t NkReadLoss(KnHandle connection, NkLoss* loss) noexcept;
