#include "placement.h"

#include <pthread.h>
#include <unistd.h>

#include <utility>

namespace msgbus_server {

namespace {

constexpr std::chrono::microseconds ShortGap{100};

} // namespace

Placement::Placement(message_bus::IProvider& publisher, std::function<Clock::time_point()> time, Clock::duration quiet)
    : provider(publisher), now(std::move(time)), quietTime(quiet), quietWatch([this] { WatchForQuiet(); }) {
    ::pthread_setname_np(quietWatch.native_handle(), "placement");
}

Placement::~Placement() {
    End();
    quietWatch.join();
}

cor::ResultCode Placement::Push(long publisherId, long message) {
    pushedOn.store(common::CurrentCpu(), std::memory_order_relaxed);
    pushedAt.store(now().time_since_epoch().count(), std::memory_order_relaxed);
    return provider.Push(publisherId, message);
}

void Placement::NoteDelivery() noexcept {
    const Clock::rep pushed = pushedAt.load(std::memory_order_relaxed);
    const Clock::rep before = deliveredAt.load(std::memory_order_relaxed);
    if (pushed == before) {
        return; // another value of the same pass, or another subscriber
    }
    deliveredAt.store(pushed, std::memory_order_relaxed);
    const Clock::duration gap(pushed - before);
    const bool hasPaused = gap > common::PlaceLearner::LongGap;
    if (isCounted && hasPaused) {
        learner.Note(place, now().time_since_epoch() - Clock::duration(pushed));
    }
    const int cpu = pushedOn.load(std::memory_order_relaxed);
    isCounted = hasPaused;
    place = isCounted ? learner.Choose() : Where::Free;
    closePushes = gap < ShortGap ? closePushes + 1 : 0;
    if (place == Where::Confined) {
        isCounted = Confine(&Thread::To, cpu);
    } else if (closePushes < PushesOfAStream) {
        if (isConfined.load(std::memory_order_relaxed)) {
            const common::MutexLock lock(mutex);
            LetGo();
        }
    } else if (closePushes == PushesOfAStream || closePushes == 2 * PushesOfAStream) {
        closePushes = PushesOfAStream; // the stream lasts; its CPU may have changed
        Confine(&Thread::OffOf, cpu);
    }
}

/// Returns: whether the events thread, which calls this, is confined now, as `move` does it.
bool Placement::Confine(bool (Thread::*move)(int), int cpu) noexcept {
    const common::MutexLock lock(mutex);
    if (isEnding) {
        return false;
    }
    if (!eventsThread) {
        eventsThread.emplace(::gettid());
    }
    const bool wasConfined = eventsThread->IsConfined();
    const bool hasMoved = ((*eventsThread).*move)(cpu);
    isConfined.store(eventsThread->IsConfined(), std::memory_order_relaxed);
    if (hasMoved && !wasConfined) {
        changed.NotifyOne();
    }
    return hasMoved;
}

void Placement::LetGo() noexcept {
    if (eventsThread) {
        eventsThread->LetGo();
    }
    isConfined.store(false, std::memory_order_relaxed);
}

void Placement::End() noexcept {
    const common::MutexLock lock(mutex);
    isEnding = true;
    LetGo();
    changed.NotifyOne();
}

/// Lets the events thread go when deliveries end: it sleeps then, and cannot do so itself.
void Placement::WatchForQuiet() {
    common::MutexLock lock(mutex);
    while (!isEnding) {
        if (!isConfined.load(std::memory_order_relaxed)) {
            changed.Wait(lock);
            continue;
        }
        const Clock::duration delivered(deliveredAt.load(std::memory_order_relaxed));
        const Clock::duration left = delivered + quietTime - now().time_since_epoch();
        if (left > Clock::duration::zero()) {
            changed.WaitFor(lock, left);
        } else {
            LetGo();
        }
    }
}

} // namespace msgbus_server
