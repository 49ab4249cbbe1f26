#pragma once

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace borven_host {

using SteadyClock = std::chrono::steady_clock;

/// Between two looks at a word: leaves the core's resources to its other hardware thread.
inline void Pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

/// Whether this process was started with the use of one CPU only. A peer on that CPU cannot run while this process
/// does, so a thread that spins yields the CPU between two looks: cheaper than to sleep and be woken.
bool HasOneCpu() noexcept;

/// Learns whether spinning pays. After a failure it is left out for a number of occasions, which doubles with each
/// failure: a caller of slow methods hardly ever spins, and still finds out when they become fast. It also learns
/// whether to yield the CPU at once: where the peer has no other CPU, no answer comes before that.
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
        if (failures != 0 && ++successes == Forgiving) {
            failures = 0;
            successes = 0;
        }
    }

    void Failed() noexcept {
        successes = 0;
        failures = std::min(failures + 1, MaxFailures);
        toSkip = 1U << failures;
    }

    /// Asked once on each occasion, on one CPU. Returns: whether to yield after one look, because looking again would
    /// not help: the peer cannot have run yet.
    bool ShouldYieldAtOnce() noexcept { return cameAfterYield == OftenEnough && ++yieldedAtOnce % Retry != 0; }

    void CameAwake() noexcept { cameAfterYield = 0; }
    void CameAfterYield() noexcept { cameAfterYield = std::min(cameAfterYield + 1, OftenEnough); }

private:
    static constexpr std::uint32_t MaxFailures = 10; ///< one try in a thousand: less than one percent of the time
    static constexpr std::uint32_t Forgiving = 16;
    static constexpr std::uint32_t OftenEnough = 4;
    static constexpr std::uint32_t Retry = 64;

    std::uint32_t toSkip = 0;
    std::uint32_t failures = 0;
    std::uint32_t successes = 0;
    std::uint32_t cameAfterYield = 0; ///< answers in a row
    std::uint32_t yieldedAtOnce = 0;
};

/// Calls `look` until it returns true, at most for `limit`, or five times as long where the CPU is yielded in between:
/// on one CPU, or where more threads than CPUs have something to do (`isCrowded`).
/// Returns: whether it did return true.
template <typename Look>
bool SpinUntil(SteadyClock::duration limit, SpinLearner& learner, const Look& look, bool isCrowded = false) noexcept {
    constexpr int looksPerClock = 32; // reading the clock costs about as much as a pause
    constexpr int turns = 5;          // threads that a value passes through, each in its turn on the shared CPU
    const auto looks = [&look](int count) {
        for (int i = 0; i < count; ++i) {
            if (look()) {
                return true;
            }
            Pause();
        }
        return false;
    };
    const bool yields = HasOneCpu() || isCrowded;
    const bool yieldsAtOnce = yields && learner.ShouldYieldAtOnce();
    if (looks(yieldsAtOnce ? 1 : looksPerClock)) {
        if (!yieldsAtOnce) {
            learner.CameAwake();
        }
        return true;
    }
    const auto end = SteadyClock::now() + (yields ? turns * limit : limit);
    do {
        if (yields) {
            ::sched_yield();
        }
        if (looks(yields ? 1 : looksPerClock)) {
            if (yields) {
                learner.CameAfterYield();
            }
            return true;
        }
    } while (SteadyClock::now() < end);
    return false;
}

} // namespace borven_host
