#pragma once

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
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return static_cast<int>(left < 0 ? 0 : left > 0x3FFFFFFF ? 0x3FFFFFFF : left);
}

} // namespace borven_host
