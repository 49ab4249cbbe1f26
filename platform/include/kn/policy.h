#pragma once

#include <cstdint>

/// Declares how many methods the interface `type` has ("br.MessageBusCtl": 6), so that the connection manager can
/// answer requests for methods that do not exist instead of passing them on. Without a declaration any method passes.
/// The IDL compiler generates the numbers; a server program declares them before it publishes its services.
///
/// Returns: 0; KnStatusInvalidArgument for a null or empty type. A second declaration replaces the first.
/// Threads: any.
std::int32_t KnPolicySetMethodCount(const char* type, std::uint32_t methodCount) noexcept;
