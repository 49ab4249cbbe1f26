#pragma once

#include "bus_interfaces.h"
#include "common/mutex.h"

namespace msgbus_server {

/// One push at a time, which is also how the bus takes them. A thread that holds the turn has the bus without a push
/// under way. Threads: any.
class PushTurn final : public message_bus::IProvider {
public:
    /// `turnMutex`: is locked before every lock of the bus. Lifetime: both must outlive this object.
    PushTurn(common::Mutex& turnMutex, message_bus::IProvider& publisher) : mutex(turnMutex), provider(publisher) {}

    cor::ResultCode Push(long publisherId, long message) override {
        const common::MutexLock lock(mutex);
        return provider.Push(publisherId, message);
    }

private:
    common::Mutex& mutex;
    message_bus::IProvider& provider;
};

} // namespace msgbus_server
