#pragma once

#include "bus_interfaces.h"
#include "common/mutex.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace message_bus {
class MessageBus;
}

namespace msgbus_server {

class SubscriberWaits;

/// Receiving without a thread for each waiting subscriber. A wait in the bus blocks the thread that serves it, which
/// starts another one in its place. Here a wait defers its reply (nk/deferred_reply.h) and returns; the thread that
/// puts a value into the subscriber's queue, or cancels it, answers. A reply offers the values that follow it ahead, so
/// a client that lags behind takes most of them without a request.
///
/// Results and log lines are those of the bus. At debug level nothing is offered: each wait writes its lines.
///
/// Where replies cannot be deferred, a wait blocks in the bus.
///
/// Lock order: `mutex` is a leaf. The bus's lock on the subscribers may be held when a queue changes, so it is never
/// taken inside a lock of this object, and SubscriberWaits::mutex is never held together with `mutex`.
///
/// Threads: any.
class ParkedWaits final : public message_bus::IWorker {
public:
    /// `deliveryAction` is called when a subscriber's queue has got a value, on the thread that put it there and with
    /// the bus's lock on the subscribers held; must not throw. Lifetime: the bus must outlive this object.
    explicit ParkedWaits(message_bus::MessageBus& servedBus, std::function<void()> deliveryAction = {})
        : bus(servedBus), onDelivery(std::move(deliveryAction)) {}
    ParkedWaits(const ParkedWaits&) = delete;
    ParkedWaits& operator=(const ParkedWaits&) = delete;
    /// Requires: no Wait under way. A wait that is still parked gets no answer; unregistration gives it one.
    ~ParkedWaits() override;

    /// Returns: 0 without the outputs when the reply is deferred: the thread's own reply then sends nothing. Otherwise
    /// as the bus.
    /// Blocks: where replies cannot be deferred, as the bus; else never.
    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

    /// Returns: how many values the subscriber has not read, those that were offered to its client taken back; nothing
    /// when it has not waited yet, or is unknown.
    std::optional<std::size_t> Unread(long subscriberId);

private:
    std::shared_ptr<SubscriberWaits> FindOrAdd(long subscriberId);
    void Forget(long subscriberId);
    cor::ResultCode WaitInTheBus(SubscriberWaits& waits, long subscriberId, std::string& topic, long& message);

    message_bus::MessageBus& bus;
    const std::function<void()> onDelivery;

    common::Mutex mutex;
    /// By subscriber: those that have waited and are registered.
    std::unordered_map<long, std::shared_ptr<SubscriberWaits>> waiting GUARDED_BY(mutex);
};

} // namespace msgbus_server
