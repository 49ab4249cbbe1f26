#pragma once

#include "kn/handle.h"

#include <cstddef>
#include <cstdint>

// Connection manager: how a client of a published service gets a connection at run time.
//
// Contract:
// - A client asks for a service that a live server published; the server listens, learns which client asks for which
// service, and
//   accepts. The connection then leads to the channel whose handle the server accepted it to.
// - What a connection may ask is bound to the `iid` of its acceptance: a request for another interface, or for a method
//   that the interface does not have (see kn/policy.h), is answered by the platform and never reaches the server.
// - On a channel made here, a client that dies is never a fault of the channel: receive goes on with the others, and a
//   reply to the dead client is dropped and answers 0. (One dispatcher serves all clients of a service; a status that
//   ended it would let one client deny the service to all others.)
// - A client that no server accepts within its own time-out gets KnStatusTimedOut.
// - A client that dies between asking and being accepted costs the server no more than one failed KnCmAccept.
// - Any number of connection attempts leaves those already connected served; attempts past the server's limits are
//   answered KnStatusBusy, or KnStatusNoResources when the server has no descriptors left.
// - Peers of another user than the server's are refused.

inline constexpr std::size_t KnCmNameSize = 1024; ///< size of the name buffers below, terminator included

/// Waits for one connection request to any service that this task has published.
///
/// `filter`: null for every client, else the task name of the clients to wait for. `clientName`, `serviceName`: buffers
/// of KnCmNameSize bytes; on success they hold the client's name, unique among the pending requests, and the service
/// that it asks for.
///
/// Returns: 0; KnStatusTimedOut; KnStatusClosed after KnHandleStopReceiving or
/// KnHandleCloseServerEnds, until a service is published again.
/// Blocks: up to `timeoutMs` milliseconds. Threads: any number at once; each request is given to one of them.
std::int32_t KnCmListen(const char* filter, std::uint32_t timeoutMs, char* clientName, char* serviceName) noexcept;

/// Accepts the request that KnCmListen returned.
///
/// `channel`: the handle of the channel that the client is to join, or KnInvalidHandle for a new one.
/// `*handle`: on success the handle of the channel that the client has joined.
///
/// Returns: 0; KnStatusNotFound when no such request is pending; KnStatusPeerGone when the client has died or given up;
/// KnStatusClosed when `channel` is not open; KnStatusBusy when `channel` has no room for another client;
/// KnStatusNoResources. The client gets the same status, and its request is used up, unless it is KnStatusNotFound.
/// Threads: any.
std::int32_t KnCmAccept(const char* clientName, const char* serviceName, std::uint32_t iid, KnHandle channel,
                        KnHandle* handle) noexcept;

/// Client: asks for a connection to `service` and waits until the server accepts it.
///
/// Returns: 0 and `*handle`; KnStatusNotFound when no live server publishes `service`; KnStatusTimedOut;
/// KnStatusBusy; KnStatusDenied; KnStatusClosed when the server exits or closes meanwhile; KnStatusNoResources.
/// Blocks: up to `timeoutMs` milliseconds. Threads: any.
std::int32_t KnCmConnect(const char* service, std::uint32_t timeoutMs, KnHandle* handle) noexcept;
