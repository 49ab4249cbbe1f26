#pragma once

#include "bus_interfaces.h"

#include <sched.h>

#include <atomic>
#include <chrono>

namespace msgbus_server {

/// Publishing that keeps all threads of this process on one processor while values come thick and fast. Every value
/// wakes three threads of the server, one after the other, each for a few microseconds: on one processor that costs a
/// few more, across two it costs an interrupt each, some tens in a virtual machine. docs/performance.md has figures.
///
/// The threads are spread (the scheduler places them) at first, together after `quickPushes` pushes with short gaps,
/// and spread again after `slowPushes` with long ones. Where the process may use one processor only, nothing changes.
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
    void Note(std::chrono::steady_clock::duration gap);
    void Place(const cpu_set_t& processors);

    message_bus::IProvider& provider;
    const Clock now;
    cpu_set_t all{}; ///< that the process may use
    cpu_set_t one{}; ///< the last of them

    std::atomic<std::chrono::steady_clock::rep> lastPush{0};
    std::atomic<int> quick{0}; ///< pushes in a row with short gaps
    std::atomic<int> slow{0};  ///< with long ones, since the last short one
    std::atomic<bool> wereTogether{false};
    std::atomic_flag isPlacing; ///< somebody is at it
};

} // namespace msgbus_server
