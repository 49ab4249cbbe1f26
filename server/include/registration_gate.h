#pragma once

#include "bus_interfaces.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>

namespace msgbus_server {

/// Registration that gets its turn. The bus changes its list of subscribers only when the inbound queue has run empty,
/// which publishers can prevent for as long as they like. So a push that comes while a change waits is held back until
/// one change is done; then it passes, so changes cannot keep pushes waiting either.
///
/// Threads: any.
class RegistrationGate final : public message_bus::IProvider, public message_bus::IProviderControl {
public:
    /// `isOpen`: nothing is held back. `registeredAction` (may be empty) is called with the id of each new subscriber,
    /// before any push goes on. Lifetime: both must outlive this object.
    RegistrationGate(message_bus::IProvider& publisher, message_bus::IProviderControl& registry, bool isOpen,
                     std::function<void(long)> registeredAction)
        : provider(publisher), control(registry), holdsBack(!isOpen), onRegistered(std::move(registeredAction)) {}

    cor::ResultCode Push(long publisherId, long message) override {
        if (waiting.load() != 0) {
            AwaitChange();
        }
        return provider.Push(publisherId, message);
    }

    cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override;
    cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                       long& subscriberId) override;
    cor::ResultCode UnregisterPublisher(long publisherId) override;
    cor::ResultCode UnregisterSubscriber(long subscriberId) override;

private:
    class Change;

    void AwaitChange() noexcept;

    message_bus::IProvider& provider;
    message_bus::IProviderControl& control;
    const bool holdsBack;
    const std::function<void(long)> onRegistered;

    std::atomic<std::uint32_t> waiting{0}; ///< changes that are under way
    std::atomic<std::uint32_t> done{0};    ///< those that have ended
};

} // namespace msgbus_server
