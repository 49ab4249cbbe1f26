#pragma once

#include "common/thread_annotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

// The standard mutex, lock and condition variable with clang's thread-safety attributes, which libstdc++ does not
// carry: without them the analysis cannot see that a lock is held.

namespace common {

/// std::mutex.
class CAPABILITY("mutex") Mutex final {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() ACQUIRE() { mutex.lock(); }
    bool TryLock() TRY_ACQUIRE(true) { return mutex.try_lock(); }
    void Unlock() RELEASE() { mutex.unlock(); }

private:
    friend class MutexLock;

    std::mutex mutex;
};

/// Holds a mutex for a scope; may release it and acquire it again in between.
class SCOPED_CAPABILITY MutexLock final {
public:
    explicit MutexLock(Mutex& held) ACQUIRE(held) : lock(held.mutex) {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() RELEASE() {}

    void Lock() ACQUIRE() { lock.lock(); }
    void Unlock() RELEASE() { lock.unlock(); }

private:
    friend class ConditionVariable;

    std::unique_lock<std::mutex> lock;
};

/// std::condition_variable. Wake-ups may be spurious: the caller tests its condition in a loop, where the analysis sees
/// that the mutex is held.
class ConditionVariable final {
public:
    void NotifyOne() noexcept { condition.notify_one(); }
    void NotifyAll() noexcept { condition.notify_all(); }

    /// Requires, as the next two: `lock` holds its mutex, and holds it again when the call returns.
    void Wait(MutexLock& lock) { condition.wait(lock.lock); }

    template <typename Clock, typename Duration>
    std::cv_status WaitUntil(MutexLock& lock, const std::chrono::time_point<Clock, Duration>& deadline) {
        return condition.wait_until(lock.lock, deadline);
    }

    template <typename Rep, typename Period>
    std::cv_status WaitFor(MutexLock& lock, const std::chrono::duration<Rep, Period>& duration) {
        return condition.wait_for(lock.lock, duration);
    }

private:
    std::condition_variable condition;
};

} // namespace common
