#pragma once

#include <chrono>

namespace msgbus_server {

/// The time at which the calling thread began to serve a request: read once, and used by all who want the present.
class RequestTime final {
public:
    using Clock = std::chrono::steady_clock;

    /// Reads the clock for a scope. Requires: no other one on this thread.
    RequestTime() : time(Clock::now()) { current = time; }
    RequestTime(const RequestTime&) = delete;
    RequestTime& operator=(const RequestTime&) = delete;
    ~RequestTime() { current = {}; }

    Clock::time_point Begin() const noexcept { return time; }

    /// Returns: when the request began that the thread serves; without one, the present.
    static Clock::time_point Now() noexcept { return current == Clock::time_point() ? Clock::now() : current; }

private:
    static inline constinit thread_local Clock::time_point current{};

    const Clock::time_point time;
};

} // namespace msgbus_server
