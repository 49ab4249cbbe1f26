#pragma once

#include "msgbus/options.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace msgbus {

/// Returns: a time-out for the platform: `limit`, at least 0 and below what means without limit.
inline std::uint32_t Milliseconds(std::chrono::milliseconds limit) noexcept {
    constexpr std::chrono::milliseconds::rep longest = 0x3FFFFFFF;
    return static_cast<std::uint32_t>(std::clamp<std::chrono::milliseconds::rep>(limit.count(), 0, longest));
}

/// Returns: the time left, rounded up.
inline std::uint32_t MillisecondsUntil(Deadline deadline) noexcept {
    const auto now = std::chrono::steady_clock::now();
    return deadline <= now ? 0 : Milliseconds(std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
}

/// Returns: now and `duration`, which may be negative or too long to be added.
template <typename Rep, typename Period>
Deadline DeadlineIn(std::chrono::duration<Rep, Period> duration) noexcept {
    const auto now = std::chrono::steady_clock::now();
    if (duration <= duration.zero()) {
        return now;
    }
    using Hours = std::chrono::duration<double, std::ratio<3600>>;
    if (std::chrono::duration_cast<Hours>(duration) >= std::chrono::duration_cast<Hours>(Deadline::max() - now)) {
        return Deadline::max();
    }
    return now + std::chrono::duration_cast<Deadline::duration>(duration);
}

} // namespace msgbus
