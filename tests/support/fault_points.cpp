#include "support/fault_points.h"

#include "support/journal.h"

#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <map>
#include <mutex>
#include <new>
#include <sstream>
#include <system_error>

namespace test_support {

void FaultPoint::Arm(long skip, long times) {
    toSkip = skip;
    toFail = times;
}

void FaultPoint::Disarm() {
    toFail = 0;
}

bool FaultPoint::Strikes() noexcept {
    if (toFail <= 0 || toSkip.fetch_sub(1) > 0) {
        return false;
    }
    return toFail.fetch_sub(1) > 0;
}

namespace fault_points {

FaultPoint boostThreadStart;
FaultPoint boostThreadJoin;
FaultPoint stdThreadStart;
FaultPoint stdThreadJoin;
FaultPoint mapMemory;

namespace {

std::atomic<long> pageSize{0};
thread_local long mutexLocksToSkip = -1; // -1: not armed

std::atomic<std::thread::id> allocatingThread{};
std::atomic<long> allocationsToSkip{0};

thread_local int sleepsWithDeadline = 0;
thread_local bool noting = true;

/// As long as one lives, what the calling thread does is neither noted nor made to fail: it is the fault points' own.
class Unnoted {
public:
    Unnoted() : before(std::exchange(noting, false)) {}
    ~Unnoted() { noting = before; }
    Unnoted(const Unnoted&) = delete;
    Unnoted& operator=(const Unnoted&) = delete;

private:
    bool before;
};

/// What a test wants to be done at some place.
template <typename... Args>
class Hook {
public:
    void Set(std::function<void(Args...)> newAction) {
        const Unnoted unnoted;
        const std::lock_guard lock(mutex);
        action = std::move(newAction);
    }
    std::function<void(Args...)> Get() {
        const Unnoted unnoted;
        const std::lock_guard lock(mutex);
        return action;
    }

private:
    std::mutex mutex; // guards action
    std::function<void(Args...)> action;
};

Hook<std::chrono::nanoseconds> sleepHook;
Hook<> boostJoinHook;
Hook<> boostStartHook;
Hook<> notifyOneHook;
Hook<> conditionWaitHook;

/// The threads that stop somewhere.
class Stopped {
public:
    void Enter() {
        const Unnoted unnoted;
        {
            const std::lock_guard lock(mutex);
            auto& thread = threads[std::this_thread::get_id()];
            thread.isInside = true;
            ++thread.times;
        }
        changed.notify_all();
    }
    void Leave() {
        const Unnoted unnoted;
        const std::lock_guard lock(mutex);
        threads[std::this_thread::get_id()].isInside = false;
    }
    std::size_t Times(std::thread::id thread) {
        const Unnoted unnoted;
        const std::lock_guard lock(mutex);
        return threads[thread].times;
    }
    bool AwaitInside(std::thread::id thread) {
        return Await([&] { return threads[thread].isInside; });
    }
    bool AwaitMoreTimes(std::thread::id thread, std::size_t times) {
        return Await([&] { return threads[thread].times > times; });
    }

private:
    struct Stops {
        bool isInside = false;
        std::size_t times = 0;
    };

    template <typename Condition>
    bool Await(const Condition& condition) {
        const Unnoted unnoted;
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, Patience, condition);
    }

