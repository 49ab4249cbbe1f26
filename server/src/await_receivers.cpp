#include "await_receivers.h"

#include "br_MessageBus.h"
#include "kn/connection_manager.h"
#include "kn/status.h"
#include "nk/transport.h"
#include "service_locator.h"

#include <chrono>
#include <cstring>
#include <thread>

namespace msgbus_server {

namespace {

using message_bus::ConnectionType;

constexpr std::uint32_t TimeoutMs = 30000;
constexpr std::chrono::milliseconds PauseWhileBusy{10};

std::int32_t Connect(ConnectionType type, const char* name, KnHandle& handle) {
    return type == ConnectionType::Static ? ServiceLocatorConnect(name, TimeoutMs, &handle)
                                          : KnCmConnect(name, TimeoutMs, &handle);
}

/// Returns: what came in place of the answer of a receiver, for the operator; empty when that came.
std::string CallOnce(ConnectionType type, const char* name) {
    KnHandle handle = KnInvalidHandle;
    std::int32_t status = Connect(type, name, handle);
    if (status == KnStatusBusy && type == ConnectionType::Static) {
        return {}; // clients have taken all places, and the one worker was started before them
    }
    // Clients that wait for the server to come up may be more than it lets wait at once. They are accepted by and by;
    // if not, the deadline of the start closes the channels.
    while (status == KnStatusBusy) {
        std::this_thread::sleep_for(PauseWhileBusy);
        status = Connect(type, name, handle);
    }
    if (status == KnStatusOk) {
        NkBosTransport transport{};
        NkBosTransport_Init(&transport, handle, nullptr, 0);
        br_MessageBus_component_req request;
        std::memset(request.record, 0, sizeof request.record);
        br_MessageBus_component_res response;
        const nk_arena requestArena{};
        nk_arena responseArena{};
        status = NkBosTransport_Call(&transport, &request.header, &requestArena, &response.header, &responseArena);
        KnHandleClose(handle);
    }
    return status == KnStatusBadRecord ? std::string()
                                       : std::string("no thread receives on ") + name + ": " + KnStatusText(status);
}

} // namespace

std::string AwaitReceivers(ConnectionType type) {
    if (type == ConnectionType::Static) {
        return CallOnce(type, br_MessageBus_connection);
    }
    for (const auto& interface : br_MessageBus_interfaces) {
        if (std::string failure = CallOnce(type, interface.service); !failure.empty()) {
            return failure;
        }
    }
    return {};
}

} // namespace msgbus_server
