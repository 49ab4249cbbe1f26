#pragma once

#include "base/unique_fd.h"

#include <cstdint>

namespace borven_host {

enum class Missing { Fails, IsCreated };

/// Opens the directory that holds the names of this user's channels: $BORVEN_RUNTIME_DIR, else
/// $XDG_RUNTIME_DIR/borven, else /tmp/borven-<uid>. It must be a real directory, ours, and closed to everybody else.
///
/// Returns: 0 and `directory`; KnStatusNotFound when it is missing and not to be created; KnStatusDenied, with the
/// reason in the log; KnStatusNoResources.
std::int32_t OpenRuntimeDirectory(Missing missing, UniqueFd& directory);

} // namespace borven_host
