#pragma once

#include "common/mutex.h"

#include <chrono>
#include <thread>

namespace msgbus_server {

/// Closes the server ends of the process if it is not destroyed in time, so that clients do not wait for ever for a
/// thread that does not end. If no thread can be started to watch the time, they close at once.
class StopDeadline final {
public:
    explicit StopDeadline(std::chrono::steady_clock::duration limit);
    StopDeadline(const StopDeadline&) = delete;
    StopDeadline& operator=(const StopDeadline&) = delete;
    ~StopDeadline();

private:
    void Run(std::chrono::steady_clock::time_point deadline);

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isOver GUARDED_BY(mutex) = false;
    std::thread thread; ///< "stop-deadline"
};

} // namespace msgbus_server
