#include "subscriber_waits.h"

#include "bos/logger.h"
#include "br_MessageBus.h"
#include "kn/status.h"
#include "nk/loss.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>

namespace msgbus_server {

namespace {

using cor::ResultCode;
using instruments::layout::Drop;
using message_bus::Message;
using message_bus::MessageBus;
using message_bus::Subscriber;

constexpr std::size_t ValueOffset = offsetof(br_MessageBusSubs_Wait_res, message);

ResultCode FailQuietly(const std::exception& error) noexcept {
    try {
        return MessageBus::FailWait(error);
    } catch (...) {
        return ResultCode::Failed; // the log fails too
    }
}

/// At debug level each wait writes its lines, so each has to reach the server.
bool MayOffer() {
    return !bos::logger::BOSLogger::RootLogger().IsEnabled(bos::logger::LogLevel::Debug);
}

/// A count takes two locks, and must not be made for each of the values that make a long queue.
std::size_t CheckInterval(const QueueLimit& limit) {
    constexpr std::size_t shortQueue = 4096;
    constexpr std::size_t interval = 256;
    return limit.values == QueueLimit::None ? QueueLimit::None : limit.values < shortQueue ? 1 : interval;
}

} // namespace

SubscriberWaits::SubscriberWaits(std::shared_ptr<Subscriber> waitingSubscriber, IEvents& informed, Allowance allowed,
                                 Account keptAccount)
    : events(informed), checkInterval(CheckInterval(allowed.limit)), account(std::move(keptAccount)),
      subscriber(std::move(waitingSubscriber)), allowance(allowed) {}

SubscriberWaits::~SubscriberWaits() {
    const common::MutexLock lock(mutex);
    SetCharge(0);
}

bool SubscriberWaits::Park(const NkDeferredReply& wait) {
    const common::MutexLock lock(mutex);
    if (isCut) {
        RefuseCut(wait, LostSoFar());
        return !subscriber->queue.IsCanceled();
    }
    TakeBack();
    if (parked.size() == MostParked) {
        Refuse(parked.front(), ResultCode::Failed);
        parked.pop_front();
    }
    parked.push_back(wait);
    isParked.store(true, std::memory_order_relaxed);
    Serve();
    NoteWaits();
    return !subscriber->queue.IsCanceled();
}

std::shared_ptr<Message> SubscriberWaits::TakeKept() {
    const common::MutexLock lock(mutex);
    TakeBack();
    if (values.empty() || subscriber->queue.IsCanceled()) {
        return nullptr;
    }
    auto first = std::move(values.front());
    values.pop_front();
    NoteTaken();
    return first;
}

void SubscriberWaits::NoteTakenInTheBus() {
    const common::MutexLock lock(mutex);
    NoteTaken();
}

void SubscriberWaits::AddBlocking(int count) noexcept {
    const common::MutexLock lock(mutex);
    blocking += count;
    NoteWaits();
}

std::size_t SubscriberWaits::Unread() {
    const common::MutexLock lock(mutex);
    TakeBack();
    return subscriber->queue.IsCanceled() ? 0 : values.size() + subscriber->queue.Size();
}

void SubscriberWaits::Refuse(const NkDeferredReply& wait, ResultCode code) noexcept {
    assert(code != ResultCode::Success);
    br_MessageBus_component_res record;
    br_MessageBusSubs_Wait_reply(br_MessageBus_ErrorResult(static_cast<std::uint16_t>(code)), "", -1, &record.header);
    static_cast<void>(NkReplyDeferred(wait, &record.header)); // a client that is gone needs no code
}

void SubscriberWaits::RefuseCut(const NkDeferredReply& wait, std::uint64_t lost) noexcept {
    NkNoteLoss(wait, {static_cast<std::uint32_t>(ResultCode::TooManyValues), lost});
    Refuse(wait, ResultCode::TooManyValues);
}

void SubscriberWaits::Fail(const NkDeferredReply& wait, const std::exception& error) noexcept {
    Refuse(wait, FailQuietly(error));
}

void SubscriberWaits::OnEnqueue() noexcept {
    const bool isSample = account && account->NoteDue();
    events.OnDelivery();
    Continue(isSample);
}

void SubscriberWaits::Put(std::shared_ptr<Message> value) {
    Unfollow();
    try {
        subscriber->queue.Enqueue(std::move(value));
    } catch (...) {
        Follow();
        throw;
    }
    Follow();
    Continue(account && account->NotePut());
}

/// The queue has got one more value.
void SubscriberWaits::Continue(bool isSample) noexcept {
    if (isParked.load(std::memory_order_relaxed)) {
        const common::MutexLock lock(mutex);
        if (isSample) {
            account->AddSample();
        }
        Serve();
        NoteWaits();
        return;
    }
    if (isSample) {
        const common::MutexLock lock(mutex);
        account->AddSample();
    }
    if (++unchecked >= checkInterval) { // the next wait takes the value
        unchecked = 0;
        CheckBacklog();
    }
}

void SubscriberWaits::OnCancel() noexcept {
    const auto self = weak_from_this().lock(); // the end action may drop the last other reference
    {
        const common::MutexLock lock(mutex);
        Serve();
        TakeBack(); // so that no later wait of the client takes one; what is left goes with this object
        NoteEnd();
    }
    events.OnEnd(subscriber->id);
}

void SubscriberWaits::CheckBacklog() noexcept {
    const common::MutexLock lock(mutex);
    if (isCut) {
        unchecked = checkInterval; // what comes from now on is dropped at once
        if (DropFirst() && account && account->Queued() != 0) {
            account->NoteDropped(Drop::Cut, 1);
        }
        return;
    }
    if (Backlog() > allowance.limit.values) {
        TakeBack(); // what the client has taken of the offers is not unread
    }
    const std::size_t backlog = Backlog();
    if (backlog > allowance.limit.values || allowance.limit.policy == SlowSubscriber::DropNewest) {
        ApplyPolicy(backlog);
    }
    if (!isCut) {
        SetCharge(std::min(backlog, allowance.limit.values));
    }
}

std::size_t SubscriberWaits::Backlog() const noexcept {
    return values.size() + subscriber->queue.Size();
}

void SubscriberWaits::ApplyPolicy(std::size_t backlog) noexcept {
    switch (allowance.limit.policy) {
    case SlowSubscriber::Cut:
        CutNow();
        break;
    case SlowSubscriber::DropOldest:
        for (; backlog > allowance.limit.values; --backlog) {
            if (DropFirst()) { // else a wait in the bus was faster
                NoteDropped(Drop::Oldest);
            }
        }
        break;
    case SlowSubscriber::DropNewest:
        while (TakeAnother()) { // only here can the last one be dropped
        }
        for (; values.size() > allowance.limit.values; ++lost) {
            values.pop_back();
            NoteDropped(Drop::Newest);
        }
        break;
    }
}

void SubscriberWaits::CutNow() noexcept {
    assert(offered == 0);
    isCut = true;
    SetCharge(0);
    if (account && !hasEnded) {
        account->SetCut();
        account->DropAll(Drop::Cut); // with what a wait in the bus has taken, and has not noted yet
    }
    events.OnCut(subscriber->id);
}

/// Returns: whether there was one.
bool SubscriberWaits::DropFirst() noexcept {
    if (!values.empty()) {
        values.pop_front();
    } else if (std::shared_ptr<Message> dropped; !subscriber->queue.TryPop(dropped)) {
        return false;
    }
    ++lost;
    return true;
}

void SubscriberWaits::SetCharge(std::size_t valueCount) noexcept {
    const std::size_t bytes = valueCount * allowance.limit.bytesPerValue;
    if (allowance.budget == nullptr || bytes == charge) {
        return;
    }
    const auto exceeded = allowance.budget->Change(allowance.caller, charge, bytes);
    charge = bytes;
    if (exceeded != QueueBudget::Exceeded::Nothing) {
        events.OnExceeded(exceeded, allowance.caller);
    }
}

void SubscriberWaits::Cut() noexcept {
    const common::MutexLock lock(mutex);
    TakeBack(); // what the client has taken is not lost
    if (!isCut && Backlog() != 0) {
        CutNow();
    }
}

bool SubscriberWaits::IsCut() const noexcept {
    const common::MutexLock lock(mutex);
    return isCut;
}

std::uint64_t SubscriberWaits::Lost() const noexcept {
    const common::MutexLock lock(mutex);
    return LostSoFar();
}

/// What is unread when the subscriber is cut is lost with it.
std::uint64_t SubscriberWaits::LostSoFar() const noexcept {
    return lost + (isCut ? Backlog() : 0);
}

std::size_t SubscriberWaits::Recount() noexcept {
    const common::MutexLock lock(mutex);
    if (!isCut) {
        SetCharge(std::min(Backlog(), allowance.limit.values));
    }
    return charge;
}

void SubscriberWaits::NoteWaits() noexcept {
    if (account && !hasEnded) {
        account->SetWaiting(parked.size() + static_cast<std::size_t>(blocking));
    }
}

/// One value was taken by a wait whose reply is not deferred.
void SubscriberWaits::NoteTaken() noexcept {
    const bool isCounted = isCut && account && account->Queued() == 0; // as dropped, with the cut
    if (account && !hasEnded && !isCounted) {
        account->BeginHandOver(1);
        account->EndHandOver(1, 0);
    }
}

/// One unread value was dropped.
void SubscriberWaits::NoteDropped(Drop reason) noexcept {
    if (account) {
        account->NoteDropped(reason, 1);
    }
}

/// The subscriber is unregistered: what it has not read is dropped with it.
void SubscriberWaits::NoteEnd() noexcept {
    if (!account || hasEnded) {
        return;
    }
    if (!isCut && blocking == 0 && !tookInVain && account->Queued() != Backlog()) {
        events.OnDiscrepancy(subscriber->id);
    }
    account->SetWaiting(0);
    account->DropAll(isCut ? Drop::Cut : Drop::Unregistered);
    hasEnded = true;
}

/// Answers parked waits, the oldest first, while there are values, or all of them once the queue is canceled.
void SubscriberWaits::Serve() noexcept {
    while (!parked.empty()) {
        const auto result = TakeFirst();
        if (!result) {
            return;
        }
        const NkDeferredReply wait = parked.front();
        parked.pop_front();
        if (*result == ResultCode::Success) {
            Answer(wait);
        } else {
            Refuse(wait, *result);
        }
    }
    isParked.store(false, std::memory_order_relaxed);
}

/// Makes sure that there is a first value. Returns: as MessageBus::TryTake.
std::optional<ResultCode> SubscriberWaits::TakeFirst() noexcept {
    assert(offered == 0);
    const std::size_t known = values.size();
    std::optional<ResultCode> result = ResultCode::Failed;
    try {
        if (known != 0 && !subscriber->queue.IsCanceled()) {
            return ResultCode::Success;
        }
        values.emplace_back(); // before the take: what is taken has a place
        result = MessageBus::TryTake(*subscriber, values.back());
    } catch (const std::exception& error) {
        result = FailQuietly(error);
    } catch (...) {
        // As any other failure; there is no text to log.
    }
    if (result != ResultCode::Success) {
        tookInVain = tookInVain || result.has_value(); // the bus drops a value that is taken beside the cancellation
        values.resize(known);
        SetCharge(0); // nothing is unread
    }
    return result;
}

/// Sends the first value, and offers those of its topic that follow it. A value that was not sent stays the first.
void SubscriberWaits::Answer(const NkDeferredReply& wait) noexcept {
    const Message& first = *values.front();
    std::array<std::int64_t, NkMaxOffers> following;
    std::size_t count = 0;
    if (parked.empty() && MayOffer()) {
        while (count < mostOffers && (count + 1 < values.size() || TakeAnother())) {
            const Message& next = *values[count + 1];
            if (next.topic != first.topic) {
                break;
            }
            following[count++] = next.value;
        }
    }
    br_MessageBus_component_res record;
    br_MessageBusSubs_Wait_reply(0, first.topic, first.value, &record.header);
    if (lost != 0) {
        NkNoteLoss(wait, {0, lost});
    }
    std::size_t put = 0;
    if (account) {
        account->BeginHandOver(1 + count);
    }
    const bool isSent =
        NkReplyDeferred(wait, &record.header, {ValueOffset, following.data(), count}, &put) == KnStatusOk;
    if (account) {
        account->EndHandOver(isSent ? 1 : 0, isSent ? put : 0);
    }
    if (isSent) {
        assert(put <= count);
        values.pop_front();
        if (put < count) {
            mostOffers = 1; // the client takes none, or has those of another subscriber
        }
        offered = put;
        offerOf = wait;
    }
}

/// Moves one more value from the queue to the kept ones. Returns: false when there is none, or no memory.
bool SubscriberWaits::TakeAnother() noexcept {
    const std::size_t known = values.size();
    try {
        values.emplace_back();
        if (subscriber->queue.TryPop(values.back())) {
            return true;
        }
    } catch (...) {
        // The value stays in the queue.
    }
    values.resize(known);
    return false;
}

/// Ends the offer under way: what the client has not taken is kept again.
void SubscriberWaits::TakeBack() noexcept {
    if (offered == 0) {
        return;
    }
    std::size_t taken = 0;
    const bool isLost = NkTakeBackOffers(offerOf, &taken) != KnStatusOk; // with the client or the channel
    if (isLost) {
        taken = offered;
    }
    if (account) {
        const std::size_t gone = std::min(taken, offered);
        account->EndOffer(isLost ? 0 : gone, isLost ? gone : 0);
    }
    // A client that takes few each time, because it waits for others in between, is not worth many.
    mostOffers = std::clamp<std::size_t>(taken < offered ? 2 * taken : 2 * mostOffers, 1, NkMaxOffers);
    const auto end = values.begin() + static_cast<std::ptrdiff_t>(std::min(taken, offered));
    values.erase(values.begin(), end);
    offered = 0;
}

} // namespace msgbus_server
