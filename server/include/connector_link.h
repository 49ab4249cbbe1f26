#pragma once

#include "bus_interfaces.h"

#include <functional>
#include <utility>

namespace msgbus_server {

/// What the bus keeps of its connector. The bus never lets go of the connector that it was run with, but the
/// connector's workers use the bus: so it gets this link, and the server program ends the connector while the bus is
/// still there.
class ConnectorLink final : public message_bus::IConnector {
public:
    /// `onServing` is called when requests are served. Lifetime: `target` must outlive the last call.
    ConnectorLink(message_bus::IConnector& target, std::function<void()> onServing)
        : connector(target), tellServing(std::move(onServing)) {}

    cor::ResultCode RunServer() override;
    cor::ResultCode SwitchActiveIpcServer() override;
    bool ShouldBeStopped() override;

private:
    message_bus::IConnector& connector;
    std::function<void()> tellServing;
};

} // namespace msgbus_server
