#pragma once

#include "common/mutex.h"

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <list>

namespace msgbus_server {

/// Threads that do nothing: each holds a place among the threads that the system allows (RLIMIT_NPROC, a cgroup's
/// pids.max), until a thread that does something needs it.
///
/// The bus starts a short-lived thread for every worker that ends, and the process ends when it cannot. So the server
/// holds as many places as its stop needs, and gives them up right before the workers end.
///
/// The threads are named "reserved", have the least stack, and sleep. Threads: all on the same one.
class ReservedThreads final {
public:
    /// Throws: std::system_error when the system refuses one of them.
    explicit ReservedThreads(std::size_t count);
    ReservedThreads(const ReservedThreads&) = delete;
    ReservedThreads& operator=(const ReservedThreads&) = delete;
    ~ReservedThreads() { Shrink(0); }

    /// Ends all but `count`. When it returns, the system counts them no more: as many others can be started.
    void Shrink(std::size_t count);

private:
    struct Place {
        ReservedThreads* owner;
        std::size_t index;
        pthread_t thread{};
        pid_t id = 0; ///< in the kernel; written by the thread, read once it is joined
    };

    void Start();
    void Hold(Place& place) noexcept;

    std::list<Place> places;

    common::Mutex mutex;
    common::ConditionVariable changed;
    std::size_t kept GUARDED_BY(mutex); ///< a thread ends once its index is not below
};

} // namespace msgbus_server
