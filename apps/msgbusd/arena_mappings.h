#pragma once

#include <cstdint>

namespace msgbusd {

/// From now on the bus's arenas come from a pool of pages instead of the kernel. Does nothing in a program that does
/// not load the bus as a shared library. Threads: before any thread that maps memory for the bus.
void PoolArenaMappings();

/// Returns: how many arenas have come from the pool. Threads: any.
std::uint64_t PooledArenaCount() noexcept;

} // namespace msgbusd
