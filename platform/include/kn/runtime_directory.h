#pragma once

#include <cstddef>
#include <cstdint>

/// The directory in which the programs of one user find each other: that of the channels' names.
enum class KnMissingDirectory { Fails, IsCreated };

/// Writes the absolute path of the runtime directory to `path`, a buffer of `size` bytes, NUL-terminated. What is in it
/// belongs to this user alone; names that begin with a dot, and those of channels, belong to the platform.
///
/// Returns: 0; KnStatusNotFound when it is missing and not to be created; KnStatusDenied when it is not safe to use,
/// with the reason in the log; KnStatusInvalidArgument when the buffer is too small; KnStatusNoResources.
/// Blocks: never. Threads: any.
std::int32_t KnRuntimeDirectory(KnMissingDirectory missing, char* path, std::size_t size) noexcept;

/// Writes where the runtime directory is looked for and what has chosen this place, as a phrase for people such as
/// "/run/user/1000/borven (XDG_RUNTIME_DIR)", to `text`, a buffer of `size` bytes, NUL-terminated and cut where it does
/// not fit. Blocks: never. Threads: any.
void KnDescribeRuntimeDirectory(char* text, std::size_t size) noexcept;
