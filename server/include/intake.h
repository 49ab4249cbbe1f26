#pragma once

#include "bus_interfaces.h"
#include "common/mutex.h"
#include "message_bus.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace msgbus_server {

/// Decides which pushes reach the bus. One that does not is answered 2, as if the inbound queue were full, and without
/// a line: clients try again, and after a while find the next server.
///
/// - Close refuses all of them, for a drain.
/// - HoldFor refuses all of them for a while: a server that follows another one lets the subscribers of that one
///   register first.
/// - A push is refused while the queue holds as much work as `MostLooks`. The events thread looks at every subscriber
///   for each value, and neither a registration nor a stop can interrupt it, so a queue of 1,025 values for 100,000
///   subscribers would keep a stop waiting for seconds. Up to 240 subscribers the limit is that of the bus.
///
/// Threads: any; Push with the turn of the pushes (PushTurn).
class Intake final : public message_bus::IProvider {
public:
    using Clock = std::chrono::steady_clock;

    /// Values that may be queued at once, times subscribers. A look takes about 100 ns where the subscribers do not fit
    /// into the cache, and a delivery up to a microsecond.
    static constexpr std::size_t MostLooks = 250'000;

    /// Values that may be queued whatever the number of subscribers.
    static constexpr std::size_t LeastBacklog = 8;

    /// Called, with the turn, for a push that is refused here. May be empty.
    using RefusalAction = std::function<void(long publisherId)>;

    /// `pushTurn`: the mutex of the turn. `subscriberCount`: of the moment. Lifetime: the first three must outlive this
    /// object.
    Intake(common::Mutex& pushTurn, message_bus::IProvider& publisher, const message_bus::MessageBus& observed,
           std::function<std::size_t()> subscriberCount, RefusalAction refusalAction = {},
           std::function<Clock::time_point()> time = Clock::now);
    Intake(const Intake&) = delete;
    Intake& operator=(const Intake&) = delete;

    /// Requires: the turn is held.
    cor::ResultCode Push(long publisherId, long message) override;

    /// Refuses pushes from now on. Blocks: until those under way are over.
    void Close() noexcept;

    /// Refuses pushes for `duration`.
    void HoldFor(Clock::duration duration) noexcept;

private:
    bool IsHeld() noexcept;
    bool HasRoom() const;

    common::Mutex& turn;
    message_bus::IProvider& provider;
    const message_bus::MessageBus& bus;
    const std::function<std::size_t()> subscribers;
    const RefusalAction noteRefusal;
    const std::function<Clock::time_point()> now;

    std::atomic<bool> isClosed{false}; ///< turns true with the turn; relaxed: the turn orders it

    std::atomic<Clock::rep> heldUntil{0}; ///< 0: not held; relaxed: it carries no data
};

} // namespace msgbus_server
