#pragma once

#include "account/account_keeper.h"
#include "account/fan_out_ring.h"
#include "instruments/account_layout.h"
#include "message_bus.h"

#include <atomic>
#include <cstdint>

namespace msgbus_server {

/// Writes the account of what enters and leaves the inbound queue of the bus:
///
///     accepted == fannedOut + inbound + withoutSubscriber
///
/// at every moment, where the first is counted by the push, the second by the events thread, the third by both, on
/// entry and exit, and the fourth by the push.
///
/// When the events thread has ended and does not empty the queue, the account is closed, with a line in the log.
///
/// Threads: NoteCopy on the events thread; NoteStop and IsClosed on any; all others with the turn of the pushes.
class InboundAccount final {
public:
    /// Lifetime: both must outlive this object.
    InboundAccount(message_bus::MessageBus& accounted, AccountKeeper& written);
    InboundAccount(const InboundAccount&) = delete;
    InboundAccount& operator=(const InboundAccount&) = delete;

    /// Returns: whether the bus has room for one more value.
    bool HasRoom() noexcept;

    /// A value is about to be pushed that has so many subscribers. `now`: of the monotonic clock, in nanoseconds.
    void Enter(std::uint32_t copies, std::int64_t now) noexcept;
    /// The bus has refused that value.
    void TakeBack(std::uint32_t copies) noexcept;
    /// Returns: the number of the value that was entered last, among all accepted ones.
    std::uint64_t LastIndex() const noexcept { return index; }
    /// A value that is no part of the account has been pushed.
    void EnterUncounted() noexcept { ++index; }

    /// The events thread has put a value into one subscriber's queue.
    void NoteCopy() noexcept;
    const FanOutRing& Ring() const noexcept { return ring; }

    /// Waits until the events thread has taken every value; none comes meanwhile. Blocks: for milliseconds.
    void AwaitEmpty();
    /// Waits until it has put every value into the queues, too. Requires: no lock of the bus is held.
    void AwaitFanOut();
    /// The queue was empty, and the bus has changed its list of subscribers since: so everything is fanned out.
    void CheckEmpty();

    /// The server stops: from now on the events thread may end at any time.
    void NoteStop() noexcept { isStopping = true; }
    bool IsStopping() const noexcept { return isStopping; }
    /// Returns: whether what is fanned out is not accounted for any more.
    bool IsClosed() const noexcept { return isClosed.load(std::memory_order_relaxed); }

private:
    void CountAccepted(bool hasSubscriber, int count) noexcept;
    void NoteMost() noexcept;

    message_bus::MessageBus& bus;
    AccountKeeper& keeper;
    std::atomic<bool> isStopping{false};
    std::atomic<bool> isClosed{false}; ///< turns true with the turn

    // With the turn.
    instruments::layout::PushTotals totals;
    std::uint64_t index = 0;     ///< of all accepted values, those without subscribers included
    std::uint64_t leftIndex = 0; ///< so many of them have left the inbound queue, as far as this thread knows
    std::uint64_t leftSeen = 0;  ///< so many of those with subscribers, likewise
    std::uint64_t most = 0;      ///< values in the inbound queue

    FanOutRing ring;
    std::int64_t lastFanOut = 0; ///< of the events thread
};

} // namespace msgbus_server
