#pragma once

#include "msgbus/options.h"

namespace msgbus {

/// A descriptor that is readable while another one is, and from a point in time on. Threads: one at a time.
class TimedDescriptor final {
public:
    /// Lifetime: `other` must outlive this object. Throws: PlatformError.
    explicit TimedDescriptor(int other);
    TimedDescriptor(const TimedDescriptor&) = delete;
    TimedDescriptor& operator=(const TimedDescriptor&) = delete;
    ~TimedDescriptor();

    int Number() const noexcept { return epoll; }

    /// It is readable from `time` on, or somewhat earlier: no earlier one that was set before is left to come. Until
    /// then it is not readable for this reason. Throws: PlatformError.
    void WakeAt(Deadline time);

private:
    void Close() noexcept;

    const int epoll;
    const int timer;
    Deadline wakesAt = Deadline::max();
};

} // namespace msgbus
