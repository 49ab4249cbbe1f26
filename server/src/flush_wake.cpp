#include "flush_wake.h"

#include <pthread.h>

#include <string>
#include <utility>

namespace msgbus_server {

namespace {

using cor::ResultCode;

constexpr std::chrono::milliseconds lookEvery{1};
constexpr int quietLooksUntilIdle = 20; // a publisher of 50 values a second or more wakes the thread only once

} // namespace

FlushWake::FlushWake(message_bus::IProvider& publisher, message_bus::IProviderControl& registry)
    : provider(publisher), control(registry), thread([this] { Run(); }) {
    pthread_setname_np(thread.native_handle(), "flush-wake");
}

FlushWake::~FlushWake() {
    {
        const std::lock_guard lock(mutex);
        ending = true;
    }
    changed.notify_one();
    thread.join();
}

cor::ResultCode FlushWake::Push(long publisher, long message) {
    const ResultCode result = provider.Push(publisher, message);
    if (result == ResultCode::Success) { // what a full queue refused is no sign of a burst that goes on
        pushes.fetch_add(1);
    }
    if (!watching.load()) {
        {
            const std::lock_guard lock(mutex);
            watching.store(true);
        }
        changed.notify_one();
    }
    return result;
}

void FlushWake::Run() {
    while (true) {
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [this] { return ending || watching.load(); });
            if (ending) {
                return;
            }
        }
        Watch();
    }
}

/// From the first push of a burst until nothing was pushed for a while.
void FlushWake::Watch() {
    std::uint64_t seen = 0; // there was a push, or nobody would watch
    int quietLooks = 0;
    while (true) {
        {
            std::unique_lock lock(mutex);
            if (changed.wait_for(lock, lookEvery, [this] { return ending; })) {
                return;
            }
        }
        if (const std::uint64_t count = pushes.load(); count != seen) {
            seen = count;
            quietLooks = 0;
            continue;
        }
        ++quietLooks;
        if (quietLooks == 1 || quietLooks == quietLooksUntilIdle) {
            Wake();
        }
        if (quietLooks == quietLooksUntilIdle) {
            watching.store(false);
            if (pushes.load() == seen) {
                return;
            }
            watching.store(true);
        }
    }
}

void FlushWake::Wake() {
    if (publisherId == -1 && control.RegisterPublisher(std::string(Topic), publisherId) != ResultCode::Success) {
        return;
    }
    if (provider.Push(publisherId, 0) != ResultCode::Success) {
        // The queue is full, and the values in it wait for a wake-up that no push can give. Unregistering wakes too.
        control.UnregisterPublisher(std::exchange(publisherId, -1));
    }
}

} // namespace msgbus_server
