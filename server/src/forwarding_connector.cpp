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
        if (!isDrainRequested) {
            changed.Wait(lock);
            continue;
        }
        lock.Unlock();
        drain();
        lock.Lock();
        isStopRequested = true;
    }
    return isStopRequested || hasFailed;
}

void ForwardingConnector::RequestDrain() {
    {
        const common::MutexLock lock(mutex);
        isDrainRequested = true;
    }
    changed.NotifyAll();
}

bool ForwardingConnector::AwaitStop(std::chrono::steady_clock::duration limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    common::MutexLock lock(mutex);
    while (!isStopRequested && changed.WaitUntil(lock, deadline) == std::cv_status::no_timeout) {
    }
    return isStopRequested;
}

void ForwardingConnector::RequestStop() {
    {
        const common::MutexLock lock(mutex);
        isStopRequested = true;
    }
    changed.NotifyAll();
}

} // namespace msgbus_server
