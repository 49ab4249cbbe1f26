#pragma once

#include "nk/message.h"

#include <cstdint>

// Callers: which process makes the requests, and when it is gone.
//
// Contract:
// - All connections of one process to this task have one caller, with one id. No other process gets that id, not even
//   one that is given the same process number later.
// - A process that cannot be identified (one of another PID namespace, for example) is a caller of its own for each of
//   its connections, with the start time 0.
// - When the last connection of a caller has closed, whichever side closed it, the observer learns it, once. A request
//   of the caller that was received before may still be in service. A process that connects again is a new caller.
// - The observer sees the requests to the interface that it chose: each one before it is received, when it may change
//   or answer it, and its reply before that is sent. It sees no reply that the platform gives in place of the server,
//   nor a deferred one (nk/deferred_reply.h).

/// The process at the other end of a connection.
struct KnCaller {
    std::uint64_t id = 0;
    std::uint64_t startTime = 0; ///< of the process, in clock ticks since the system started; 0: not identified
    std::int32_t pid = 0;        ///< 0: not known
    std::uint32_t uid = 0;
    char program[32] = {}; ///< its name, NUL-terminated; characters that could confuse a log are replaced
};

/// Returns: 0 and the caller of the request that the calling thread received last and has not answered;
/// KnStatusPeerGone, with `*caller` too, once its last connection has closed; KnStatusInvalidArgument when the thread
/// serves no request.
/// Blocks: never. Threads: any.
std::int32_t KnCallerOfRequest(KnCaller* caller) noexcept;

/// Returns: the id of that caller; 0 when the thread serves no request. Threads: any.
std::uint64_t KnCallerId() noexcept;

/// Learns of requests and callers. Every operation is called on a thread of the platform or on one that receives, must
/// return at once, and must not call the platform but for the two functions above.
class [[gnu::visibility("default")]] KnIRequestObserver {
public:
    virtual ~KnIRequestObserver() = default;

    /// A request is about to be received. `request` is a buffer of NkRecordSize bytes and may be changed.
    /// Returns: true to let it pass; false when `reply`, a buffer of NkRecordSize zeros, is the answer to it.
    virtual bool OnRequest(const KnCaller& caller, nk_message& request, nk_message& reply) noexcept = 0;

    /// The server has answered `request`, as it was received. The reply is sent afterwards.
    virtual void OnReply(const KnCaller& caller, const nk_message& request, const nk_message& reply) noexcept = 0;

    /// The last connection of `caller` has closed.
    virtual void OnCallerGone(const KnCaller& caller) noexcept = 0;
};

/// Replaces the observer of this task; null: none. `iid`: the interface whose requests it sees.
///
/// Returns: 0. Lifetime: the observer must outlive every server end that is opened while it is set.
/// Threads: any, but not while a server end is open.
std::int32_t KnObserveRequests(KnIRequestObserver* observer, std::uint16_t iid) noexcept;
