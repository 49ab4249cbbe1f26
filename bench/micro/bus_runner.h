#pragma once

#include "message_bus.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace bench {

/// A bus that runs in this process without any IPC: its connector's server is the benchmark itself.
/// Every failure of the bus is a std::runtime_error.
class BusRunner final {
public:
    /// Runs a bus as long as `body` does, with its events thread and a connector, so that Wait works.
    static void Run(const std::function<void(BusRunner&)>& body);

    message_bus::MessageBus& Bus() { return *bus; }

    long Publisher(const std::string& topic);
    long Subscriber(const std::string& topic);

    /// Pushes `count` values; the inbound queue must have room.
    void Push(long publisher, long count);

    /// Takes `count` values of the subscriber off its queue.
    /// Blocks: until they are there.
    void Take(long subscriber, long count);

    /// Makes the events thread look at the inbound queue again: its wake-up may have been lost, as message_bus.h tells,
    /// and then a value waits for the next push.
    void Rescue();

    /// How many times that was needed.
    long Rescues() const { return rescues; }

private:
    BusRunner();

    const std::shared_ptr<message_bus::MessageBus> bus;
    long rescuer = -1;
    long rescues = 0;
};

/// As many values as the inbound queue takes while nobody takes from it, with some room left.
inline constexpr long batchSize = 1000;

/// Longer than any delivery takes that is not stuck.
inline constexpr std::chrono::milliseconds stuckAfter{20};

} // namespace bench
