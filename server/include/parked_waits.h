#pragma once

#include "bus_interfaces.h"
#include "common/mutex.h"
#include "queue_limit.h"
#include "subscriber_waits.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace message_bus {
class MessageBus;
}

namespace msgbus_server {

/// What limits the values that subscribers leave unread. Each function must return at once and must not throw.
struct QueueControl {
    std::function<QueueLimit(const message_bus::Subscriber&)> limitOf{};
    QueueBudget* budget = nullptr;
    std::function<void(long subscriber)> cut{};                                  ///< it has to be unregistered
    std::function<void(QueueBudget::Exceeded, std::uint64_t caller)> exceeded{}; ///< CutLargest is due
    std::function<void(long subscriber)> discrepancy{}; ///< its account and its queue do not agree
    std::function<void()> unknownWait{};                ///< a wait was refused: no subscriber has its id
};

/// Receiving without a thread for each waiting subscriber. A wait in the bus blocks the thread that serves it, which
/// starts another one in its place. Here a wait defers its reply (nk/deferred_reply.h) and returns; the thread that
/// puts a value into the subscriber's queue, or cancels it, answers. A reply offers the values that follow it ahead, so
/// a client that lags behind takes most of them without a request.
///
/// Results and log lines are those of the bus. At debug level nothing is offered: each wait writes its lines.
///
/// Where replies cannot be deferred, a wait blocks in the bus.
///
/// With QueueControl it also keeps subscribers from leaving more unread than they may (SubscriberWaits): those that are
/// cut have to be unregistered by others, and their waits get code 9 then.
///
/// Lock order: `mutex` is a leaf. The bus's lock on the subscribers may be held when a queue changes, so it is never
/// taken inside a lock of this object, and SubscriberWaits::mutex is never held together with `mutex`.
///
/// Threads: any.
class ParkedWaits final : public message_bus::IWorker, private SubscriberWaits::IEvents {
public:
    /// `deliveryAction` is called when a subscriber's queue has got a value, on the thread that put it there and with
    /// the bus's lock on the subscribers held; must not throw. `isDeferring`: false: every wait blocks in the bus.
    /// Lifetime: the bus must outlive this object.
    explicit ParkedWaits(message_bus::MessageBus& servedBus, std::function<void()> deliveryAction = {},
                         QueueControl queueControl = {}, bool isDeferring = true)
        : bus(servedBus), onDelivery(std::move(deliveryAction)), control(std::move(queueControl)), defers(isDeferring) {
    }
    ParkedWaits(const ParkedWaits&) = delete;
    ParkedWaits& operator=(const ParkedWaits&) = delete;
    /// Requires: no Wait under way. A wait that is still parked gets no answer; unregistration gives it one.
    ~ParkedWaits() override;

    /// Returns: 0 without the outputs when the reply is deferred: the thread's own reply then sends nothing. Otherwise
    /// as the bus.
    /// Blocks: where replies cannot be deferred, as the bus; else never.
    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

    /// Follows the queue of a new subscriber, before its first wait; `caller` registered it.
    void Follow(long subscriberId, std::uint64_t caller, SubscriberWaits::Account account = nullptr);

    /// Returns: the subscriber's part; null when it is not followed. Who keeps it keeps the unread values.
    std::shared_ptr<SubscriberWaits> Find(long subscriberId);

    /// Cuts those with the most unread memory until the rest takes no more than `most`. `caller`: of that one only.
    void CutLargest(std::optional<std::uint64_t> caller, std::size_t most);
    /// Returns: how many values the subscriber has not read, those that were offered to its client taken back; nothing
    /// when it has not waited yet, or is unknown.
    std::optional<std::size_t> Unread(long subscriberId);

private:
    /// The most subscribers that were cut and are remembered.
    static constexpr std::size_t MostCut = 4096;

    void OnEnd(long subscriberId) noexcept override;
    void OnDelivery() noexcept override;
    void OnCut(long subscriberId) noexcept override;
    void OnExceeded(QueueBudget::Exceeded what, std::uint64_t caller) noexcept override;
    void OnDiscrepancy(long subscriberId) noexcept override;

    std::shared_ptr<SubscriberWaits> FindOrAdd(long subscriberId, std::uint64_t caller,
                                               SubscriberWaits::Account account = nullptr);
    void Forget(long subscriberId);
    std::vector<std::shared_ptr<SubscriberWaits>> All();
    std::optional<std::uint64_t> LostOfCut(long subscriberId);
    cor::ResultCode WaitInTheBus(SubscriberWaits& waits, long subscriberId, std::string& topic, long& message);

    message_bus::MessageBus& bus;
    const std::function<void()> onDelivery;
    const QueueControl control;
    const bool defers;

    common::Mutex mutex;
    /// By subscriber: those that have waited, or are followed, and are registered.
    std::unordered_map<long, std::shared_ptr<SubscriberWaits>> waiting GUARDED_BY(mutex);
    std::map<long, std::uint64_t> cut GUARDED_BY(mutex); ///< with what they lost; the oldest are forgotten
};

} // namespace msgbus_server
