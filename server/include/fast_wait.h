#pragma once

#include "message_bus.h"

#include <atomic>
#include <chrono>

namespace msgbus_server {

/// Receiving without a hand-over where none is needed. A wait in the bus replaces the worker that serves it, two thread
/// births per value, because it may block; one whose subscriber has values queued does not. Such a wait takes its value
/// here, with the bus's results, outputs and log lines; every other one is the bus's.
/// Threads: any.
class FastWait final : public message_bus::IWorker {
public:
    /// Whether a wait that finds no value may hold its worker for up to a millisecond, where the next value is due any
    /// moment: the same subscriber has taken the last few, microseconds apart, and nobody else any in between. Not
    /// where the worker may be the only one that serves publishers too.
    enum class Linger { Never, InAStream };

    /// `worker` takes the waits that may block. Lifetime: both must outlive this object.
    FastWait(const message_bus::MessageBus& messageBus, message_bus::IWorker& worker, Linger mayLinger)
        : bus(messageBus), blockingWorker(worker), linger(mayLinger) {}

    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

private:
    bool IsDueAnyMoment(long subscriberId) const;
    void NoteDelivery(long subscriberId);

    const message_bus::MessageBus& bus;
    message_bus::IWorker& blockingWorker;
    const Linger linger;

    // Who took the last value, when, and how many in quick succession. Relaxed, and not one: two deliveries that race
    // end a stream too early or too late, which costs one hand-over or one millisecond.
    std::atomic<long> lastSubscriber{-1};
    std::atomic<std::chrono::steady_clock::rep> lastDelivery{0};
    std::atomic<int> quickDeliveries{0};
};

} // namespace msgbus_server
