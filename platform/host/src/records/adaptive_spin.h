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

/// Learns whether something pays, by exponential backoff: after a failure it is left out for a number of occasions,
/// which doubles with each failure.
///
/// Threads: one at a time.
class Backoff final {
public:
    /// Asked once on each occasion. Returns: whether to try it now.
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

private:
    static constexpr std::uint32_t MaxFailures = 10; ///< one try in a thousand: less than one percent of the time
    static constexpr std::uint32_t Forgiving = 16;

    std::uint32_t toSkip = 0;
    std::uint32_t failures = 0;
    std::uint32_t successes = 0;
};

/// Learns whether and how to spin. A caller of slow methods hardly ever spins, and still finds out when they become
/// fast.
///
/// Threads: one at a time.
class SpinLearner final {
public:
    /// Asked once on each occasion. Returns: whether to spin now.
    bool IsWorthwhile() noexcept { return spin.IsWorthwhile(); }
    void Succeeded() noexcept { spin.Succeeded(); }
    void Failed() noexcept { spin.Failed(); }

    /// Asked once on each occasion. Returns: whether to yield the CPU while spinning for long.
    bool ShouldShare() noexcept { return share.IsWorthwhile(); }

    /// A yield took `duration`.
    void Shared(SteadyClock::duration duration) noexcept { duration < LongYield ? share.Succeeded() : share.Failed(); }

    /// Asked once on each occasion, on one CPU. Returns: whether to yield after one look, because looking again would
    /// not help: the peer cannot have run yet.
    bool ShouldYieldAtOnce() noexcept { return cameAfterYield == OftenEnough && ++yieldedAtOnce % Retry != 0; }

    void CameAwake() noexcept { cameAfterYield = 0; }
    void CameAfterYield() noexcept { cameAfterYield = std::min(cameAfterYield + 1, OftenEnough); }

private:
    static constexpr std::uint32_t OftenEnough = 4;
    static constexpr std::uint32_t Retry = 64;

    /// The CPU went to a thread that used all of its time slice. Such a thread would get the CPU at every yield.
    static constexpr std::chrono::microseconds LongYield{500};

    Backoff spin;
    Backoff share;
    std::uint32_t cameAfterYield = 0; ///< answers in a row
    std::uint32_t yieldedAtOnce = 0;
};

/// How long a thread spins before it yields the CPU now and then. A thread that was woken on that CPU would otherwise
/// wait until the scheduler takes it away, which can be milliseconds later.
inline constexpr std::chrono::microseconds UnsharedSpin{5};

/// Calls `look` until it returns true, at most for `limit`. The CPU is yielded in between: now and then after
/// UnsharedSpin, as long as that proves to be short; or after each look, for five times as long, on one CPU or where
/// more threads than CPUs have something to do (`isCrowded`).
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
    const auto start = SteadyClock::now();
    const auto end = start + (yields ? turns * limit : limit);
    auto now = start;
    const bool shares = !yields && learner.ShouldShare();
    do {
        if (yields) {
            ::sched_yield();
        } else if (shares && now - start >= UnsharedSpin) {
            ::sched_yield();
            learner.Shared(SteadyClock::now() - now);
        }
        if (looks(yields ? 1 : looksPerClock)) {
            if (yields) {
                learner.CameAfterYield();
            }
            return true;
        }
        now = SteadyClock::now();
    } while (now < end);
    return false;
}

} // namespace borven_host
