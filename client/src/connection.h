#pragma once

#include "kn/handle.h"
#include "msgbus/options.h"
#include "nk/transport.h"

#include <chrono>
#include <cstdint>

namespace msgbus {

/// The interfaces of the bus. In dynamic mode each is a separate service.
enum class Service { Provider, Ctl, Subs };

/// Returns: `route`; for Automatic the mode that BORVEN_BUS names, if it is set.
/// Throws: std::invalid_argument when BORVEN_BUS is neither "static" nor "dynamic".
Route ResolveRoute(Route route);

/// The client end of a connection to one service.
/// Threads: any; calls on one connection take turns.
class Connection final {
public:
    /// Connects to `service`. If `route` is Automatic, sets it to the mode in which the server was found.
    /// Throws: NoServerError, ServerGoneError, PlatformError.
    /// Blocks: up to `timeout`.
    Connection(Service service, Route& route, std::chrono::milliseconds timeout);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { KnHandleClose(transport.handle); }

    NkBosTransport* Transport() noexcept { return &transport; }
    KnHandle Handle() const noexcept { return transport.handle; }

private:
    NkBosTransport transport{};
};

/// Returns: the status (backend.h) for the result of a client stub.
std::int32_t StatusOf(std::int32_t stubResult) noexcept;

} // namespace msgbus
