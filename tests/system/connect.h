#pragma once

#include "br_MessageBus.h"
#include "kn/connection_manager.h"
#include "nk/transport.h"
#include "service_locator.h"

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace test_support {

/// Connects to `service`; where BORVEN_BUS is "static", to the one channel. Throws: std::runtime_error.
inline NkBosTransport Connect(const char* service) {
    constexpr std::uint32_t timeoutMs = 60000;
    const char* const mode = std::getenv("BORVEN_BUS");
    KnHandle handle = KnInvalidHandle;
    const std::int32_t status = mode != nullptr && std::string_view(mode) == "static"
                                    ? ServiceLocatorConnect(br_MessageBus_connection, timeoutMs, &handle)
                                    : KnCmConnect(service, timeoutMs, &handle);
    if (status != 0) {
        throw std::runtime_error("cannot connect: " + std::to_string(status));
    }
    NkBosTransport transport{};
    NkBosTransport_Init(&transport, handle, nullptr, 0);
    return transport;
}

} // namespace test_support
