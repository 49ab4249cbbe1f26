#include "reserved_threads.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <system_error>

namespace msgbus_server {

namespace {

constexpr std::size_t StackBytes = 64 * 1024; // thread-local data of the program's libraries counts towards it

/// A joined thread may be on its way out for some microseconds: the kernel wakes the joining one before it stops
/// counting. A tracer can keep it longer, hence a limit.
void AwaitUncounted(pid_t id) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (::syscall(SYS_tgkill, ::getpid(), id, 0) == 0 && std::chrono::steady_clock::now() < limit) {
        ::sched_yield();
    }
}

} // namespace

ReservedThreads::ReservedThreads(std::size_t count) : kept(count) {
    try {
        while (places.size() < count) {
            Start();
        }
    } catch (...) {
        Shrink(0);
        throw;
    }
}

void ReservedThreads::Start() {
    Place& place = places.emplace_back(Place{this, places.size()});
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, StackBytes);
    const int error = ::pthread_create(
        &place.thread, &attributes,
        [](void* argument) -> void* {
            auto& own = *static_cast<Place*>(argument);
            own.owner->Hold(own);
            return nullptr;
        },
        &place);
    ::pthread_attr_destroy(&attributes);
    if (error != 0) {
        places.pop_back();
        throw std::system_error(error, std::generic_category());
    }
    ::pthread_setname_np(place.thread, "reserved");
}

void ReservedThreads::Hold(Place& place) noexcept {
    place.id = ::gettid();
    common::MutexLock lock(mutex);
    while (place.index < kept) {
        changed.Wait(lock);
    }
}

void ReservedThreads::Shrink(std::size_t count) {
    {
        const common::MutexLock lock(mutex);
        kept = count;
    }
    changed.NotifyAll();
    for (; places.size() > count; places.pop_back()) {
        ::pthread_join(places.back().thread, nullptr);
        AwaitUncounted(places.back().id);
    }
}

} // namespace msgbus_server
