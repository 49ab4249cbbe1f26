#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <thread>

// What the bus calls below its platform, made to fail on demand. The linker puts these functions in place of the
// system's (see CMakeLists.txt): the bus itself knows nothing of it. Unarmed they only pass on, and note in the journal
// what tests compare:
//   boost thread, stack 1048576      join std thread      mmap(null, 8, 3, 0x22, -1, 0)      munmap(8)

namespace test_support {

/// One function that can fail.
class FaultPoint final {
public:
    /// The call after the next `skip` ones fails, and so do the `times` - 1 calls that follow it.
    void Arm(long skip = 0, long times = 1);
    void Disarm();

    /// Called by the function in question. Returns: true when this call has to fail.
    bool Strikes() noexcept;

private:
    std::atomic<long> toSkip{0};
    std::atomic<long> toFail{0};
};

namespace fault_points {

extern FaultPoint boostThreadStart; ///< boost::thread cannot be started
extern FaultPoint boostThreadJoin;  ///< boost::thread::join joins, then throws boost::thread_resource_error
extern FaultPoint stdThreadStart;   ///< std::thread cannot be started: std::system_error
extern FaultPoint stdThreadJoin;    ///< std::thread::join joins, then throws std::system_error
extern FaultPoint mapMemory;        ///< mmap answers MAP_FAILED

/// 0: the system's page size.
void SetPageSize(long sizeBytes);

/// Called in every join of a boost::thread before it joins; null: nothing.
void BeforeBoostJoin(std::function<void()> action);

/// Called in every start of a boost::thread after the thread runs, before its starter knows; null: nothing.
void AfterBoostStart(std::function<void()> action);

/// Called on the waiting thread before each std::condition_variable::wait, with its mutex held; must not throw. Null:
/// nothing.
void BeforeConditionWait(std::function<void()> action);

/// Called on the notifying thread before each std::condition_variable::notify_one; must not throw. Null: nothing.
void BeforeNotifyOne(std::function<void()> action);

/// In place of every sleep while set; null: sleep.
void SetSleep(std::function<void(std::chrono::nanoseconds)> sleep);

/// The next mutex that this thread locks, after `skip` others, throws std::system_error. Only code compiled into the
/// test program counts.
void FailMutexLockOnThisThread(long skip = 0);

/// The next allocation of `thread`, after `skip` others, throws std::bad_alloc. Only code compiled into the test
/// program counts.
void FailAllocation(std::thread::id thread, long skip = 0);
void DisarmAllocation();

/// Waits until `thread` sleeps in std::condition_variable::wait and has given up the mutex that it waits with, or will
/// before another thread can lock it. Returns: false when it did not within Patience.
[[nodiscard]] bool AwaitSleepingOnCondition(std::thread::id thread);

/// How often `thread` has gone to sleep like that.
std::size_t SleepsOnCondition(std::thread::id thread);
/// Waits until `thread` has gone to sleep like that more than `times` times. Returns: false when not within Patience.
[[nodiscard]] bool AwaitMoreSleepsOnCondition(std::thread::id thread, std::size_t times);

/// As AwaitSleepingOnCondition, for a wait with a deadline. Only code compiled into the test program counts.
[[nodiscard]] bool AwaitSleepingWithDeadline(std::thread::id thread);
/// As SleepsOnCondition and AwaitMoreSleepsOnCondition, for waits with a deadline.
std::size_t SleepsWithDeadline(std::thread::id thread);
[[nodiscard]] bool AwaitMoreSleepsWithDeadline(std::thread::id thread, std::size_t times);
/// How often the calling thread has gone to sleep like that.
int SleepsWithDeadlineOfThisThread();

/// Waits until `thread` sleeps in std::atomic::wait, or will unless the value changes. Only code compiled into the test
/// program counts, and only atomics of the size of a futex. Returns: false when it did not within Patience.
[[nodiscard]] bool AwaitSleepingOnAtomic(std::thread::id thread);

/// Waits until `thread` is blocked on a mutex that another thread holds. Only code compiled into the test program
/// counts. Returns: false when it was not within Patience.
[[nodiscard]] bool AwaitBlockedOnMutex(std::thread::id thread);

void DisarmAll();

/// Disarms everything when it goes: the first member of a test that uses fault points, so the last to go.
struct Disarmer {
    Disarmer() { DisarmAll(); }
    ~Disarmer() { DisarmAll(); }
};

} // namespace fault_points
} // namespace test_support
