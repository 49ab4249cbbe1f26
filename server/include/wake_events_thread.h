#pragma once

#include "message_bus.h"

namespace msgbus_server {

/// Wakes the events thread for values that a lost wake-up has left in the inbound queue: a registration does. It takes
/// two ids of the bus. It is made without the lock under which that thread sleeps, so this wake-up may be lost as well.
inline void WakeEventsThread(message_bus::MessageBus& bus) {
    long id = -1;
    if (bus.RegisterSubscriber("wake", {}, id) == cor::ResultCode::Success) {
        bus.UnregisterSubscriber(id);
    }
}

} // namespace msgbus_server
