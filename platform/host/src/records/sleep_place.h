#pragma once

#include "common/confined_thread.h"
#include "common/place_learner.h"
#include "records/adaptive_spin.h"
#include "records/event_fd.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

// A value that is published after a pause passes several sleeping threads. Each wake-up across CPUs costs an interrupt,
// up to ten times the wake-up on the waking thread's own CPU, which is about to be free. So after a pause a thread
// sleeps on the CPU of the thread that wakes it, where that has proved to be faster. The thread that begins sleeps
// where it is; the others follow.
//
// Whether it is faster is learnt for each sleeper: a waking thread leaves its CPU and the time in the page. The other
// process may leave anything there. At worst a thread sleeps on the wrong CPU, and learns that it wakes late.
//
// A thread is confined only while it sleeps, and for a second at most: it may use all its CPUs again before it runs
// anything else, because the threads and processes that it starts would inherit its CPUs.

namespace borven_host {

/// What a thread leaves for the one that it wakes: its CPU, and when. Zero: nothing.
class WakeHint final {
public:
    constexpr explicit WakeHint(std::uint32_t raw) : bits(raw) {}

    /// The CPU alone, for a peer that need not be woken.
    static WakeHint Here() noexcept {
        const int cpu = common::MayConfineThreads() ? common::CurrentCpu() : -1;
        return WakeHint(cpu < 0 || cpu >= MaxCpus ? 0 : static_cast<std::uint32_t>(cpu + 1));
    }

    static WakeHint Now() noexcept {
        if (!common::MayConfineThreads()) {
            return WakeHint(0);
        }
        const int cpu = common::CurrentCpu();
        const auto now = std::chrono::duration_cast<Ticks>(SteadyClock::now().time_since_epoch()).count();
        return cpu < 0 || cpu >= MaxCpus
                   ? WakeHint(0)
                   : WakeHint(static_cast<std::uint32_t>(now) << CpuBits | static_cast<std::uint32_t>(cpu + 1));
    }

    constexpr std::uint32_t Raw() const { return bits; }
    constexpr bool HasTime() const { return bits >> CpuBits != 0; }
    constexpr int Cpu() const { return static_cast<int>(bits & MaxCpus) - 1; } ///< -1: not known

    /// Requires: HasTime, and less than 16 seconds have passed.
    std::chrono::microseconds Since(SteadyClock::time_point now) const noexcept {
        const auto ticks = std::chrono::duration_cast<Ticks>(now.time_since_epoch()).count();
        return std::chrono::microseconds((static_cast<std::uint32_t>(ticks) - (bits >> CpuBits)) << CpuBits >> CpuBits);
    }

private:
    using Ticks = std::chrono::microseconds;

    static constexpr unsigned CpuBits = 8;
    static constexpr int MaxCpus = 255;

    std::uint32_t bits;
};

/// Decides where one sleeper sleeps next. Threads: one at a time.
class SleepPlace final {
public:
    enum class Sleeper { Caller, Receiver };

    /// Only a caller can be the thread that begins: a receiver that has been busy for long was woken as well.
    explicit SleepPlace(Sleeper ofWhom) : sleeper(ofWhom) {}

    /// The calling thread is about to sleep. `self`, which is not confined: confined to a CPU if that is worthwhile.
    void Enter(common::ConfinedThread& self) noexcept {
        if (!common::MayConfineThreads()) {
            return;
        }
        enteredAt = SteadyClock::now();
        begins = sleeper == Sleeper::Caller && enteredAt - wokenAt > common::PlaceLearner::LongGap;
        if (begins) {
            target = common::CurrentCpu();
        }
        isCounted = begins || longSleepsAgo < LongSleepCounts;
        place = isCounted ? learner.Choose() : Place::Free;
        if (place == Place::Confined) {
            isCounted = self.To(target);
        }
    }

    /// The thread was woken by what left `hint`.
    void Leave(WakeHint hint) noexcept {
        if (!common::MayConfineThreads()) {
            return;
        }
        wokenAt = SteadyClock::now();
        const auto slept = wokenAt - enteredAt;
        longSleepsAgo = slept > common::PlaceLearner::LongGap ? 0 : std::min(longSleepsAgo + 1, LongSleepCounts);
        if (hint.Cpu() < 0) {
            return;
        }
        // After a longer sleep the thread was free; a hint from before the sleep is not that of this wake-up.
        if (isCounted && slept < LongestSleep && hint.HasTime() && hint.Since(wokenAt) <= slept) {
            learner.Note(place, hint.Since(wokenAt));
        }
        if (!begins && longSleepsAgo == 0) {
            target = hint.Cpu();
        }
    }

    /// The sleeper did something else than sleep: values follow each other closely.
    void NoteAwake() noexcept { longSleepsAgo = LongSleepCounts; }

private:
    using Place = common::PlaceLearner::Place;

    static constexpr std::chrono::milliseconds LongestSleep{LongestSleepMs}; ///< of a confined thread

    /// A long sleep still counts when a short one follows: a receiver serves what the value causes as well.
    static constexpr std::uint32_t LongSleepCounts = 2;

    const Sleeper sleeper;
    SteadyClock::time_point enteredAt{};
    SteadyClock::time_point wokenAt{};
    std::uint32_t longSleepsAgo = LongSleepCounts; ///< up to what counts
    int target = -1;                               ///< the CPU to sleep on
    Place place = Place::Free;
    bool begins = false;    ///< the sleep under way is that of the thread that begins
    bool isCounted = false; ///< and shows how good its place is
    common::PlaceLearner learner;
};

/// Where a receiver runs. While requests follow each other closely it does best on a CPU that its client does not use:
/// both then look for each other's record without sleeping. Left alone, the two often end up on one CPU, because each
/// wakes the other there, and stay: on one CPU, looking for a record never pays.
///
/// Threads: the one that has it.
class ReceiverPlace final {
public:
    static ReceiverPlace& OfThisThread() noexcept {
        thread_local ReceiverPlace place;
        return place;
    }

    /// A request of a client that runs on `cpu` came without a pause. Returns: whether the receiver has moved off that
    /// CPU; the scheduler may move it back later.
    bool NoteClose(int cpu) noexcept {
        if (cpu < 0 || cpu != common::CurrentCpu()) {
            shared = 0;
            return false;
        }
        if (++shared < SharedUntilMove) {
            return false;
        }
        shared = 0;
        const bool hasMoved = self.OffOf(cpu);
        self.LetGo(); // which does not move it back
        return hasMoved;
    }

    void EnterSleep() noexcept { sleep.Enter(self); }

    void LeaveSleep(WakeHint hint) noexcept {
        self.LetGo();
        sleep.Leave(hint);
    }

    void NoteAwake() noexcept { sleep.NoteAwake(); }
    bool IsConfined() const noexcept { return self.IsConfined(); }
    void LetGo() noexcept { self.LetGo(); }

private:
    static constexpr int SharedUntilMove = 64;

    SleepPlace sleep{SleepPlace::Sleeper::Receiver};
    common::ConfinedThread self; ///< confined in a sleep only
    int shared = 0;              ///< requests in a row that came from the receiver's own CPU
};

} // namespace borven_host
