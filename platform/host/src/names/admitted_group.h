#pragma once

#include "names/peer.h"

#include <sys/types.h>

#include <optional>

namespace borven_host {

/// Returns: the group that KnPolicyAllowGroup has set. Threads: any.
std::optional<gid_t> AdmittedGroup() noexcept;

/// Returns: whether the process at the other end of `socket`, which is `peer`, may use the channels of this one: it is
/// of the same user; or a group is admitted, and it is root's or has that group. Threads: any.
bool MayConnect(int socket, const Peer& peer);

/// The number that stands for every user without one in this namespace of users: whose what it owns is, is not known.
/// Threads: any.
uid_t UnmappedUser();

} // namespace borven_host
