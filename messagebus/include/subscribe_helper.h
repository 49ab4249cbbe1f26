#pragma once

#include "bus_interfaces.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace message_bus {

/// The registrations of subscribers that are under way: start, one call for each topic, then commit or cancel.
/// A registration that its client never finishes stays until this object is destroyed.
/// Threads: every operation from any thread.
class [[gnu::visibility("default")]] SubscribeHelper final {
public:
    explicit SubscribeHelper(std::shared_ptr<IProviderControl> control);

    /// Opens a registration under `name`, which is not checked.
    /// Returns: 0 and its id: 0, 1, 2 and so on, never reused.
    cor::ResultCode StartSubscribing(const std::string& name, long& id);

    /// Adds `topic` to the registration.
    /// Returns: 0; 8 when it holds the topic already; 10 when there is no such registration.
    cor::ResultCode Subscribe(long id, const std::string& topic);

    /// Ends the registration: with `complete` it goes to the bus, otherwise it is dropped. Its id is unknown
    /// afterwards, also when the bus fails.
    /// Returns: what the bus returned; 1 when dropped; 8 when there is no such registration; 10.
    cor::ResultCode FinishSubscribing(long id, bool complete, long& subscriberId);

private:
    struct RegistrationItem {
        std::string subscriberName;
        std::set<std::string> topics;
    };

    std::shared_ptr<IProviderControl> providerControl;
    std::int64_t nextRegistrationId = 0; // guarded by mutex
    std::mutex mutex;
    std::map<std::int64_t, RegistrationItem> registrations; // guarded by mutex
};

} // namespace message_bus