    std::mutex mutex; // guards threads
    std::condition_variable changed;
    std::map<std::thread::id, Stops> threads;
};

Stopped& OnCondition() {
    static Stopped threads;
    return threads;
}

Stopped& WithDeadline() {
    static Stopped threads;
    return threads;
}

Stopped& OnAtomic() {
    static Stopped threads;
    return threads;
}

Stopped& OnMutex() {
    static Stopped threads;
    return threads;
}

} // namespace

void SetPageSize(long sizeBytes) {
    pageSize = sizeBytes;
}

void BeforeBoostJoin(std::function<void()> action) {
    boostJoinHook.Set(std::move(action));
}

void AfterBoostStart(std::function<void()> action) {
    boostStartHook.Set(std::move(action));
}

void BeforeConditionWait(std::function<void()> action) {
    conditionWaitHook.Set(std::move(action));
}

void BeforeNotifyOne(std::function<void()> action) {
    notifyOneHook.Set(std::move(action));
}

void SetSleep(std::function<void(std::chrono::nanoseconds)> sleep) {
    sleepHook.Set(std::move(sleep));
}

void FailMutexLockOnThisThread(long skip) {
    mutexLocksToSkip = skip;
}

void FailAllocation(std::thread::id thread, long skip) {
    allocationsToSkip = skip;
    allocatingThread = thread;
}

void DisarmAllocation() {
    allocatingThread = std::thread::id();
}

bool AwaitSleepingOnCondition(std::thread::id thread) {
    return OnCondition().AwaitInside(thread);
}

std::size_t SleepsOnCondition(std::thread::id thread) {
    return OnCondition().Times(thread);
}

bool AwaitMoreSleepsOnCondition(std::thread::id thread, std::size_t times) {
    return OnCondition().AwaitMoreTimes(thread, times);
}

bool AwaitSleepingWithDeadline(std::thread::id thread) {
    return WithDeadline().AwaitInside(thread);
}

std::size_t SleepsWithDeadline(std::thread::id thread) {
    return WithDeadline().Times(thread);
}

bool AwaitMoreSleepsWithDeadline(std::thread::id thread, std::size_t times) {
    return WithDeadline().AwaitMoreTimes(thread, times);
}

int SleepsWithDeadlineOfThisThread() {
    return sleepsWithDeadline;
}

bool AwaitSleepingOnAtomic(std::thread::id thread) {
    return OnAtomic().AwaitInside(thread);
}

bool AwaitBlockedOnMutex(std::thread::id thread) {
    return OnMutex().AwaitInside(thread);
}

void DisarmAll() {
    for (auto* point : {&boostThreadStart, &boostThreadJoin, &stdThreadStart, &stdThreadJoin, &mapMemory}) {
        point->Disarm();
    }
    SetPageSize(0);
    SetSleep(nullptr);
    BeforeBoostJoin(nullptr);
    AfterBoostStart(nullptr);
    BeforeConditionWait(nullptr);
    BeforeNotifyOne(nullptr);
    mutexLocksToSkip = -1;
    DisarmAllocation();
}

namespace {

bool AllocationStrikes() noexcept {
    if (allocatingThread.load(std::memory_order_relaxed) == std::thread::id() ||
        allocatingThread.load() != std::this_thread::get_id() || allocationsToSkip.fetch_sub(1) > 0) {
        return false;
    }
    DisarmAllocation();
    return true;
}

bool MutexLockStrikes() noexcept {
    return mutexLocksToSkip >= 0 && mutexLocksToSkip-- == 0;
}

} // namespace
} // namespace fault_points
} // namespace test_support

using namespace test_support;

// The names are the linker's: __wrap_X stands for X, and __real_X is the X that was. What stands for a member function
// has to lie where one may: a pointer to a member with an odd address means a virtual one.
extern "C" {

bool __real__ZN5boost6thread21start_thread_noexceptERKNS_17thread_attributesE(
    boost::thread* self, const boost::thread_attributes& attributes);
[[gnu::aligned(2)]] bool
__wrap__ZN5boost6thread21start_thread_noexceptERKNS_17thread_attributesE(boost::thread* self,
                                                                         const boost::thread_attributes& attributes);
bool __wrap__ZN5boost6thread21start_thread_noexceptERKNS_17thread_attributesE(
    boost::thread* self, const boost::thread_attributes& attributes) {
    Journal::Instance().AddCall("boost thread, stack " + std::to_string(attributes.get_stack_size()));
    if (fault_points::boostThreadStart.Strikes() ||
        !__real__ZN5boost6thread21start_thread_noexceptERKNS_17thread_attributesE(self, attributes)) {
        return false;
    }
    if (const auto action = fault_points::boostStartHook.Get()) {
        action();
    }
    return true;
}

bool __real__ZN5boost6thread13join_noexceptEv(boost::thread* self);
[[gnu::aligned(2)]] bool __wrap__ZN5boost6thread13join_noexceptEv(boost::thread* self);
bool __wrap__ZN5boost6thread13join_noexceptEv(boost::thread* self) {
    if (const auto action = fault_points::boostJoinHook.Get()) {
        action();
    }
    const bool joined = __real__ZN5boost6thread13join_noexceptEv(self);
    if (fault_points::boostThreadJoin.Strikes()) {
        throw boost::thread_resource_error(EINVAL, "scripted join failure");
    }
    return joined;
}

void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread* self,
                                                                                                  void* state,
                                                                                                  void (*depend)());
[[gnu::aligned(2)]] void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* self, void* state, void (*depend)());
void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread* self,
                                                                                                  void* state,
                                                                                                  void (*depend)()) {
    if (fault_points::stdThreadStart.Strikes()) {
        throw std::system_error(EAGAIN, std::generic_category(), "scripted thread failure");
    }
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(self, state, depend);
}

void __real__ZNSt6thread4joinEv(std::thread* self);
[[gnu::aligned(2)]] void __wrap__ZNSt6thread4joinEv(std::thread* self);
void __wrap__ZNSt6thread4joinEv(std::thread* self) {
    Journal::Instance().AddCall("join std thread");
    __real__ZNSt6thread4joinEv(self);
    if (fault_points::stdThreadJoin.Strikes()) {
        throw std::system_error(EINVAL, std::generic_category(), "scripted join failure");
    }
}

