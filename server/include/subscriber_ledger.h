#pragma once

#include "bus_interfaces.h"
#include "common/mutex.h"

#include <atomic>
#include <cstddef>
#include <set>
#include <vector>

namespace msgbus_server {

/// Registration that remembers the registered subscribers, so that a stopping server can release their waits.
/// Threads: every operation from any thread. Holds no lock while the bus works.
class SubscriberLedger final : public message_bus::IProviderControl, public message_bus::IWorker {
public:
    /// Lifetime: both must outlive this object.
    SubscriberLedger(message_bus::IProviderControl& bus, message_bus::IWorker& waitWorker)
        : control(bus), worker(waitWorker) {}

    /// As the bus. Once StopAndUnregisterAll was called, all but UnregisterPublisher return 10; once RefuseNew was, the
    /// registrations.
    cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override;
    cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                       long& subscriberId) override;
    cor::ResultCode UnregisterPublisher(long publisherId) override;
    cor::ResultCode UnregisterSubscriber(long subscriberId) override;

    /// As the worker. Once StopAndUnregisterAll was called it returns 1, without a line: the bus would report an
    /// unknown subscriber as an error.
    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

    /// Refuses new registrations from now on. Returns: the ids of the registered subscribers, in ascending order. One
    /// whose registration is under way may be missing.
    std::vector<long> RefuseNew();

    /// Returns: how many subscribers are registered.
    std::size_t Count() const noexcept { return count.load(std::memory_order_relaxed); }

    /// Refuses new registrations from now on and unregisters every subscriber, which ends its waits.
    /// Returns: how many subscribers there were.
    std::size_t StopAndUnregisterAll();

private:
    message_bus::IProviderControl& control;
    message_bus::IWorker& worker;

    std::atomic<bool> isRefusing{false}; ///< turns true under the mutex; every registration reads it
    std::atomic<bool> isStopping{false}; ///< turns true under the mutex; every wait reads it
    std::atomic<std::size_t> count{0};   ///< of `subscribers`; relaxed: every push reads it, as advice

    common::Mutex mutex;
    /// In ascending order, in which a stop unregisters them: the bus looks each up from the oldest on.
    std::set<long> subscribers GUARDED_BY(mutex);
};

} // namespace msgbus_server
