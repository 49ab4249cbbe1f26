#pragma once

#include "kn/handle.h"
#include "nk/message.h"

#include <cstdint>

/// One thread's or task's view of a channel. A plain record: zeroed it serves nothing, and every operation on it
/// answers KnStatusInvalidArgument.
struct NkBosTransport {
    KnHandle handle;
    std::uint32_t initialised;
    const void* arenaStart;
    std::uint64_t arenaSize;
};

// Transport: synchronous call, receive and reply of fixed 1056-byte records over a channel.
//
// Contract:
// - A channel has one server end and any number of client connections. A call sends one request and blocks until its
//   reply; calls on one connection take turns.
// - Any number of server threads may block in receive on one channel, through one transport object or several. Each
//   request goes to exactly one of them and belongs to that thread until it replies.
// - A thread that receives again without having replied abandons its request, as does a thread that ends: the caller
//   gets KnStatusAbandoned.
// - A client that dies at any point harms no other client: its connection ends, its resources are released, and a reply
//   to it answers KnStatusPeerGone (0 on a channel of the connection manager, see kn/connection_manager.h).
// - A server that dies, or closes the channel, makes every blocked or later call answer KnStatusClosed at once.
// - Closing the server end makes every blocked or later receive answer KnStatusClosed at once.
// - Requests are exactly NkRecordSize bytes, and their size word is NkRecordSize without the error flag. Any other
//   record is answered KnStatusBadRecord to its sender and never reaches a receiver.
// - A reply carries the record's size word; the bytes behind that size arrive as zeros.
// - No step waits for a word, a lock or a buffer that only a client could release.
// - Nothing is delivered to a process of another user.
// - An arena that holds out-of-line data is refused with KnStatusInvalidArgument: a record travels without any.
//
// A platform may name the threads that serve. The one on Linux names a thread at its first receive, unless it has a
// name of its own; docs/platform.md has the names, and the switch.

/// Binds `transport` to a channel. `arena` and `arenaSize` offer memory for out-of-line data: null and 0 for none.
///
/// Returns: 0; the handle is checked by the operations, not here.
/// Threads: any, but not while another thread uses the same object.
std::int32_t NkBosTransport_Init(NkBosTransport* transport, KnHandle handle, void* arena,
                                 std::uint64_t arenaSize) noexcept;

/// Server: receives the next request of the channel into `request`. Its size word holds the size of the buffer.
///
/// Returns: 0; KnStatusClosed; KnStatusInvalidArgument for a zeroed transport or a buffer size that is not
/// NkRecordSize.
/// Blocks: until a request arrives or the channel closes. Threads: any number at once.
std::int32_t NkBosTransport_Receive(NkBosTransport* transport, nk_message* request, nk_arena* requestArena) noexcept;

/// Server: answers the request that the calling thread received last on this channel. `response` is a buffer of
/// NkRecordSize bytes.
///
/// Returns: 0; KnStatusPeerGone; KnStatusClosed; KnStatusInvalidArgument when the thread owes no reply here.
/// Blocks: never. Threads: the one that received the request.
std::int32_t NkBosTransport_Reply(NkBosTransport* transport, const nk_message* response,
                                  const nk_arena* responseArena) noexcept;

/// Client: sends `request` and waits for its reply. Both are buffers of NkRecordSize bytes.
///
/// Returns: 0; KnStatusClosed; KnStatusAbandoned; KnStatusBadRecord; KnStatusDenied; KnStatusUnimplemented;
/// KnStatusInvalidArgument.
/// Blocks: until the reply. Threads: any; calls on one connection take turns.
std::int32_t NkBosTransport_Call(NkBosTransport* transport, const nk_message* request, const nk_arena* requestArena,
                                 nk_message* response, nk_arena* responseArena) noexcept;
