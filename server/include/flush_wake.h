#pragma once

#include "common/mutex.h"
#include "message_bus.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <thread>

namespace msgbus_server {

/// Publishing that leaves no value behind. The bus may lose the wake-up of its events thread, and the value then stays
/// in the inbound queue until the next push or registration. The bus counts the pushes to which that may have happened;
/// about a millisecond after one of them, the thread "flush-wake" looks at the queue. If values were left there, it
/// pushes one on a topic of its own, which has no subscribers. It looks again, each time after twice the time, until
/// the queue is empty.
///
/// Why no value stays behind: the bus takes a value by itself unless its push, or that of a value queued before it, is
/// one of those counted. Each of these is followed by a look. One that finds the queue empty settles all that were
/// counted before it; one that finds a wake-up which is not lost yet can lose it only while the events thread is kept
/// from running, and the value waits about as long again as that lasts.
///
/// A push that finds the events thread asleep is not counted, so at a slow rate the thread sleeps and nothing is
/// pushed.
///
/// The topic contains a NUL, which no request can carry, so no client can publish or subscribe to it. It is registered
/// when first needed and takes one id. Threads: any.
class FlushWake final : public message_bus::IProvider {
public:
    static constexpr std::string_view Topic{"~flush-wake\0", 12};

    /// What is done beside: `push` pushes a value of the publisher that it is given, in place of the bus; `noteRescued`
    /// is called with the number of values that were left behind.
    struct Actions {
        std::function<cor::ResultCode(long publisherId)> push;
        std::function<void(std::size_t count)> noteRescued;
    };

    /// Lifetime: `observed` must outlive this object, and its wakes must be able to run until this object is gone.
    explicit FlushWake(message_bus::MessageBus& observed, Actions wakeActions = {});
    FlushWake(const FlushWake&) = delete;
    FlushWake& operator=(const FlushWake&) = delete;
    ~FlushWake() override;

    cor::ResultCode Push(long publisherId, long message) override;

private:
    using Clock = std::chrono::steady_clock;

    void Run();
    bool AwaitNextLook();
    void Look();
    void Wake();

    message_bus::MessageBus& bus;
    const Actions actions;

    // A push counts in the bus, then reads isDue; a look clears isDue, then reads the count. All are sequentially
    // consistent, so one of the two always sees the other.
    std::atomic<std::uint64_t> noted{0}; ///< of the bus's count, at the last look
    std::atomic<bool> isDue{false};      ///< a look follows within a millisecond; turned true under the mutex by a push

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isEnding GUARDED_BY(mutex) = false;

    // Of the thread alone.
    std::chrono::milliseconds pause{0}; ///< until the next look at values that the last one found; 0: there were none
    long publisherId = -1;              ///< its own; -1: not registered

    std::thread thread; ///< last: uses all members above
};

} // namespace msgbus_server
