#pragma once

#include "account/account_keeper.h"
#include "bus_interfaces.h"

#include <set>
#include <string>

namespace msgbus_server {

/// First of all decorators: notes for each thread that serves how long it was away from its loop, and which
/// registrations were refused. Reads the clock once for all behind it (RequestTime).
/// Threads: any.
class LoopWatch final : public message_bus::IProvider,
                        public message_bus::IProviderControl,
                        public message_bus::IWorker {
public:
    struct Bus {
        message_bus::IProvider& provider;
        message_bus::IProviderControl& control;
        message_bus::IWorker& worker;
    };

    /// `mayBlock`: waits block their thread, which then has a successor, and are not watched. Lifetime: all must
    /// outlive this object.
    LoopWatch(Bus served, AccountKeeper& written, bool waitsMayBlock)
        : bus(served), keeper(written), mayBlock(waitsMayBlock) {}

    cor::ResultCode Push(long publisherId, long message) override;

    cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override;
    cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                       long& subscriberId) override;
    cor::ResultCode UnregisterPublisher(long publisherId) override;
    cor::ResultCode UnregisterSubscriber(long subscriberId) override;

    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

private:
    template <typename Call>
    cor::ResultCode Watched(const Call& call);
    void NoteRefusal(cor::ResultCode result, const std::string& name);

    const Bus bus;
    AccountKeeper& keeper;
    const bool mayBlock;
};

} // namespace msgbus_server
