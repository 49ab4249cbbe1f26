#pragma once

#include "bus_interfaces.h"
#include "common/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <thread>

namespace msgbus_server {

/// Publishing that leaves no value behind. The bus may lose the wake-up of its events thread, and the last value of a
/// burst then stays in the inbound queue until the next push or registration. About a millisecond after the last push
/// of a burst, the thread "flush-wake" pushes a value on a topic of its own, which has no subscribers.
///
/// The thread is idle (asleep without a time-out) or watching (it reads the count of pushes every millisecond), and
/// turns idle again when nothing was pushed for a while. Only the push that finds it idle wakes it; every other one
/// costs an increment and a load. Before it turns idle it pushes once more: its first value may have met the same gap.
///
/// The topic contains a NUL, which no request can carry, so no client can publish or subscribe to it. It is registered
/// when first needed and takes one id. Threads: any.
class FlushWake final : public message_bus::IProvider {
public:
    static constexpr std::string_view Topic{"~flush-wake\0", 12};

    /// Lifetime: both must outlive this object, and `publisher`'s wakes must be able to run until it is gone.
    FlushWake(message_bus::IProvider& publisher, message_bus::IProviderControl& registry);
    FlushWake(const FlushWake&) = delete;
    FlushWake& operator=(const FlushWake&) = delete;
    ~FlushWake() override;

    cor::ResultCode Push(long publisherId, long message) override;

private:
    void Run();
    void Watch();
    void Wake();

    message_bus::IProvider& provider;
    message_bus::IProviderControl& control;

    // A push counts, then reads isWatching; the thread clears isWatching, then reads the count. Both are sequentially
    // consistent, so one of the two always sees the other.
    std::atomic<std::uint64_t> pushes{0};
    std::atomic<bool> isWatching{false}; ///< turns true under the mutex only

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isEnding GUARDED_BY(mutex) = false;

    long publisherId = -1; ///< the thread's own; -1: not registered
    std::thread thread;
};

} // namespace msgbus_server
