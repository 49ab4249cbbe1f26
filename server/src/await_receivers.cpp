#include "await_receivers.h"

#include "br_MessageBus.h"
#include "kn/connection_manager.h"
#include "kn/status.h"
#include "nk/transport.h"
#include "service_locator.h"

#include <cstring>

namespace msgbus_server {

namespace {

using message_bus::ConnectionType;

constexpr std::uint32_t TimeoutMs = 30000;

std::int32_t Connect(ConnectionType type, const char* name, KnHandle& handle) {
    return type == ConnectionType::Static ? ServiceLocatorConnect(name, TimeoutMs, &handle)
                                          : KnCmConnect(name, TimeoutMs, &handle);
}

/// Returns: what came in place of the answer of a receiver, for the operator; empty when that came.
std::string CallOnce(ConnectionType type, const char* name) {
    KnHandle handle = KnInvalidHandle;
    std::int32_t status = Connect(type, name, handle);
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
