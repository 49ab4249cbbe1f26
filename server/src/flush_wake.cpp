#include "flush_wake.h"

#include <pthread.h>

#include <string>
#include <utility>

namespace msgbus_server {

namespace {

using cor::ResultCode;

constexpr std::chrono::milliseconds LookEvery{1};
constexpr int QuietLooksUntilIdle = 20; // so publishers of 50 values a second or more wake the thread only once

} // namespace

FlushWake::FlushWake(message_bus::IProvider& publisher, message_bus::IProviderControl& registry)
    : provider(publisher), control(registry), thread([this] { Run(); }) {
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
    const ResultCode result = provider.Push(publisher, message);
    if (result == ResultCode::Success) { // a push that a full queue refused does not prolong the burst
        pushes.fetch_add(1);
    }
    if (!isWatching.load()) {
        {
            const common::MutexLock lock(mutex);
            isWatching.store(true);
        }
        changed.NotifyOne();
    }
    return result;
}

void FlushWake::Run() {
    while (true) {
        {
            common::MutexLock lock(mutex);
            while (!isEnding && !isWatching.load()) {
                changed.Wait(lock);
            }
            if (isEnding) {
                return;
            }
        }
        Watch();
    }
}

/// Runs from the first push of a burst until nothing was pushed for a while.
void FlushWake::Watch() {
    std::uint64_t seen = 0; // differs from the count: a push started this
    int quietLooks = 0;
    while (true) {
        {
            common::MutexLock lock(mutex);
            const auto nextLook = std::chrono::steady_clock::now() + LookEvery;
            while (!isEnding && changed.WaitUntil(lock, nextLook) == std::cv_status::no_timeout) {
            }
            if (isEnding) {
                return;
            }
        }
        if (const std::uint64_t count = pushes.load(); count != seen) {
            seen = count;
            quietLooks = 0;
            continue;
        }
        ++quietLooks;
        if (quietLooks == 1 || quietLooks == QuietLooksUntilIdle) {
            Wake();
        }
        if (quietLooks == QuietLooksUntilIdle) {
            isWatching.store(false);
            if (pushes.load() == seen) {
                return;
            }
            isWatching.store(true);
        }
    }
}

void FlushWake::Wake() {
    if (publisherId == -1 && control.RegisterPublisher(std::string(Topic), publisherId) != ResultCode::Success) {
        return;
    }
    if (provider.Push(publisherId, 0) != ResultCode::Success) {
        // The queue is full, so no push can wake the events thread. Unregistering wakes it too.
        control.UnregisterPublisher(std::exchange(publisherId, -1));
    }
}

} // namespace msgbus_server
