#pragma once

#include "bus_interfaces.h"

#include <sched.h>

#include <atomic>
#include <chrono>

namespace msgbus_server {

/// Publishing that arranges the threads of this process for throughput while values come thick and fast. Every value
/// wakes three threads of the server, one after the other, each for a few microseconds.
///
/// - On one processor that costs a few more, across two it costs an interrupt each, some tens in a virtual machine.
/// - As batch threads they do not interrupt each other: the one that is woken runs when the one that wakes it is done,
///   and finds more to do at once.
///
/// docs/performance.md has figures. The threads are as usual at first, arranged after `quickPushes` pushes with short
/// gaps, and as usual again after `slowPushes` with long ones. A process whose threads do not have the system's normal
/// policy keeps its own.
///
/// Threads: any. The threads of the process must not be confined by anybody else meanwhile.
class KeepTogether final : public message_bus::IProvider {
public:
    static constexpr int quickPushes = 256;
    static constexpr int slowPushes = 16;

    using Clock = std::chrono::steady_clock::time_point (*)();

    /// Lifetime: `publisher` must outlive this object.
    explicit KeepTogether(message_bus::IProvider& publisher, Clock clock = std::chrono::steady_clock::now);

    cor::ResultCode Push(long publisherId, long message) override;

private:
    /// How the threads run.
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
    std::atomic_flag isArranging; ///< somebody is at it
};

} // namespace msgbus_server
