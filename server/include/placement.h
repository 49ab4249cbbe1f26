#pragma once

#include "bus_interfaces.h"

#include <sched.h>

#include <atomic>
#include <chrono>

namespace msgbus_server {

/// Publishing that places the threads of this process for throughput while values follow each other closely. Each value
/// wakes three threads of the server, one after the other, each for a few microseconds.
///
/// - On one processor a wake-up costs a few microseconds more; across two it costs an interrupt, some tens of
///   microseconds in a virtual machine.
/// - As batch threads they do not preempt each other: the woken thread runs when the waking one has finished, and finds
///   more work at once.
///
/// docs/performance.md has figures. The threads run as found at first, placed after `QuickPushes` pushes with short
/// gaps, and as found again after `SlowPushes` with long ones. Threads stay within the processors that the process was
/// given, and a process whose threads do not have the system's normal policy keeps its policy.
///
/// Threads: any. Requires: nothing else changes the placement of the process's threads meanwhile.
class Placement final : public message_bus::IProvider {
public:
    static constexpr int QuickPushes = 256;
    static constexpr int SlowPushes = 16;

    using Clock = std::chrono::steady_clock::time_point (*)();

    /// Lifetime: `publisher` must outlive this object.
    explicit Placement(message_bus::IProvider& publisher, Clock clock = std::chrono::steady_clock::now);

    cor::ResultCode Push(long publisherId, long message) override;

private:
    /// Where and how the threads run.
    struct Arrangement {
        cpu_set_t processors;
        int policy;
    };

    void Note(std::chrono::steady_clock::duration gap);
    void Arrange(const Arrangement& arrangement);

    message_bus::IProvider& provider;
    const Clock now;
    Arrangement usual{}; ///< as found
    Arrangement busy{};  ///< on the last of those processors

    std::atomic<std::chrono::steady_clock::rep> lastPush{0};
    std::atomic<int> quick{0}; ///< pushes in a row with short gaps
    std::atomic<int> slow{0};  ///< with long ones, since the last short one
    std::atomic<bool> wereArranged{false};
    std::atomic_flag isArranging; ///< held by the thread that arranges
};

} // namespace msgbus_server
