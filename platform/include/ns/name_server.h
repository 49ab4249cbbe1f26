#pragma once

#include <cstdint>

// Name server: which services exist, and which server offers them.
//
// Contract:
// - A service published by a live server cannot be published by a second one; the second gets KnStatusAlreadyExists.
// - The entries of a server that died disappear by themselves.
// - Names are 1 to 255 bytes without NUL and without '/', and neither "." nor "..".

using NsHandle = std::uint32_t;

/// Connects to the name server `name` (null: the default one).
///
/// Returns: 0 and `*nameServer`; KnStatusNotFound when there is no name server of that name; KnStatusDenied when the
/// directory that holds the names is not this user's alone; KnStatusNoResources.
/// Blocks: up to `timeoutMs` milliseconds, 0xFFFFFFFF without limit. Threads: any.
std::int32_t NsCreate(const char* name, std::uint32_t timeoutMs, NsHandle* nameServer) noexcept;

/// Publishes `service`, an implementation of the interface `type`, on behalf of the server `serverName`.
///
/// Returns: 0; KnStatusAlreadyExists; KnStatusInvalidArgument; KnStatusDenied; KnStatusTimedOut; KnStatusNoResources.
/// Threads: any.
std::int32_t NsPublishService(NsHandle nameServer, const char* type, const char* serverName,
                              const char* service) noexcept;

/// Checks whether a live server publishes `service`.
///
/// Returns: 0; KnStatusNotFound; KnStatusInvalidArgument.
/// Threads: any.
std::int32_t NsLookupService(NsHandle nameServer, const char* service) noexcept;
