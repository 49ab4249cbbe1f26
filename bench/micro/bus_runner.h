#pragma once

#include "message_bus.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace bench {

/// A bus that runs in this process without IPC: the benchmark takes the place of its connector's server.
/// Every failure of the bus throws std::runtime_error.
class BusRunner final {
public:
    /// Runs a bus while `body` runs, with its events thread and a connector, so that Wait works.
    static void Run(const std::function<void(BusRunner&)>& body);

    message_bus::MessageBus& Bus() { return *bus; }

    long Publisher(const std::string& topic);
    long Subscriber(const std::string& topic);

    /// Pushes `count` values; the inbound queue must have room.
    void Push(long publisher, long count);

    /// Takes `count` values from the subscriber's queue.
    /// Blocks: until they are there.
    void Take(long subscriber, long count);

    /// Pushes one value of another topic, so that the events thread checks the inbound queue again. The bus can lose
    /// the wake-up of a push; the value then waits for the next push.
    void Rescue();

    /// Returns: the number of calls of Rescue.
    long Rescues() const { return rescues; }

private:
    BusRunner();

    const std::shared_ptr<message_bus::MessageBus> bus;
    long rescuer = -1;
    long rescues = 0;
};

/// Fits into the inbound queue (1025 values) even if the events thread takes none.
inline constexpr long BatchSize = 1000;

/// Longer than any delivery takes whose wake-up was not lost.
inline constexpr std::chrono::milliseconds StuckAfter{20};

} // namespace bench
