#pragma once

#include "kn/handle.h"
#include "nk/message.h"

#include <cstddef>
#include <cstdint>

// Deferred replies: an addition to receive and reply (nk/transport.h). A thread that cannot answer yet hands its duty
// over and serves on; any thread answers later.
//
// Contract:
// - A deferred request is answered once. Until then its client stays blocked in its call, and no request of that
//   client is received.
// - A client that dies ends its deferred request, and so does the closing of the channel. Nothing needs to be given
//   back: what is left is a name that refers to nothing.
// - A reply may offer the next replies ahead. A client that repeats its last request byte for byte takes the next offer
//   instead of sending the request; it behaves as if the request had been sent and answered. Any other request goes to
//   the server.
// - An offer is either taken by the client or taken back by the server, and each side learns which. A client that is
//   gone has taken all of them.
// - Closing the channel withdraws its offers. Those of a server that died may still be taken.
// - One reply at a time has offers: while a client has some that were not taken back, new ones are not put.
// - A client may write anything to the memory that it shares with the server: the server's count of the offers that
//   were taken is then wrong by at most the number of offers that it has put, and no other client is affected.

/// One received request whose reply was deferred. A plain value: copies name the same request.
struct NkDeferredReply {
    KnHandle channel = KnInvalidHandle;
    std::uint32_t call = 0;
    std::uint64_t client = 0; ///< never used twice within a channel

    bool operator==(const NkDeferredReply&) const = default;
};

inline constexpr std::size_t NkMaxOffers = 200;

/// Replies that are offered ahead. Each equals the reply that they come with, except for eight bytes.
struct NkOffers {
    std::size_t offset = 0;               ///< of those bytes in the record; at most NkRecordSize - 8
    const std::int64_t* values = nullptr; ///< what stands there, in order
    std::size_t count = 0;                ///< at most NkMaxOffers
};

/// Server: takes over the duty to answer the request that the calling thread received last and has not answered. The
/// thread's own reply to it then answers 0 and sends nothing.
///
/// Returns: 0 and `*deferred`; KnStatusInvalidArgument when the thread owes no reply; KnStatusClosed;
/// KnStatusUnimplemented on a platform without deferred replies.
/// Blocks: never. Threads: any.
std::int32_t NkDeferReply(NkDeferredReply* deferred) noexcept;

/// Server: answers a deferred request. `response` is a buffer of NkRecordSize bytes; `offers` come with it, as far as
/// the client can take any. `*offered` (may be null): how many were put.
///
/// Returns: 0; KnStatusPeerGone when the client is known to be gone; KnStatusClosed; KnStatusInvalidArgument when the
/// request was answered before, or `offers` exceeds its limits.
/// Blocks: never. Threads: any.
std::int32_t NkReplyDeferred(const NkDeferredReply& deferred, const nk_message* response, const NkOffers& offers = {},
                             std::size_t* offered = nullptr) noexcept;

/// Server: takes back the offers that came with the reply to `deferred`. `*taken`: how many the client has taken.
///
/// Returns: 0; KnStatusPeerGone when the client is known to be gone; KnStatusClosed; KnStatusInvalidArgument when that
/// reply has no offers, or they were taken back before.
/// Blocks: never. Threads: any.
std::int32_t NkTakeBackOffers(const NkDeferredReply& deferred, std::size_t* taken) noexcept;
