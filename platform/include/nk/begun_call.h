#pragma once

#include "kn/handle.h"
#include "nk/message.h"
#include "nk/transport.h"

#include <cstdint>

// Begun calls: an addition to call (nk/transport.h). A call in two steps needs no thread while it is under way, and
// either step may be given a limit.
//
// Contract:
// - A begun call has the connection's turn until it is finished or abandoned, whichever thread does that. NkFinishCall
//   that answers KnStatusTimedOut leaves it under way: the reply is not lost, and the next NkFinishCall returns it.
// - To begin and finish a call is to call: the server sees no difference, and a call that is begun with the bytes of
// the
//   last one takes the next offer (nk/deferred_reply.h). One that the server takes back in between is sent then.
// - An abandoned call goes on at the server. Its reply is dropped when it comes, and until then the connection is not
//   free: the next call waits for it, within its own limit.
// - A call that found no turn within its limit was not sent.
// - Of the descriptor: it can be polled and nothing else. From the first NkCallDescriptor on, it is readable when
//   NkFinishCall has something to return, a reply, an offered one too, or the end of the connection, and stays readable
//   until NkFinishCall has found nothing. It may be readable without a reason, but not for long: an NkFinishCall that
//   finds nothing ends that. While no call is under way it keeps what it was.
// - The end of the server, and that of the client end, makes every begun call answer KnStatusClosed at once.
// - A child made by fork has no begun calls, and what it does leaves those of its parent alone.
//
// Time-outs are in milliseconds and rounded up by the system's timer: 0 looks once, NkForever has no end.

inline constexpr std::uint32_t NkForever = 0xFFFFFFFF;

/// Client: sends `request`, a buffer of NkRecordSize bytes, which is not needed any more afterwards.
///
/// Returns: 0; KnStatusTimedOut when other calls had the connection for `timeoutMs`: nothing was sent; KnStatusClosed;
/// KnStatusInvalidArgument.
/// Blocks: for its turn, up to `timeoutMs`. Threads: any.
std::int32_t NkBeginCall(NkBosTransport* transport, const nk_message* request, std::uint32_t timeoutMs) noexcept;

/// Client: takes the reply of the begun call into `response`, a buffer of NkRecordSize bytes.
///
/// Returns: KnStatusTimedOut when it has not come within `timeoutMs`: the call stays under way. Else the call is over:
/// 0; what NkBosTransport_Call returns; KnStatusInvalidArgument, also when no call was begun.
/// Blocks: until the reply, up to `timeoutMs`. Threads: one at a time with NkAbandonCall; KnHandleClose on any.
std::int32_t NkFinishCall(NkBosTransport* transport, nk_message* response, std::uint32_t timeoutMs) noexcept;

/// Client: gives up the begun call.
///
/// Returns: 0; KnStatusClosed; KnStatusInvalidArgument, also when no call was begun.
/// Blocks: never. Threads: one at a time with NkFinishCall.
std::int32_t NkAbandonCall(NkBosTransport* transport) noexcept;

/// Client: ends the call in progress, the begun call and every later one as KnHandleClose does, with KnStatusClosed,
/// but keeps the handle and its descriptor: the connection is like one that has lost its server.
///
/// Returns: 0, also when it has ended; KnStatusClosed; KnStatusInvalidArgument.
/// Blocks: never. Threads: any.
std::int32_t NkEndCalls(KnHandle connection) noexcept;

/// Client: gives the descriptor of the connection, which may have lost its server. It belongs to the connection, and
/// closes with it.
///
/// Returns: 0 and `*descriptor`, also when the server is gone; KnStatusClosed when the client end is closed;
/// KnStatusInvalidArgument; KnStatusUnimplemented on a platform without descriptors. Threads: one at a time with
/// NkFinishCall.
std::int32_t NkCallDescriptor(KnHandle connection, int* descriptor) noexcept;

/// Client: gives `connection`, on which no call was made yet, the descriptor of `former`, which was in use before
/// `connection` was opened, has lost its server and is not closed yet. It is readable then. What polls it need not be
/// changed.
///
/// Returns: 0; KnStatusInvalidArgument when `connection` has a descriptor of its own already, or `former` has none;
/// KnStatusNoResources: `former` has lost its descriptor too.
/// Threads: one at a time with NkFinishCall on either.
std::int32_t NkMoveCallDescriptor(KnHandle connection, KnHandle former) noexcept;

/// Client: makes the descriptor of `connection`, which has lost its server, readable once in `afterMs` milliseconds and
/// not before. To try again then, for example.
///
/// Returns: 0; KnStatusInvalidArgument when it has not lost its server or has no descriptor; KnStatusNoResources.
/// Threads: one at a time with NkFinishCall.
std::int32_t NkWakeCallDescriptor(KnHandle connection, std::uint32_t afterMs) noexcept;
