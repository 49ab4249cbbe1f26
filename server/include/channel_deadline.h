#pragma once

#include "common/mutex.h"

#include <chrono>
#include <string>
#include <thread>

namespace msgbus_server {

/// Closes the server ends of the process when a step of the server does not end in time, so that neither its clients
/// nor the server itself wait for ever for a thread that does not end, or that could not be started. Its own thread
/// exists from the beginning: a stop must not depend on whether the system can still start one. Threads: all on the
/// same one.
class ChannelDeadline final {
public:
    /// Throws: std::system_error when the thread cannot be started.
    ChannelDeadline();
    ChannelDeadline(const ChannelDeadline&) = delete;
    ChannelDeadline& operator=(const ChannelDeadline&) = delete;
    ~ChannelDeadline();

    /// Begins a step. Unless Disarm ends it within `limit`, `failure` is logged as an error and the ends are closed.
    void Arm(std::chrono::steady_clock::duration limit, std::string failure);
    void Disarm();

private:
    void Run();

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isEnding GUARDED_BY(mutex) = false;
    bool isArmed GUARDED_BY(mutex) = false;
    std::chrono::steady_clock::time_point deadline GUARDED_BY(mutex);
    std::string message GUARDED_BY(mutex);

    std::thread thread; ///< "deadline"; last: uses all members above
};

} // namespace msgbus_server
