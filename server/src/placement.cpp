#include "placement.h"

#include <dirent.h>

#include <cstdlib>
#include <memory>

namespace msgbus_server {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::microseconds ShortGap{100};
constexpr std::chrono::milliseconds LongGap{1};

/// Counts up to a few times `every`. Returns: whether the count has just reached it or a multiple of it. Several times,
/// because a thread that was being created may have been missed: it inherits the placement of its creator.
bool IsDue(std::atomic<int>& counter, int every) {
    constexpr int times = 4;
    const int count = counter.load(std::memory_order_relaxed) + 1;
    if (count > times * every) {
        return false;
    }
    counter.store(count, std::memory_order_relaxed);
    return count % every == 0;
}

} // namespace

Placement::Placement(message_bus::IProvider& publisher, Clock clock) : provider(publisher), now(clock) {
    usual.policy = ::sched_getscheduler(0);
    if (::sched_getaffinity(0, sizeof usual.processors, &usual.processors) != 0) {
        CPU_ZERO(&usual.processors); // more processors than the set holds: leave them alone
    }
    busy = {usual.processors, usual.policy == SCHED_OTHER ? SCHED_BATCH : usual.policy};
    for (std::size_t first = 0; CPU_COUNT(&busy.processors) > 1; ++first) {
        CPU_CLR(first, &busy.processors);
    }
}

cor::ResultCode Placement::Push(long publisherId, long message) {
    const cor::ResultCode result = provider.Push(publisherId, message);
    const auto time = now().time_since_epoch();
    Note(time - steady_clock::duration(lastPush.exchange(time.count(), std::memory_order_relaxed)));
    return result;
}

void Placement::Note(steady_clock::duration gap) {
    if (gap < ShortGap) {
        slow.store(0, std::memory_order_relaxed);
        if (IsDue(quick, QuickPushes)) {
            wereArranged.store(true, std::memory_order_relaxed);
            Arrange(busy);
        }
        return;
    }
    quick.store(0, std::memory_order_relaxed);
    if (gap > LongGap && wereArranged.load(std::memory_order_relaxed) && IsDue(slow, SlowPushes)) {
        Arrange(usual);
    }
}

void Placement::Arrange(const Arrangement& arrangement) {
    if (isArranging.test_and_set(std::memory_order_acquire)) {
        return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> threads(::opendir("/proc/self/task"), ::closedir);
    while (const dirent* const thread = threads ? ::readdir(threads.get()) : nullptr) {
        if (const pid_t id = std::atoi(thread->d_name); id > 0) {
            // Both fail for a thread that has just ended.
            constexpr sched_param noPriority{};
            ::sched_setscheduler(id, arrangement.policy, &noPriority);
            ::sched_setaffinity(id, sizeof arrangement.processors, &arrangement.processors);
        }
    }
    isArranging.clear(std::memory_order_release);
}

} // namespace msgbus_server
