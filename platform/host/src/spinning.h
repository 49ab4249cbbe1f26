#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace borven_host {

using SteadyClock = std::chrono::steady_clock;

/// Lets the other half of a core, and the memory bus, breathe between two looks at a word.
inline void Pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

/// Looks until `look` returns true, at most for `limit`. Returns: whether it did.
template <typename Look>
bool SpinUntil(SteadyClock::duration limit, const Look& look) noexcept {
    constexpr int looksPerClock = 32; // reading the clock costs about as much as a pause: the first looks do without
    const auto looks = [&look] {
        for (int i = 0; i < looksPerClock; ++i) {
            if (look()) {
                return true;
            }
            Pause();
        }
        return false;
    };
    if (looks()) {
        return true;
    }
    const auto end = SteadyClock::now() + limit;
    do {
        if (looks()) {
            return true;
        }
    } while (SteadyClock::now() < end);
    return false;
}

/// Learns whether to spin pays. Where it failed, it is left out for a number of occasions that doubles with each
/// failure: so whoever shares one CPU with the peer, or asks for what takes long, hardly ever tries, and finds out all
/// the same when that changes.
///
/// Threads: one at a time.
class SpinLearner final {
public:
    /// Asked once on each occasion. Returns: whether to spin now.
    bool IsWorthwhile() noexcept {
        if (toSkip == 0) {
            return true;
        }
        --toSkip;
        return false;
    }

    void Succeeded() noexcept {
        if (failures != 0 && ++successes == forgiving) {
            failures = 0;
            successes = 0;
        }
    }

    void Failed() noexcept {
        successes = 0;
        failures = std::min(failures + 1, maxFailures);
        toSkip = 1U << failures;
    }

private:
    static constexpr std::uint32_t maxFailures = 10; ///< one try in a thousand: less than one percent of the time
    static constexpr std::uint32_t forgiving = 16;

    std::uint32_t toSkip = 0;
    std::uint32_t failures = 0;
    std::uint32_t successes = 0;
};

} // namespace borven_host
