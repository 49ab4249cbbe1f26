#pragma once

#include "kn/caller.h"

#include <cstdint>

/// The name of a static connection (service_locator.h), or of a published service (ns/name_server.h).
enum class KnNameKind { Connection, Service };

/// Finds out which process serves the name, also when that process is stopped.
/// Returns: 0 and `owner`, without an id, and with pid 0 if the system does not say which process it is;
/// KnStatusNotFound when no live server has the name; KnStatusDenied when the place of the names is not safe to use, or
/// something else has that of the name, with the reason in the log; KnStatusInvalidArgument; KnStatusNoResources.
/// Blocks: never. Threads: any.
std::int32_t KnOwnerOfName(KnNameKind kind, const char* name, KnCaller* owner) noexcept;
