#pragma once

#include "bus_interfaces.h"

#include <atomic>
#include <chrono>

namespace msgbus_server {

/// Receiving without a hand-over where none is needed. A wait in the bus replaces the worker that serves it, two thread
/// starts per value, because it may block; a wait whose subscriber has values queued does not block. Such a wait takes
/// its value with the bus's TryWait; every other one is passed on.
/// Threads: any.
class FastWait final : public message_bus::IWorker {
public:
    /// Whether a wait that finds no value may hold its worker for up to a millisecond when the next value is due any
    /// moment: the same subscriber took the last few, microseconds apart, and no other subscriber any in between. Not
    /// where the worker may be the only one that serves publishers too.
    enum class Linger { Never, InAStream };

    /// `readyWorker` takes what is queued, `worker` the waits that may block. Lifetime: both must outlive this object.
    FastWait(message_bus::IReadyWorker& readyWorker, message_bus::IWorker& worker, Linger mayLinger)
        : ready(readyWorker), blocking(worker), linger(mayLinger) {}

    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

private:
    bool IsDueAnyMoment(long subscriberId) const;
    void NoteDelivery(long subscriberId);

    message_bus::IReadyWorker& ready;
    message_bus::IWorker& blocking;
    const Linger linger;

    // Which subscriber took the last value, when, and how many in quick succession. Relaxed, and not one word: two
    // deliveries that race end a stream too early or too late, which costs one hand-over or one millisecond.
    std::atomic<long> lastSubscriber{-1};
    std::atomic<std::chrono::steady_clock::rep> lastDelivery{0};
    std::atomic<int> quickDeliveries{0};
};

} // namespace msgbus_server
