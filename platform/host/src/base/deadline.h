#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace borven_host {

using Deadline = std::chrono::steady_clock::time_point;

inline constexpr std::uint32_t WithoutLimit = 0xFFFFFFFF; ///< as a time-out in milliseconds

inline Deadline DeadlineIn(std::uint32_t timeoutMs) {
    return timeoutMs == WithoutLimit ? Deadline::max()
                                     : std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
}

/// Returns: the time left in milliseconds, as an argument of poll: rounded up, so that a wait never ends before its
/// deadline; -1 without limit.
inline int PollTimeout(Deadline deadline) {
    if (deadline == Deadline::max()) {
        return -1;
    }
    const auto now = std::chrono::steady_clock::now();
    if (deadline <= now) { // before subtracting: Deadline::min() is so long ago that the difference would overflow
        return 0;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return static_cast<int>(std::min<decltype(left)>(left, 0x3FFFFFFF));
}

} // namespace borven_host
