#pragma once

#include "base/deadline.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "kn/status.h"

#include <atomic>
#include <cstdint>

namespace borven_host {

/// Whose turn it is on a connection: a lock with a limit, which another thread than the one that has it may release.
/// Threads: any.
class CallTurn final {
public:
    /// Returns: whether the caller has the turn now.
    bool TryAcquire() noexcept {
        auto expected = Free;
        return state.compare_exchange_strong(expected, Taken, std::memory_order_acquire);
    }

    /// Returns: 0; KnStatusTimedOut; KnStatusClosed after End. Blocks: until the deadline.
    std::int32_t Acquire(Deadline deadline) noexcept EXCLUDES(mutex) {
        common::MutexLock lock(mutex);
        while (true) {
            if (state.exchange(Contended, std::memory_order_acquire) == Free) {
                return KnStatusOk;
            }
            if (hasEnded) {
                return KnStatusClosed;
            }
            if (deadline == Deadline::max()) {
                released.Wait(lock);
            } else if (released.WaitUntil(lock, deadline) == std::cv_status::timeout) {
                // It may have taken the notification that was meant for another thread.
                return state.exchange(Contended, std::memory_order_acquire) == Free ? KnStatusOk : KnStatusTimedOut;
            }
        }
    }

    void Release() noexcept EXCLUDES(mutex) {
        if (state.exchange(Free, std::memory_order_release) == Contended) {
            const common::MutexLock lock(mutex);
            released.NotifyOne();
        }
    }

    /// Ends the wait of every thread, for good.
    void End() noexcept EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        hasEnded = true;
        released.NotifyAll();
    }

private:
    enum State : std::uint8_t { Free, Taken, Contended };

    std::atomic<State> state{Free}; ///< Contended: threads may wait
    common::Mutex mutex;
    common::ConditionVariable released;
    bool hasEnded GUARDED_BY(mutex) = false;
};

} // namespace borven_host
