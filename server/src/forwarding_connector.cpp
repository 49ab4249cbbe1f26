#include "forwarding_connector.h"

namespace msgbus_server {

cor::ResultCode ForwardingConnector::RunServer() {
    const cor::ResultCode result = connector.RunServer();
    isServing = result == cor::ResultCode::Success;
    hasFailed = !isServing;
    if (isServing) {
        reportServing();
    }
    return result;
}

cor::ResultCode ForwardingConnector::SwitchActiveIpcServer() {
    return connector.SwitchActiveIpcServer();
}

bool ForwardingConnector::ShouldBeStopped() {
    if (!isHosting) {
        isHosting = true;
        reportHosting();
    }
    common::MutexLock lock(mutex);
    while (isServing && !isStopRequested) {
        changed.Wait(lock);
    }
    return isStopRequested || hasFailed;
}

void ForwardingConnector::RequestStop() {
    {
        const common::MutexLock lock(mutex);
        isStopRequested = true;
    }
    changed.NotifyAll();
}

} // namespace msgbus_server
