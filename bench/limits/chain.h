#pragma once

#include "samples.h"

#include <cstddef>
#include <cstdint>

namespace bench {

/// The time that a value takes through a chain of `hops` + 1 processes: each waits on a word in shared memory (futex),
/// passes the value on in shared memory and wakes the next one. The first sends the time of the monotonic clock every
/// `intervalUs`, so that all of them sleep in between; the last one takes the samples.
Samples PassThroughChain(std::size_t hops, std::uint32_t values, long intervalUs);

} // namespace bench
