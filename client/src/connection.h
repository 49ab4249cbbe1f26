#pragma once

#include "kn/handle.h"
#include "msgbus/options.h"
#include "nk/transport.h"

#include <cstdint>
#include <string>

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
    ~Connection() { Close(); }

    NkBosTransport* Transport() noexcept { return &transport; }

    /// Makes a call in progress on another thread, and every later call, return KnStatusClosed. Threads: any.
    void Close() noexcept { KnHandleClose(transport.handle); }

private:
    NkBosTransport transport{};
};

/// Throws the exception for `status`, the result of a client stub, unless it is 0. For a result code of the bus that is
/// a RefusedError with `sentence`, or with DescribeResult if `sentence` is empty.
void ThrowUnlessOk(std::int32_t status, const std::string& sentence = {});

/// Returns: the bus's result code in `status`; 0 for success; -1 for a status of the platform.
std::int32_t ResultCodeOf(std::int32_t status) noexcept;

/// Throws: std::invalid_argument, which names `what` (such as "topic"), unless `text` fits into a request.
void CheckText(const std::string& text, const char* what);

} // namespace msgbus
