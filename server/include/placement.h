#pragma once

#include "bus_interfaces.h"
#include "common/confined_thread.h"
#include "common/mutex.h"
#include "common/place_learner.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>

namespace msgbus_server {

/// Publishing that places the bus's events thread by the thread that serves the pushes:
///
/// - after a pause, on that thread's CPU, where a wake-up across CPUs has proved to cost more;
/// - while pushes follow each other closely, off that CPU, so that the next push need not wait for the delivery of the
///   last one;
/// - else, and a second after the last delivery, where the scheduler puts it.
///
/// A thread that its program or its operator has placed is left alone (common/confined_thread.h). The platform places
/// the threads that receive, and those of clients, by the same rules.
///
/// Lock order: `mutex` is a leaf. The bus's lock on the subscribers is held during a delivery.
///
/// Threads: any.
class Placement final : public message_bus::IProvider {
public:
    using Clock = std::chrono::steady_clock;

    /// So many pushes that follow each other closely are a stream.
    static constexpr int PushesOfAStream = 64;

    /// `time`: the present. `quiet`: how long after the last delivery the events thread may still be confined.
    /// Lifetime: `publisher` must outlive this object, which must outlive the events thread's last delivery.
    explicit Placement(message_bus::IProvider& publisher, std::function<Clock::time_point()> time = Clock::now,
                       Clock::duration quiet = std::chrono::seconds(1));
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;
    ~Placement() override;

    cor::ResultCode Push(long publisherId, long message) override;

    /// The bus has put a value into a subscriber's queue. Threads: the events thread.
    void NoteDelivery() noexcept EXCLUDES(mutex);

    /// Lets the events thread go and leaves it alone from now on. Requires: it has not ended yet.
    void End() noexcept EXCLUDES(mutex);

private:
    using Where = common::PlaceLearner::Place;
    using Thread = common::ConfinedThread;

    bool Confine(bool (Thread::*move)(int), int cpu) noexcept EXCLUDES(mutex);
    void LetGo() noexcept REQUIRES(mutex);
    void WatchForQuiet() EXCLUDES(mutex);

    message_bus::IProvider& provider;
    const std::function<Clock::time_point()> now;
    const Clock::duration quietTime;

    // Relaxed: advice only; a stale value places the thread as for another push.
    std::atomic<Clock::rep> pushedAt{0};    ///< when the last push began
    std::atomic<int> pushedOn{-1};          ///< its CPU
    std::atomic<Clock::rep> deliveredAt{0}; ///< when the last push whose delivery was noted began
    std::atomic<bool> isConfined{false};    ///< changed under the mutex

    // Of the events thread alone.
    common::PlaceLearner learner;
    int closePushes = 0; ///< in a row
    Where place = Where::Free;
    bool isCounted = false; ///< the next delivery shows how good the place is

    common::Mutex mutex;
    common::ConditionVariable changed;
    std::optional<Thread> eventsThread GUARDED_BY(mutex); ///< from its first confinement on
    bool isEnding GUARDED_BY(mutex) = false;

    std::thread quietWatch; ///< lets the events thread go when deliveries end
};

} // namespace msgbus_server
