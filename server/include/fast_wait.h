#pragma once

#include "message_bus.h"

namespace msgbus_server {

/// Receiving without a hand-over where none is needed. A wait in the bus replaces the worker that serves it, two thread
/// births per value, because it may block; one whose subscriber has values queued does not. Such a wait takes its value
/// here, with the bus's results, outputs and log lines; every other one is the bus's.
/// Threads: any.
class FastWait final : public message_bus::IWorker {
public:
    /// `worker` takes the waits that may block. Lifetime: both must outlive this object.
    FastWait(const message_bus::MessageBus& messageBus, message_bus::IWorker& worker)
        : bus(messageBus), blockingWorker(worker) {}

    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

private:
    const message_bus::MessageBus& bus;
    message_bus::IWorker& blockingWorker;
};

} // namespace msgbus_server
