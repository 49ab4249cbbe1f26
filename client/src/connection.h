#pragma once

#include "msgbus/options.h"

#include "kn/handle.h"
#include "nk/transport.h"

#include <cstdint>
#include <string>

namespace msgbus {

/// The interfaces of the bus; each is a service of its own in the dynamic mode.
enum class Service { Provider, Ctl, Subs };

/// What BORVEN_BUS says, unless `route` says more.
/// Throws: std::invalid_argument when BORVEN_BUS says something else than "static" or "dynamic".
Route ResolveRoute(Route route);

/// The client end of a connection to one service.
/// Threads: calls take turns.
class Connection final {
public:
    /// Connects to `service`. When `route` leaves it open, it tells afterwards where the server was found.
    /// Throws: NoServerError, ServerGoneError, PlatformError.
    Connection(Service service, Route& route, std::chrono::milliseconds timeout);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { Close(); }

    NkBosTransport* Transport() noexcept { return &transport; }

    /// Ends a call that is under way on another thread, and every later one. Threads: any.
    void Close() noexcept { KnHandleClose(transport.handle); }

private:
    NkBosTransport transport{};
};

/// Throws what `status`, the outcome of a client stub, stands for. A result code of the bus becomes a RefusedError with
/// `sentence`, or with the general one when that is empty. Returns when it is 0.
void ThrowUnlessOk(std::int32_t status, const std::string& sentence = {});

/// The bus's result code in `status`, 0 for success, and -1 when `status` is the platform's.
std::int32_t ResultCodeOf(std::int32_t status) noexcept;

/// Throws std::invalid_argument unless `text`, the `what` of somebody, fits into a request.
void CheckText(const std::string& text, const char* what);

} // namespace msgbus
