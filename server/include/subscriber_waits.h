#pragma once

#include "account/subscriber_entry.h"
#include "common/mutex.h"
#include "message_bus.h"
#include "nk/deferred_reply.h"
#include "queue_budget.h"
#include "queue_limit.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace msgbus_server {

/// The parked waits of one subscriber, and its values that have left its queue and are not delivered for certain.
///
/// A value goes queue -> values -> client. It leaves the queue by one pop, under the mutex, and leaves `values` when a
/// reply has carried it, when its client has taken it as an offer, or when the queue is canceled. The values stand in
/// the order of the queue, so they are delivered in it:
///
///     values   [ offered ... | kept ... ]      then the queue
///
/// `offered` lie in the shared page of the client whose wait was answered last, which may take them meanwhile. They are
/// taken back before anything else is delivered: each new wait does it, and the end of the subscriber. `kept` are those
/// that no reply could carry: the first of another topic than those before it, one that an offer had no room for, one
/// whose client was gone.
///
/// A wait is parked only while there is nothing to deliver, and values are offered only while no other wait is parked.
/// So there are never parked waits and values at once, but within one call.
///
/// A subscriber that leaves more values unread than its limit loses some, or is cut: it gets no further value, and its
/// waits code 9. What is unread is counted only now and then, so a large limit is exceeded by some values first.
///
/// Threads: every operation from any thread. Blocks: for the mutex, which is never held while a client is waited for.
class SubscriberWaits final : public message_bus::IQueueListener, public std::enable_shared_from_this<SubscriberWaits> {
public:
    /// What others do about it. Must not throw.
    class IEvents {
    public:
        virtual ~IEvents() = default;

        /// The queue is canceled. On the thread that canceled it, without the mutex.
        virtual void OnEnd(long subscriberId) noexcept = 0;
        /// The queue has got a value. On the thread that put it there, as the next two; without the mutex.
        virtual void OnDelivery() noexcept = 0;
        /// The subscriber was cut, and has to be unregistered. With the mutex.
        virtual void OnCut(long subscriberId) noexcept = 0;
        /// The budget is exceeded, which is to be acknowledged. With the mutex.
        virtual void OnExceeded(QueueBudget::Exceeded what, std::uint64_t caller) noexcept = 0;
        /// The account of the subscriber, which ends, has another number of unread values than there are. With the
        /// mutex.
        virtual void OnDiscrepancy(long subscriberId) noexcept = 0;
    };

    /// How much may be unread, and whose it is. `budget`: null: without one. Lifetime: the budget's.
    struct Allowance {
        QueueLimit limit;
        QueueBudget* budget = nullptr;
        std::uint64_t caller = 0;
    };
    using Account = std::shared_ptr<SubscriberEntry>;

    /// A wait blocks in the bus, for a scope.
    class Blocking final {
    public:
        explicit Blocking(SubscriberWaits& blockedWaits) : waits(blockedWaits) { waits.AddBlocking(1); }
        Blocking(const Blocking&) = delete;
        Blocking& operator=(const Blocking&) = delete;
        ~Blocking() { waits.AddBlocking(-1); }

    private:
        SubscriberWaits& waits;
    };

    /// Lifetime: `informed` must outlive this object.
    /// `account`: null: none is kept.
    SubscriberWaits(std::shared_ptr<message_bus::Subscriber> waitingSubscriber, IEvents& informed, Allowance allowed,
                    Account account = nullptr);
    SubscriberWaits(const SubscriberWaits&) = delete;
    SubscriberWaits& operator=(const SubscriberWaits&) = delete;
    ~SubscriberWaits() override;

    /// Follows the queue from now on, or no longer. Lifetime: a queue that is followed holds a plain pointer to this
    /// object, and uses it while another thread changes the queue.
    void Follow() { subscriber->queue.SetListener(this); }
    void Unfollow() { subscriber->queue.SetListener(nullptr); }

    /// Answers the wait now if there is a value or the queue is canceled, else with the next value or the cancel.
    /// Returns: false when the queue is canceled.
    /// Throws: std::bad_alloc, with the wait not answered. Requires: the queue is followed.
    bool Park(const NkDeferredReply& wait);

    /// Puts a value into the queue that no publisher has pushed: what OnDelivery is called for stays what was pushed.
    /// Requires: the events thread has no value, and the queue stays as it is but for clients that take values.
    void Put(std::shared_ptr<message_bus::Message> value);

