#include "account/subscriber_entry.h"

#include "account/away_time.h"
#include "account/probes.h"

#include <array>
#include <cassert>
#include <chrono>
#include <ctime>
#include <thread>

namespace msgbus_server {

using instruments::layout::Drop;
using instruments::layout::NoTime;

namespace {

std::int64_t TimeOf(clockid_t clock) {
    constexpr std::int64_t second = 1'000'000'000;
    timespec now{};
    ::clock_gettime(clock, &now);
    return now.tv_sec * second + now.tv_nsec;
}

const char* NameOf(Drop reason) {
    constexpr std::array names{"oldest", "newest", "cut", "unregistered", "undelivered"};
    return names[static_cast<std::size_t>(reason)];
}

} // namespace

SubscriberEntry::SubscriberEntry(long subscriberId, instruments::layout::Subscriber& written, const FanOutRing& fanOut,
                                 ISubscriberSink& subscriberSink)
    : id(subscriberId), slot(written), ring(fanOut), sink(subscriberSink), trace(subscriberSink.Following()),
      leftSeen(0), flow(written.flow.Read()), rates(written.rates) {
    flow.waiting = 0;
    flow.isCut = 0;
    flow.oldestFloor = NoTime;
    assert(flow.offered == 0 && flow.handedOver == 0 && Queued() == 0);
    leftSeen.store(flow.left, std::memory_order_relaxed);
    slot.flow.Write(flow);
    rates.Reset(RoughTime(), flow.taken);
}

bool SubscriberEntry::NoteDue() noexcept {
    // Before it is noted as due: what comes after that finds it in the trace.
    if (trace.IsOn() && trace.NoteQueued(ring.Index(), id, slot.due.load(std::memory_order_relaxed) + 1)) {
        tracedIn.store(trace.Generation(), std::memory_order_relaxed);
    }
    return NoteDueSince(ring.PushedAt());
}

bool SubscriberEntry::IsTraced() const noexcept {
    return trace.IsOn() && tracedIn.load(std::memory_order_relaxed) == trace.Generation();
}

bool SubscriberEntry::NotePut() noexcept {
    return NoteDueSince(TimeOf(CLOCK_MONOTONIC));
}

bool SubscriberEntry::NoteDueSince(std::int64_t time) noexcept {
    if (isGivenUp.load(std::memory_order_relaxed)) {
        return false;
    }
    const std::uint64_t before = slot.due.load(std::memory_order_relaxed);
    if (leftSeen.load(std::memory_order_relaxed) == before) {
        slot.nonEmptySince.store(time, std::memory_order_release);
    }
    slot.due.store(before + 1, std::memory_order_release);
    return before % SampleInterval == 0;
}

void SubscriberEntry::AddSample() noexcept {
    try {
        samples.push_back({slot.due.load(std::memory_order_relaxed), TimeOf(CLOCK_MONOTONIC)});
    } catch (...) {
        // Without memory there is one time less.
    }
}

/// Waits until so many values are noted as due: for some instructions of the events thread. Returns: false when it has
/// given them up. It counts its tries, not the time, in which the process may be stopped.
bool SubscriberEntry::AwaitDue(std::uint64_t count) const noexcept {
    constexpr int quickTries = 100;
    constexpr int yields = 2000; // without a look at the clock; then it sleeps
    constexpr int mostTries = 12000;
    constexpr std::chrono::microseconds pause{100};
    for (int tries = 0; slot.due.load(std::memory_order_acquire) < count; ++tries) {
        if (tries == mostTries) {
            return false;
        }
        if (tries >= yields) {
            std::this_thread::sleep_for(pause);
        } else if (tries >= quickTries) {
            std::this_thread::yield();
        }
    }
    return true;
}

/// The first `count` values are not unread any more. Returns: false when the account is given up.
bool SubscriberEntry::Leave(std::size_t count) noexcept {
    if (isGivenUp.load(std::memory_order_relaxed)) {
        return false;
    }
    if (!AwaitDue(flow.left + count)) {
        isGivenUp.store(true, std::memory_order_relaxed);
        sink.NoteGivenUp(id);
        return false;
    }
    flow.left += count;
    leftSeen.store(flow.left, std::memory_order_relaxed);
    return true;
}

void SubscriberEntry::Write() noexcept {
    slot.flow.Write(flow);
}

void SubscriberEntry::BeginHandOver(std::size_t count) noexcept {
    if (Leave(count)) {
        flow.handedOver += count;
        Write();
    }
}

void SubscriberEntry::EndHandOver(std::size_t taken, std::size_t offered) noexcept {
    if (flow.handedOver == 0) {
        return; // given up
    }
    assert(taken + offered <= flow.handedOver);
    rates.Note(RoughTime(), flow.taken + flow.offered);
    flow.left -= flow.handedOver - taken - offered;
    leftSeen.store(flow.left, std::memory_order_relaxed);
    flow.handedOver = 0;
    flow.taken += taken;
    flow.offered += offered;
    std::int64_t now = NoTime;
    for (; !samples.empty() && samples.front().index <= flow.left; samples.pop_front()) {
        if (now == NoTime) {
            now = TimeOf(CLOCK_MONOTONIC);
        }
        sink.Note(slot, static_cast<std::uint64_t>(now - samples.front().at));
        flow.oldestFloor = samples.front().at;
    }
    Write();
    if (IsTraced()) {
        trace.NoteLeft(Trace::Step::Taken, id, flow.left - taken - offered + 1, taken);
        trace.NoteLeft(Trace::Step::Offered, id, flow.left - offered + 1, offered);
    }
    if (taken != 0) {
        probes::Taken(id, taken);
    }
}

void SubscriberEntry::EndOffer(std::size_t taken, std::size_t undelivered) noexcept {
    if (flow.offered == 0) {
        return; // given up
    }
    assert(taken + undelivered <= flow.offered);
    const std::uint64_t first = flow.left - flow.offered + 1;
    flow.left -= flow.offered - taken - undelivered;
    leftSeen.store(flow.left, std::memory_order_relaxed);
    flow.offered = 0;
    flow.taken += taken;
    flow.dropped[static_cast<std::size_t>(Drop::Undelivered)] += undelivered;
    Write();
    if (IsTraced()) {
        trace.NoteLeft(Trace::Step::Taken, id, first, taken);
        trace.NoteLeft(Trace::Step::Dropped, id, first + taken, undelivered);
    }
    if (taken != 0) {
        probes::Taken(id, taken);
    }
    if (undelivered != 0) {
        probes::Dropped(id, undelivered, NameOf(Drop::Undelivered));
    }
}

void SubscriberEntry::NoteDropped(Drop reason, std::size_t count) noexcept {
    if (Leave(count)) {
        CountDropped(reason, count);
    }
}

/// Counts values that have left.
void SubscriberEntry::CountDropped(Drop reason, std::size_t count) noexcept {
    flow.dropped[static_cast<std::size_t>(reason)] += count;
    for (; !samples.empty() && samples.front().index <= flow.left; samples.pop_front()) {
        flow.oldestFloor = samples.front().at;
    }
    Write();
    if (IsTraced()) {
        trace.NoteLeft(reason == Drop::Newest ? Trace::Step::DroppedFromBehind : Trace::Step::Dropped, id,
                       flow.left - count + 1, count);
    }
    probes::Dropped(id, count, NameOf(reason));
}

std::size_t SubscriberEntry::DropAll(Drop reason) noexcept {
    const std::size_t count = Queued();
    if (count != 0) {
        flow.left += count; // given up or not: all of them are noted as due
        leftSeen.store(flow.left, std::memory_order_relaxed);
        CountDropped(reason, count);
    }
    return count;
}

void SubscriberEntry::SetWaiting(std::size_t waits) noexcept {
    if (flow.waiting != waits) {
        flow.waiting = static_cast<std::uint32_t>(waits);
        Write();
    }
}

void SubscriberEntry::SetCut() noexcept {
    flow.isCut = 1;
    Write();
}

} // namespace msgbus_server
