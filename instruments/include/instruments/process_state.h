#pragma once

#include <cstdint>
#include <optional>

namespace instruments {

struct ProcessState {
    std::uint64_t startTime = 0; ///< in clock ticks since the system started
    bool isPaused = false;       ///< stopped by a signal or a debugger
    bool hasEnded = false;       ///< and waits for its parent
};

/// Returns: the state of a process; nothing when there is none with that number.
std::optional<ProcessState> StateOfProcess(std::int64_t pid);

} // namespace instruments
