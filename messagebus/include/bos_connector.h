#pragma once

#include "br_MessageBus.h"
#include "bus_interfaces.h"

#include <cstdint>
#include <memory>
#include <string>

namespace bos_ipc {
class IpcServer;
}

namespace message_bus {

class SubscribeHelper;

/// Joins the bus to the platform's IPC: owns the IPC server, the handshake and the interfaces that the handlers call.
/// Threads: Init before RunServer, on the hosting thread; everything else from any serving thread.
/// Lifetime: the IPC server's workers use this object; it must outlive them.
/// Not final: SwitchActiveIpcServer calls ShouldBeStopped of a derived class.
class [[gnu::visibility("default")]] BosConnector : public IConnector {
public:
    explicit BosConnector(std::shared_ptr<bos_ipc::IpcServer> server);
    BosConnector(const BosConnector&) = delete;
    BosConnector& operator=(const BosConnector&) = delete;
    ~BosConnector() override;

    /// Stores the interfaces that the handlers call and initialises the IPC server. A second call drops every
    /// subscription that is under way.
    /// Returns: true when the IPC server is initialised.
    bool Init(std::shared_ptr<IProviderControl> newControl, std::shared_ptr<IProvider> newProvider,
              std::shared_ptr<IWorker> newWorker);

    cor::ResultCode RunServer() override;
    cor::ResultCode SwitchActiveIpcServer() override;
    bool ShouldBeStopped() override;

    /// IWorker::Wait between two log lines.
    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message);

    /// Returns: 0 for 0; br_MessageBus_ErrorResult for 1 to 10; for any other code, which is logged, that of 10.
    std::int32_t ToIpcResultCode(cor::ResultCode code) const;

    std::shared_ptr<IProviderControl> GetProviderControl() const {
        return providerControl;
    }
    std::shared_ptr<IProvider> GetProvider() const {
        return provider;
    }
    std::shared_ptr<SubscribeHelper> GetSubscribeHelper() const {
        return subscribeHelper;
    }

private:
    std::shared_ptr<IProviderControl> providerControl;
    std::shared_ptr<IProvider> provider;
    std::shared_ptr<IWorker> worker;
    std::shared_ptr<SubscribeHelper> subscribeHelper;
    std::shared_ptr<bos_ipc::IpcServer> ipcServer;
    br_MessageBus_component entity{};
    br_MessageBusComponent_component component{};
};

} // namespace message_bus
