#include "account/inbound_account.h"

#include "account/away_time.h"
#include "account/probes.h"
#include "wake_events_thread.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace msgbus_server {

using message_bus::InboundState;

namespace {

/// So many values fit into the inbound queue of the bus.
constexpr std::uint64_t InboundLimit = 1025;

/// So often at a stretch, a tenth of a millisecond apart, is the same number of values found in the inbound queue
/// before the events thread is taken for dead. One that runs takes a value within milliseconds; see Intake::MostLooks.
constexpr int MostIdleLooks = 50'000;
constexpr int MostIdleLooksInAStop = 1000;

} // namespace

InboundAccount::InboundAccount(message_bus::MessageBus& accounted, AccountKeeper& written)
    : bus(accounted), keeper(written), ring(written.Bus().fanOut) {}

bool InboundAccount::HasRoom() noexcept {
    if (index - leftIndex < InboundLimit) {
        return true;
    }
    leftIndex = std::max(leftIndex, ring.Totals().leftIndex);
    if (index - leftIndex < InboundLimit) {
        return true;
    }
    leftIndex = std::max<std::uint64_t>(leftIndex, index - bus.InboundSize()); // those without subscribers leave unseen
    return index - leftIndex < InboundLimit;
}

void InboundAccount::Enter(std::uint32_t copies, std::int64_t now) noexcept {
    ++index;
    if (IsClosed()) {
        return;
    }
    if (copies != 0) {
        ring.Put(copies, index, now);
    }
    CountAccepted(copies != 0, 1);
    NoteMost();
}

void InboundAccount::TakeBack(std::uint32_t copies) noexcept {
    --index;
    if (IsClosed()) {
        return;
    }
    CountAccepted(copies != 0, -1);
    if (copies != 0) {
        ring.Retract();
    }
}

/// Counts one value more, or less: with `count` -1.
void InboundAccount::CountAccepted(bool hasSubscriber, int count) noexcept {
    const auto change = static_cast<std::uint64_t>(count);
    totals.accepted += change;
    (hasSubscriber ? totals.entered : totals.withoutSubscriber) += change;
    keeper.Bus().pushes.Write(totals);
}

/// Follows how many values were in the inbound queue at most. Looks at what the events thread writes only when it may
/// have become more.
void InboundAccount::NoteMost() noexcept {
    if (totals.entered - leftSeen <= most) {
        return;
    }
    leftSeen = ring.Totals().left;
    if (const std::uint64_t inbound = totals.entered - leftSeen; inbound > most) {
        most = inbound;
        keeper.Bus().mostInbound.store(most, std::memory_order_release);
    }
}

void InboundAccount::NoteCopy() noexcept {
    if (IsClosed()) {
        return;
    }
    const std::int64_t pushedAt = ring.PushedAt();
    const std::uint32_t copies = ring.Copies();
    const std::uint64_t fannedOut = ring.Index();
    if (!ring.NoteCopy()) {
        return;
    }
    if (keeper.Following().IsOn()) {
        keeper.Following().NoteFannedOut(fannedOut);
    }
    probes::FanOut(copies);
    // Its loop waits for values: it has been away from it since it could have taken this one.
    const std::int64_t now = RoughTime();
    if (auto* const thread = keeper.ThisThread()) {
        AwayTime::Note(*thread, std::max(pushedAt, lastFanOut), now);
    }
    lastFanOut = now;
}

/// A lost wake-up may have left some behind, so the thread is woken, more than once: each wake-up can be lost as well.
void InboundAccount::AwaitEmpty() {
    constexpr int quickLooks = 200;
    constexpr int looksBetweenWakes = 20;
    constexpr std::chrono::microseconds pause{100};
    int idleLooks = 0; // not the time, in which the process may have been stopped
    std::size_t before = bus.InboundSize();
    for (int looks = 0; !IsClosed() && bus.InboundSize() != 0; ++looks) {
        if (looks < quickLooks) {
            std::this_thread::yield();
            continue;
        }
        if (bus.Inbound() == InboundState::LeftBehind || looks % looksBetweenWakes == 0) {
            WakeEventsThread(bus);
        }
        std::this_thread::sleep_for(pause);
        const std::size_t size = bus.InboundSize();
        idleLooks = size == std::exchange(before, size) ? idleLooks + 1 : 0;
        const bool stops = isStopping;
        if (idleLooks < (stops ? MostIdleLooksInAStop : MostIdleLooks)) {
            continue;
        }
        isClosed.store(true, std::memory_order_relaxed);
        if (!stops) {
            keeper.NoteDiscrepancy("the events thread takes no values, so what is fanned out is not counted any more");
        }
    }
}

/// Requires: the inbound queue was empty, and the bus has changed its list of subscribers since: so the events thread
/// has fanned out everything.
void InboundAccount::CheckEmpty() {
    if (!IsClosed() && ring.Totals().left != totals.entered) {
        isClosed.store(true, std::memory_order_relaxed);
        keeper.NoteDiscrepancy("values have left the inbound queue, and were not fanned out");
    }
}

/// Waits until the events thread has put every value into the queues, and then has none.
void InboundAccount::AwaitFanOut() {
    AwaitEmpty();
    constexpr long noSubscriber = -1;
    static_cast<void>(bus.GetSubscriberPtrById(noSubscriber)); // takes the lock that it holds while it has a value
}

} // namespace msgbus_server
