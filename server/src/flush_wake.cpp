#include "flush_wake.h"

#include <pthread.h>

#include <algorithm>
#include <string>
#include <utility>

namespace msgbus_server {

namespace {

using cor::ResultCode;
using message_bus::InboundState;

constexpr std::chrono::milliseconds LookAfter{1};
constexpr std::chrono::milliseconds LongestPause{1000}; // reached when the events thread has ended

} // namespace

FlushWake::FlushWake(message_bus::MessageBus& observed, Actions wakeActions)
    : bus(observed), actions(std::move(wakeActions)), thread([this] { Run(); }) {
    ::pthread_setname_np(thread.native_handle(), "flush-wake");
}

FlushWake::~FlushWake() {
    {
        const common::MutexLock lock(mutex);
        isEnding = true;
    }
    changed.NotifyOne();
    thread.join();
}

cor::ResultCode FlushWake::Push(long publisher, long message) {
    const ResultCode result = bus.Push(publisher, message);
    if (bus.DoubtfulPushes() != noted.load() && !isDue.load()) {
        {
            const common::MutexLock lock(mutex);
            isDue.store(true);
        }
        changed.NotifyOne();
    }
    return result;
}

void FlushWake::Run() {
    while (AwaitNextLook()) {
        Look();
    }
}

/// Returns: false when the thread has to end.
bool FlushWake::AwaitNextLook() {
    common::MutexLock lock(mutex);
    const auto again = Clock::now() + pause;
    while (!isEnding && !isDue.load()) {
        if (pause.count() == 0) {
            changed.Wait(lock);
        } else if (changed.WaitUntil(lock, again) == std::cv_status::timeout) {
            return true;
        }
    }
    if (isDue.load()) {
        pause = pause.zero();
    }
    const auto due = Clock::now() + LookAfter;
    while (!isEnding && changed.WaitUntil(lock, due) == std::cv_status::no_timeout) {
    }
    return !isEnding;
}

void FlushWake::Look() {
    const std::uint64_t counted = bus.DoubtfulPushes(); // first: the values of these pushes are queued by now, or taken
    const auto inbound = bus.Inbound();
    if (inbound == InboundState::LeftBehind) {
        if (actions.noteRescued) {
            actions.noteRescued(bus.InboundSize());
        }
        Wake();
    }
    pause = inbound == InboundState::Empty ? pause.zero() : std::clamp(2 * pause, LookAfter, LongestPause);
    const bool isBurst = counted - noted.load() > 1;
    noted.store(counted);
    if (isBurst) {
        return; // isDue stays: the next of these pushes need not wake this thread
    }
    isDue.store(false);
    if (bus.DoubtfulPushes() != counted) {
        isDue.store(true); // that push may have found it true
    }
}

void FlushWake::Wake() {
    if (publisherId == -1 && bus.RegisterPublisher(std::string(Topic), publisherId) != ResultCode::Success) {
        return;
    }
    if ((actions.push ? actions.push(publisherId) : bus.Push(publisherId, 0)) != ResultCode::Success) {
        // The queue is full, so no push can wake the events thread. Unregistering wakes it too.
        bus.UnregisterPublisher(std::exchange(publisherId, -1));
    }
}

} // namespace msgbus_server
