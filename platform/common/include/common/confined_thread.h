#pragma once

#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

// Linux only: which CPU a thread sleeps on.

namespace common {

/// The CPUs that are online. Counted once, because the count is read from a file. A thread that has another number of
/// them, since a CPU came or went, counts as one that may not use every CPU.
inline long CpuCount() noexcept {
    static const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count;
}

/// Whether threads of this process may be confined to a CPU for the length of a sleep: there is more than one, and the
/// environment does not have BORVEN_PLACEMENT=off.
inline bool MayConfineThreads() noexcept {
    // Not secure_getenv: the switch gives no right away, and a program with capabilities sets it for itself.
    static const bool may = [] {
        const char* const setting = std::getenv("BORVEN_PLACEMENT");
        return CpuCount() > 1 && !(setting != nullptr && std::string_view(setting) == "off");
    }();
    return may;
}

/// The calling thread's CPU. Returns: -1 when the system does not say.
inline int CurrentCpu() noexcept {
    return ::sched_getcpu();
}

/// Confines one thread to some of the CPUs, and lets it go again. It confines only a thread that may use every CPU,
/// under the normal scheduling policy: any other was placed by its program or its operator, and is left alone. A thread
/// that they place while it is confined is left where they put it, unless that happens in the microsecond between two
/// system calls: the kernel has no single one that compares and sets.
///
/// A thread passes its confinement on to the threads and processes that it starts. So a thread that runs code of other
/// authors must not be confined meanwhile.
///
/// Threads: one at a time. Lifetime: lets the thread go at its end; the thread must outlive that, because its number
/// may be used again.
class ConfinedThread final {
public:
    /// `thread`: 0 for the calling one.
    explicit ConfinedThread(pid_t thread = 0) noexcept : id(thread) {}
    ConfinedThread(const ConfinedThread&) = delete;
    ConfinedThread& operator=(const ConfinedThread&) = delete;
    ~ConfinedThread() { LetGo(); }

    /// Returns: whether the thread is confined to `cpu` now.
    bool To(int cpu) noexcept { return Confine(cpu, Side::On); }

    /// Returns: whether the thread is confined to all CPUs but `cpu` now.
    bool OffOf(int cpu) noexcept { return Confine(cpu, Side::Off); }

    void LetGo() noexcept {
        if (!IsConfined()) {
            return;
        }
        confined = NoCpu;
        cpu_set_t now{};
        if (::sched_getaffinity(id, sizeof now, &now) == 0 && CPU_EQUAL(&now, &given)) {
            cpu_set_t every; // those too that come online later, as before
            std::memset(&every, 0xFF, sizeof every);
            ::sched_setaffinity(id, sizeof every, &every);
        }
    }

    bool IsConfined() const noexcept { return confined != NoCpu; }

private:
    enum class Side { On, Off };

    static constexpr int NoCpu = -1;

    bool Confine(int cpu, Side wanted) noexcept {
        if (IsConfined() && cpu == confined && wanted == side) {
            return true;
        }
        LetGo();
        cpu_set_t own{};
        if (cpu < 0 || cpu >= CPU_SETSIZE || !MayConfineThreads() || ::sched_getscheduler(id) != SCHED_OTHER ||
            ::sched_getaffinity(id, sizeof own, &own) != 0 || CPU_COUNT(&own) != CpuCount()) {
            return false;
        }
        const auto index = static_cast<std::size_t>(cpu);
        if (wanted == Side::On) {
            CPU_ZERO(&given);
            CPU_SET(index, &given);
        } else {
            given = own;
            CPU_CLR(index, &given);
        }
        if (::sched_setaffinity(id, sizeof given, &given) != 0) {
            return false; // there is no such CPU, or no such thread any more
        }
        confined = cpu;
        side = wanted;
        return true;
    }

    const pid_t id;
    int confined = NoCpu; ///< to this CPU, or off it
    Side side = Side::On;
    cpu_set_t given; ///< its CPUs while it is confined
};

} // namespace common
