#pragma once

#include "instruments/account_layout.h"

#include <cstdint>
#include <ctime>

namespace msgbus_server {

/// Returns: nanoseconds of CLOCK_MONOTONIC, some milliseconds late: reading it costs next to nothing.
inline std::int64_t RoughTime() noexcept {
    constexpr std::int64_t second = 1'000'000'000;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * second + now.tv_nsec;
}

/// A thread is away from its loop for a scope. Threads: the one that the slot belongs to.
class AwayTime final {
public:
    /// `slot`: null: nothing is noted. `now`: nanoseconds of CLOCK_MONOTONIC.
    AwayTime(instruments::layout::Thread* written, std::int64_t now) noexcept : slot(written), begin(now) {
        if (slot != nullptr) {
            slot->awaySince.store(now, std::memory_order_relaxed);
        }
    }
    AwayTime(const AwayTime&) = delete;
    AwayTime& operator=(const AwayTime&) = delete;
    ~AwayTime() {
        if (slot != nullptr) {
            slot->awaySince.store(instruments::layout::NoTime, std::memory_order_relaxed);
            Note(*slot, begin, RoughTime());
        }
    }

    /// The thread was away from `begin` until `now`.
    static void Note(instruments::layout::Thread& slot, std::int64_t begin, std::int64_t now) noexcept {
        if (now - begin > slot.longestAway.load(std::memory_order_relaxed)) {
            slot.longestAway.store(now - begin, std::memory_order_relaxed);
            slot.longestAt.store(now, std::memory_order_relaxed);
        }
    }

private:
    instruments::layout::Thread* const slot;
    const std::int64_t begin;
};

} // namespace msgbus_server