    /// For a wait whose reply cannot be deferred. Returns: the first value that has left the queue; null: none has.
    std::shared_ptr<message_bus::Message> TakeKept();
    /// Such a wait has taken a value in the bus.
    void NoteTakenInTheBus();

    /// Takes back what is offered. Returns: how many values no client has taken yet.
    std::size_t Unread();

    /// Answers a wait with a code other than 0. Does nothing when it was answered before.
    static void Refuse(const NkDeferredReply& wait, cor::ResultCode code) noexcept;

    /// Answers a wait of a subscriber that was cut with 9, and notes what it has lost.
    static void RefuseCut(const NkDeferredReply& wait, std::uint64_t lost) noexcept;

    /// Answers a wait that failed with 10, and writes the bus's line for it.
    static void Fail(const NkDeferredReply& wait, const std::exception& error) noexcept;

    /// Cuts the subscriber, unless it has nothing unread, or is cut already.
    void Cut() noexcept;
    bool IsCut() const noexcept;

    /// Returns: how many values were lost so far, of the values that its limit did not permit.
    std::uint64_t Lost() const noexcept;
    /// Counts what is unread, and charges it to the budget. Returns: the memory that it takes; 0 once cut.
    std::size_t Recount() noexcept;
    std::uint64_t Caller() const noexcept { return allowance.caller; }

    void OnEnqueue() noexcept override;
    void OnCancel() noexcept override;

    /// The most waits that are parked at once: as many as clients that a channel takes. The waits of clients that are
    /// gone stay until the next value, so past this number the oldest is answered 10.
    static constexpr std::size_t MostParked = 2048;

private:
    void Continue(bool isSample) noexcept;
    void Serve() noexcept REQUIRES(mutex);
    std::optional<cor::ResultCode> TakeFirst() noexcept REQUIRES(mutex);
    void Answer(const NkDeferredReply& wait) noexcept REQUIRES(mutex);
    bool TakeAnother() noexcept REQUIRES(mutex);
    void TakeBack() noexcept REQUIRES(mutex);

    void CheckBacklog() noexcept;
    std::size_t Backlog() const noexcept REQUIRES(mutex);
    std::uint64_t LostSoFar() const noexcept REQUIRES(mutex);
    void ApplyPolicy(std::size_t backlog) noexcept REQUIRES(mutex);
    void CutNow() noexcept REQUIRES(mutex);
    bool DropFirst() noexcept REQUIRES(mutex);
    void SetCharge(std::size_t valueCount) noexcept REQUIRES(mutex);
    void AddBlocking(int count) noexcept;
    void NoteWaits() noexcept REQUIRES(mutex);
    void NoteTaken() noexcept REQUIRES(mutex);
    void NoteDropped(instruments::layout::Drop reason) noexcept REQUIRES(mutex);
    void NoteEnd() noexcept REQUIRES(mutex);

    // What the events thread touches for each value comes first, in one cache line.
    IEvents& events;
    /// Whether a wait is parked; changed under the mutex. It turns true before the queue is looked at, so a change that
    /// finds it false is one that the wait finds in the queue, whose mutex orders the two.
    std::atomic<bool> isParked{false};
    std::size_t unchecked = 0;       ///< values since the last check; of the thread that puts values into the queue
    const std::size_t checkInterval; ///< in values
    const Account account;           ///< null: none is kept

    const std::shared_ptr<message_bus::Subscriber> subscriber;
    const Allowance allowance;

    mutable common::Mutex mutex;
    std::deque<NkDeferredReply> parked GUARDED_BY(mutex); ///< oldest first
    std::deque<std::shared_ptr<message_bus::Message>> values GUARDED_BY(mutex);
    std::size_t mostOffers GUARDED_BY(mutex) = NkMaxOffers; ///< of the next reply
    std::size_t offered GUARDED_BY(mutex) = 0;              ///< so many of the first values are offered
    NkDeferredReply offerOf GUARDED_BY(mutex){};            ///< the wait whose reply they came with
    int blocking GUARDED_BY(mutex) = 0;                     ///< waits that block in the bus
    bool isCut GUARDED_BY(mutex) = false;
    bool hasEnded GUARDED_BY(mutex) = false;   ///< and its account with it
    bool tookInVain GUARDED_BY(mutex) = false; ///< a wait, which ended without a value
    std::uint64_t lost GUARDED_BY(mutex) = 0;  ///< dropped
    std::size_t charge GUARDED_BY(mutex) = 0;  ///< of the budget, in bytes
};

} // namespace msgbus_server
