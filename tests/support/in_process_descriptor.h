#pragma once

#include <sys/types.h>

#include <cstdint>

namespace test_support {

/// The descriptor of a connection (nk/begun_call.h): an epoll of an event and of a timer, one number for both. It does
/// nothing in a child made by fork, which shares both with its parent.
/// Threads: one at a time.
class InProcessDescriptor final {
public:
    InProcessDescriptor();
    InProcessDescriptor(const InProcessDescriptor&) = delete;
    InProcessDescriptor& operator=(const InProcessDescriptor&) = delete;
    ~InProcessDescriptor();

    bool IsOpen() const { return isOpen; }
    int Number() const { return poller; }

    void Signal();
    void Clear();
    /// Clears it until then.
    void SignalIn(std::uint32_t afterMs);

private:
    /// `nanoseconds`: 0 stops it.
    void SetTimer(std::int64_t seconds, std::int64_t nanoseconds);
    bool IsOwn() const;

    const pid_t owner;
    const int poller;
    const int event;
    const int timer;
    bool isOpen = false;
};

} // namespace test_support
