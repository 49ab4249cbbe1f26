#pragma once

#include "message_bus.h"

namespace msgbus_server {

/// Ends the bus's events thread, of which `bus.Stop()` alone cannot be sure: its wake-up is lost when it falls between
/// the thread's test of its flag and its sleep. A push, even of an unknown publisher, takes the lock that covers both:
/// behind it the thread sleeps where the second stop wakes it, or has ended. Does not wait for the thread.
inline void StopEventsThread(message_bus::MessageBus& bus) {
    constexpr long noPublisher = -1;
    bus.Stop();
    static_cast<void>(bus.Push(noPublisher, 0));
    bus.Stop();
}

} // namespace msgbus_server
