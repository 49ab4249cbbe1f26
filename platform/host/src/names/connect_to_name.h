#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "names/name.h"

#include <cstdint>
#include <string_view>

namespace borven_host {

/// Client: connects to a name, checks that the server belongs to this user, and greets it.
///
/// Returns: 0 and `socket`, on which the answer will arrive; KnStatusNotFound; KnStatusDenied; KnStatusTimedOut;
/// KnStatusNoResources.
/// Blocks: until `deadline`, while the server's queue of connections is full.
std::int32_t ConnectToName(NameKind kind, std::string_view name, Deadline deadline, UniqueFd& socket);

} // namespace borven_host
