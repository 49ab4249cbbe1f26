#pragma once

#include "account/fan_out_ring.h"
#include "account/rate_history.h"
#include "account/trace.h"
#include "instruments/account_layout.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace msgbus_server {

/// Keeps what is not of one subscriber alone. Threads: any.
class ISubscriberSink {
public:
    virtual ~ISubscriberSink() = default;

    /// A value took so long: for the histograms.
    virtual void Note(instruments::layout::Subscriber& slot, std::uint64_t nanoseconds) noexcept = 0;
    /// The account of a subscriber was given up: a value has left its queue that never came there.
    virtual void NoteGivenUp(long subscriberId) noexcept = 0;
    /// Returns: what follows single values. Lifetime: that of this object.
    virtual Trace& Following() noexcept = 0;
};

/// Writes the account of one subscriber: each value that is due to it, and each step that a value makes from its queue
/// to its client.
///
/// A value is noted as due by the events thread, right after that has put it into the queue. Another thread may take it
/// from the queue a moment earlier, and waits for that moment before it notes a step. So at every moment the terms add
/// up. Values go their way whatever becomes of the account: that wait is limited, and where it fails the account is
/// given up and stays as it is.
///
/// Threads: NoteDue on the events thread; NotePut instead of it; all others one at a time, with the lock on the
/// subscriber's waits.
class SubscriberEntry final {
public:
    /// One value in so many is followed with a clock.
    static constexpr std::uint64_t SampleInterval = 64;

    /// Lifetime: all references must outlive this object.
    SubscriberEntry(long subscriberId, instruments::layout::Subscriber& written, const FanOutRing& fanOut,
                    ISubscriberSink& subscriberSink);
    SubscriberEntry(const SubscriberEntry&) = delete;
    SubscriberEntry& operator=(const SubscriberEntry&) = delete;

    /// The queue has got one more value. Returns: whether AddSample is to be called for it.
    bool NoteDue() noexcept;
    /// The value that was noted last is followed.
    void AddSample() noexcept;
    /// The same for a value that no publisher has pushed, while the events thread has none.
    bool NotePut() noexcept;

    /// The first `count` unread values are about to be handed over.
    void BeginHandOver(std::size_t count) noexcept;
    /// Of those, so many were taken, and so many offered. The rest is unread again.
    void EndHandOver(std::size_t taken, std::size_t offered) noexcept;
    /// What was offered was taken, or went nowhere with its client, or is unread again.
    void EndOffer(std::size_t taken, std::size_t undelivered) noexcept;
    /// So many unread values are dropped.
    void NoteDropped(instruments::layout::Drop reason, std::size_t count) noexcept;
    /// Every unread value is dropped. Returns: how many there were.
    std::size_t DropAll(instruments::layout::Drop reason) noexcept;

    void SetWaiting(std::size_t waits) noexcept;
    void SetCut() noexcept;

    /// Returns: how many values are unread. What is being put into the queue at this moment may be missing.
    std::size_t Queued() const noexcept { return slot.due.load(std::memory_order_acquire) - flow.left; }

    const instruments::layout::SubscriberFlow& Flow() const noexcept { return flow; }
    instruments::layout::Subscriber& Slot() noexcept { return slot; }

private:
    struct Sample {
        std::uint64_t index; ///< of the value, as `due` counts
        std::int64_t at;
    };

    bool NoteDueSince(std::int64_t time) noexcept;
    bool IsTraced() const noexcept;
    bool AwaitDue(std::uint64_t count) const noexcept;
    bool Leave(std::size_t count) noexcept;
    void CountDropped(instruments::layout::Drop reason, std::size_t count) noexcept;
    void Write() noexcept;

    const long id;
    instruments::layout::Subscriber& slot;
    const FanOutRing& ring;
    ISubscriberSink& sink;
    Trace& trace;

    std::atomic<bool> isGivenUp{false};     ///< turns true with that lock; relaxed: it carries no data
    std::atomic<std::uint32_t> tracedIn{0}; ///< the trace that has a value of this subscriber; relaxed: as leftSeen
    std::atomic<std::uint64_t> leftSeen;    ///< flow.left, for the events thread; relaxed: it decides about a time only

    // With the lock on the subscriber's waits.
    instruments::layout::SubscriberFlow flow;
    RateHistory rates;
    std::deque<Sample> samples;
};

} // namespace msgbus_server
