#pragma once

#include <cstddef>
#include <cstdint>

/// Writes the NUL-terminated name of the calling task to `buffer`, cut to `sizeBytes` - 1 characters.
///
/// Returns: 0; KnStatusInvalidArgument when `buffer` is null or `sizeBytes` is 0.
/// Threads: any.
std::int32_t KnTaskGetName(char* buffer, std::size_t sizeBytes) noexcept;
