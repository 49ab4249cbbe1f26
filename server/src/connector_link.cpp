#include "connector_link.h"

namespace msgbus_server {

cor::ResultCode ConnectorLink::RunServer() {
    const cor::ResultCode result = connector.RunServer();
    if (result == cor::ResultCode::Success) {
        tellServing();
    }
    return result;
}

cor::ResultCode ConnectorLink::SwitchActiveIpcServer() {
    return connector.SwitchActiveIpcServer();
}

bool ConnectorLink::ShouldBeStopped() {
    return connector.ShouldBeStopped();
}

} // namespace msgbus_server
