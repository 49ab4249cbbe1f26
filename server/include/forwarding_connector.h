#pragma once

#include "bus_interfaces.h"
#include "common/mutex.h"

#include <chrono>
#include <functional>
#include <utility>

namespace msgbus_server {

/// The connector that the bus keeps. The bus holds on to its connector until it is destroyed, but the connector's
/// workers use the bus: so the bus gets this one, and the server destroys the real connector while the bus still
/// exists.
///
/// It also holds the hosting thread while requests are served. The bus asks every five seconds whether to stop; the
/// answer is delayed until there is something to answer, so a stop takes effect at once.
class ForwardingConnector final : public message_bus::IConnector {
public:
    /// `onHosting` is called once, on the hosting thread, when the bus has started its events thread; `onServing` when
    /// requests are served; `onDrain` on the hosting thread after RequestDrain: it returns when the stop may follow.
    /// Lifetime: `target` must outlive the last call.
    ForwardingConnector(message_bus::IConnector& target, std::function<void()> onHosting,
                        std::function<void()> onServing, std::function<void()> onDrain)
        : connector(target), reportHosting(std::move(onHosting)), reportServing(std::move(onServing)),
          drain(std::move(onDrain)) {}

    /// Returns: what the target returns; anything but 0 ends the bus's run.
    cor::ResultCode RunServer() override;
    cor::ResultCode SwitchActiveIpcServer() override;

    /// Blocks: while requests are served, until RequestStop, or until the drain after RequestDrain is over.
    bool ShouldBeStopped() override;

    /// Cannot be undone. Threads: any.
    void RequestStop();

    /// A drain, then a stop, unless a stop is requested meanwhile. Cannot be undone. Threads: any.
    void RequestDrain();

    /// Returns: whether a stop is requested. Blocks: until then, for `limit` at most. Threads: any.
    bool AwaitStop(std::chrono::steady_clock::duration limit);

    /// Returns: whether RunServer was called and failed. Threads: the hosting one.
    bool HasFailed() const noexcept { return hasFailed; }

private:
    message_bus::IConnector& connector;
    const std::function<void()> reportHosting;
    const std::function<void()> reportServing;
    const std::function<void()> drain;

    // Of the hosting thread alone.
    bool isHosting = false;
    bool isServing = false;
    bool hasFailed = false;

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isDrainRequested GUARDED_BY(mutex) = false;
    bool isStopRequested GUARDED_BY(mutex) = false;
};

} // namespace msgbus_server
