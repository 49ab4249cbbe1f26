#pragma once

#include "bus_interfaces.h"
#include "caller_accounts.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>

namespace msgbus_server {

/// The bus as a caller may use it: within its limits, and only what it has registered itself. With the id of another
/// process it gets the answers that an unknown id gets. First of the decorators: the others see no refused request.
///
/// A call on a thread that serves no request is the server's own and passes as it is.
///
/// Threads: any.
class Ownership final : public message_bus::IProvider,
                        public message_bus::IProviderControl,
                        public message_bus::IWorker {
public:
    struct Bus {
        message_bus::IProvider& provider;
        message_bus::IProviderControl& control;
        message_bus::IWorker& worker;
    };

    /// `checksOwners`: false: every process may use every id. `endAction` is called for a caller that went while a
    /// registration of it was made; must return at once. Lifetime: all must outlive this object.
    Ownership(Bus served, CallerAccounts& kept, bool checksOwners, std::function<void(const KnCaller&)> endAction);

    cor::ResultCode Push(long publisherId, long message) override;

    cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override;
    cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                       long& subscriberId) override;
    cor::ResultCode UnregisterPublisher(long publisherId) override;
    cor::ResultCode UnregisterSubscriber(long subscriberId) override;

    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

private:
    template <typename Make>
    cor::ResultCode Register(Kind kind, std::size_t bytes, long& id, const Make& make);
    long Visible(Kind kind, long id) const;
    long VisibleOften(Kind kind, long id) const;

    const Bus bus;
    CallerAccounts& accounts;
    const bool isOwned;
    const std::function<void(const KnCaller&)> endAllOf;
    const std::uint64_t instance; ///< tells the entries of threads' caches apart from those of other objects
};

} // namespace msgbus_server
