#pragma once

#include "bus_interfaces.h"

#include <mutex>
#include <unordered_set>

namespace msgbus_server {

/// Registration that remembers the registered subscribers, so that a stopping server can release their waits.
/// Threads: every operation from any thread. Holds no lock while the bus works.
class SubscriberLedger final : public message_bus::IProviderControl {
public:
    /// Lifetime: `bus` must outlive this object.
    explicit SubscriberLedger(message_bus::IProviderControl& bus) : control(bus) {}

    /// As the bus; 10 once StopAndUnregisterAll was called, after which nobody is registered any more and whoever asks
    /// to be unregistered is told so.
    cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override;
    cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                       long& subscriberId) override;
    cor::ResultCode UnregisterPublisher(long publisherId) override;
    cor::ResultCode UnregisterSubscriber(long subscriberId) override;

    /// Refuses newcomers from now on and unregisters every subscriber.
    void StopAndUnregisterAll();

private:
    bool IsStopping() const;

    message_bus::IProviderControl& control;

    mutable std::mutex mutex; // guards all below
    bool stopping = false;
    std::unordered_set<long> subscribers;
};

} // namespace msgbus_server
