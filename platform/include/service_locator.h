#pragma once

#include "kn/handle.h"

#include <cstdint>

// Service locator: channels under names that server and client agree on in advance.
//
// Contract:
// - The name of a connection leads to one server end. A second server cannot claim the name of a live one: it gets the
//   invalid handle. The name of a server that crashed is free.
// - Peers of another user than the server's are refused; the directory that holds the names is closed to them.
// - Names are as in ns/name_server.h, but static connections and services have names of their own: a name may be used
//   for both.

/// A service offered on a static connection.
struct ServiceLocatorDescriptor {
    const char* name;
    std::uint32_t iid;
};

/// Registers the server end of the static connection `connection`, with `count` descriptors at `services`.
/// `*iid`: the interface id of the first service, 0 when there is none.
///
/// Returns: the handle of the channel; KnInvalidHandle when a live server holds the name or the platform
/// refuses.
/// Threads: any.
KnHandle ServiceLocatorRegister(const char* connection, const ServiceLocatorDescriptor* services, std::uint32_t count,
                                std::uint32_t* iid) noexcept;

/// Client: connects to the static connection `connection`.
///
/// Returns: 0 and `*handle`; KnStatusNotFound when no live server holds the name; KnStatusBusy; KnStatusDenied;
/// KnStatusTimedOut; KnStatusClosed when the server exits or closes meanwhile; KnStatusInvalidArgument;
/// KnStatusNoResources.
/// Blocks: up to `timeoutMs` milliseconds. Threads: any.
std::int32_t ServiceLocatorConnect(const char* connection, std::uint32_t timeoutMs, KnHandle* handle) noexcept;
