#pragma once

#include <cstdint>

/// Declares how many methods the interface `type` has ("br.MessageBusCtl": 6), so that the connection manager can
/// answer requests for methods that do not exist instead of passing them on. Without a declaration any method passes.
/// The IDL compiler generates the numbers; a server program declares them before it publishes its services.
///
/// Returns: 0; KnStatusInvalidArgument for a null or empty type. A second declaration replaces the first.
/// Threads: any.
std::int32_t KnPolicySetMethodCount(const char* type, std::uint32_t methodCount) noexcept;

/// Limits the connections that are made from now on. `perCaller`: those of one process (kn/caller.h) to one channel.
/// `perChannel`: those of all processes to one channel, at most 2048, which is also the limit until this is called. A
/// connection beyond a limit is answered KnStatusBusy. Where one process may not have all of a channel's places, the
/// last sixteenth of them is kept for processes that have fewer than 16, and the processes of a user who is let in by a
/// group (below) have at most half of them, unless both limits are 2048.
///
/// Returns: 0; KnStatusInvalidArgument for a limit of 0, or `perChannel` beyond 2048. Threads: any.
std::int32_t KnPolicySetConnectionLimits(std::uint32_t perCaller, std::uint32_t perChannel) noexcept;

/// Lets the processes of a group use the channels of this process, beside those of its user: the ones that had this
/// group when they connected, be it their own or a supplementary one, and those of root. To be called before anything
/// is offered. The place where channels are found, which must belong to the user of this process, and the entries in it
/// are given to the group, which may enter and connect but change nothing (modes 0710 and 0660).
///
/// Returns: 0; KnStatusDenied when this process is not root's and does not have the group; KnStatusInvalidArgument for
/// the number that stands for no group, 2^32 - 1, and for the one that stands for all groups without a number in this
/// namespace of users (usually 65534). Threads: any.
std::int32_t KnPolicyAllowGroup(std::uint32_t group) noexcept;

/// Returns: how many connections this process has refused because of a limit, which is the answer KnStatusBusy: those
/// above, and the platform's own on clients that are not yet accepted. It has counted a refusal before the client can
/// see it, and counts each attempt of a client that repeats one. It never goes back. Threads: any. Blocks: never.
std::uint64_t KnPolicyRefusedConnections() noexcept;