void __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(std::condition_variable* self,
                                                                      std::unique_lock<std::mutex>& lock);
[[gnu::aligned(2)]] void
__wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(std::condition_variable* self,
                                                                 std::unique_lock<std::mutex>& lock);
void __wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(std::condition_variable* self,
                                                                      std::unique_lock<std::mutex>& lock) {
    if (const auto action = fault_points::conditionWaitHook.Get()) {
        action();
    }
    // With the mutex still held: a thread that locks it after AwaitSleepingOnCondition finds this thread asleep.
    fault_points::OnCondition().Enter();
    __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(self, lock);
    fault_points::OnCondition().Leave();
}

int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    if (!fault_points::noting) {
        return __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
    }
    ++fault_points::sleepsWithDeadline;
    fault_points::WithDeadline().Enter();
    const int result = __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
    fault_points::WithDeadline().Leave();
    return result;
}

void __real__ZNSt18condition_variable10notify_oneEv(std::condition_variable* self);
[[gnu::aligned(2)]] void __wrap__ZNSt18condition_variable10notify_oneEv(std::condition_variable* self);
void __wrap__ZNSt18condition_variable10notify_oneEv(std::condition_variable* self) {
    if (const auto action = fault_points::notifyOneHook.Get()) {
        action();
    }
    __real__ZNSt18condition_variable10notify_oneEv(self);
}

long __real_syscall(long number, ...);
// Reads more arguments than most callers pass: the last one is then whatever lies on the stack.
[[gnu::no_sanitize_address]] long __wrap_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
    va_list list;
    va_start(list, number);
    long arguments[6]; // a system call has no more, and takes no notice of those that it does not have
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    const bool isWait =
        number == SYS_futex && (static_cast<int>(arguments[1]) & FUTEX_CMD_MASK) == FUTEX_WAIT && fault_points::noting;
    if (isWait) {
        fault_points::OnAtomic().Enter();
    }
    const long result =
        __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
    if (isWait) {
        const int error = errno; // belongs to the call
        fault_points::OnAtomic().Leave();
        errno = error;
    }
    return result;
}

void* __real_mmap(void* address, std::size_t length, int protection, int flags, int descriptor, off_t offset);
void* __wrap_mmap(void* address, std::size_t length, int protection, int flags, int descriptor, off_t offset);
void* __wrap_mmap(void* address, std::size_t length, int protection, int flags, int descriptor, off_t offset) {
    std::ostringstream call;
    call << "mmap(" << (address == nullptr ? "null" : "address") << ", " << length << ", " << protection << ", 0x"
         << std::hex << flags << std::dec << ", " << descriptor << ", " << offset << ")";
    Journal::Instance().AddCall(call.str());
    if (fault_points::mapMemory.Strikes()) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return __real_mmap(address, length, protection, flags, descriptor, offset);
}

int __real_munmap(void* address, std::size_t length);
int __wrap_munmap(void* address, std::size_t length);
int __wrap_munmap(void* address, std::size_t length) {
    Journal::Instance().AddCall("munmap(" + std::to_string(length) + ")");
    return __real_munmap(address, length);
}

long __real_sysconf(int name);
long __wrap_sysconf(int name);
long __wrap_sysconf(int name) {
    const long scripted = fault_points::pageSize;
    return name == _SC_PAGESIZE && scripted != 0 ? scripted : __real_sysconf(name);
}

int __real_nanosleep(const timespec* request, timespec* remaining);
int __wrap_nanosleep(const timespec* request, timespec* remaining);
int __wrap_nanosleep(const timespec* request, timespec* remaining) {
    const auto instead = fault_points::sleepHook.Get();
    if (!instead) {
        return __real_nanosleep(request, remaining);
    }
    instead(std::chrono::seconds(request->tv_sec) + std::chrono::nanoseconds(request->tv_nsec));
    return 0;
}

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (!fault_points::noting) {
        return __real_pthread_mutex_lock(mutex);
    }
    if (fault_points::MutexLockStrikes()) {
        return EAGAIN;
    }
    if (const int result = pthread_mutex_trylock(mutex); result != EBUSY) {
        return result;
    }
    fault_points::OnMutex().Enter();
    const int result = __real_pthread_mutex_lock(mutex);
    fault_points::OnMutex().Leave();
    return result;
}

void* __real__Znwm(std::size_t size);
void* __wrap__Znwm(std::size_t size);
void* __wrap__Znwm(std::size_t size) {
    if (fault_points::noting && fault_points::AllocationStrikes()) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}

} // extern "C"
