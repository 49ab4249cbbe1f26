#pragma once

#include <cstdint>

/// Names one end of a channel within the calling task.
using KnHandle = std::uint32_t;

inline constexpr KnHandle KnInvalidHandle = 0xFFFFFFFF;

/// Closes one end of a channel.
///
/// Contract:
/// - Closing a server end makes every thread blocked in receive on it return KnStatusClosed at once, and every later
///   receive or reply too; every blocked or later call of its clients returns KnStatusClosed.
/// - Closing a client end makes a call blocked on it return KnStatusClosed; the server loses that connection only.
/// - A handle value is not given out again while a thread may still use the closed one.
/// - A child made by fork has no open handle; what it inherited answers KnStatusClosed.
///
/// Returns: 0; KnStatusInvalidArgument for a handle that is not open.
/// Blocks: never on a peer. Threads: any.
std::int32_t KnHandleClose(KnHandle handle) noexcept;

/// Stops receiving on every server end of the calling task, permanently: in an orderly stop, before the server ends
/// close.
///
/// Contract:
/// - Every thread blocked in receive returns KnStatusClosed at once, and so does every later receive; every thread
///   blocked in KnCmListen, too, and KnCmAccept refuses the client.
/// - A request that was received before can still be replied to.
/// - Calls that were not received stay blocked until the server ends close.
///
/// Threads: any, but not while the same task registers or publishes.
void KnHandleStopReceiving() noexcept;

/// Closes every server end of the calling task and withdraws every service it published: the last step of a server
/// program. A thread blocked in KnCmListen returns KnStatusClosed at once. Names are free again afterwards, and the
/// task may register and publish again.
///
/// Threads: any, but not while the same task registers, publishes or accepts.
void KnHandleCloseServerEnds() noexcept;
