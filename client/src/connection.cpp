#include "connection.h"

#include "br_MessageBus.h"
#include "kn/connection_manager.h"
#include "kn/status.h"
#include "msgbus/error.h"
#include "service_locator.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace msgbus {

namespace {

const char* ServiceName(Service service) {
    switch (service) {
    case Service::Provider:
        return br_MessageBusComponent_provider_service;
    case Service::Ctl:
        return br_MessageBusComponent_ctl_service;
    case Service::Subs:
        return br_MessageBusComponent_subs_service;
    }
    return "";
}

std::string Where(Route route) {
    switch (route) {
    case Route::Dynamic:
        return " in dynamic mode";
    case Route::Static:
        return " in static mode";
    case Route::Automatic:
        break;
    }
    return "";
}

/// Returns: how many descriptors this process may have, as the end of a sentence.
std::string Limit() {
    rlimit limit{};
    return ::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY
               ? ""
               : " (this process may have " + std::to_string(limit.rlim_cur) + " descriptors open: ulimit -n)";
}

} // namespace

Route ResolveRoute(Route route) {
    const char* const chosen = std::getenv("BORVEN_BUS");
    if (route != Route::Automatic || chosen == nullptr || *chosen == '\0') {
        return route;
    }
    const std::string_view text(chosen);
    if (text == "static") {
        return Route::Static;
    }
    if (text == "dynamic") {
        return Route::Dynamic;
    }
    throw std::invalid_argument("BORVEN_BUS is '" + std::string(text) + "'; it must be 'static' or 'dynamic'");
}

Connection::Connection(Service service, Route& route, std::chrono::milliseconds timeout) {
    const auto timeoutMs = static_cast<std::uint32_t>(
        std::clamp<std::chrono::milliseconds::rep>(timeout.count(), 0, std::numeric_limits<std::int32_t>::max()));
    KnHandle handle = KnInvalidHandle;
    std::int32_t status = KnStatusNotFound;
    Route found = route;
    if (route != Route::Static) {
        status = KnCmConnect(ServiceName(service), timeoutMs, &handle);
        found = Route::Dynamic;
    }
    if (route == Route::Static || (route == Route::Automatic && status == KnStatusNotFound)) {
        status = ServiceLocatorConnect(br_MessageBus_connection, timeoutMs, &handle);
        found = Route::Static;
    }
    switch (status) {
    case 0:
        break;
    case KnStatusNotFound:
        throw NoServerError(status, "no message bus server is running" + Where(route));
    case KnStatusClosed:
        throw ServerGoneError(status, "the message bus server closed the connection during the handshake");
    case KnStatusTimedOut:
        throw NoServerError(status, "the message bus server did not accept the connection within " +
                                        std::to_string(timeoutMs) + " ms");
    case KnStatusNoResources:
        throw PlatformError(status, "cannot connect to the message bus: memory or descriptors ran out" + Limit());
    case KnStatusBusy:
        throw PlatformError(status, "cannot connect to the message bus: its server takes no more connections of this "
                                    "process, its user or of all ('msgbusd --limits' lists how many)");
    case KnStatusDenied:
        throw PlatformError(status,
                            "cannot connect to the message bus: its runtime directory cannot be used; the log has "
                            "the reason (BORVEN_RUNTIME_DIR chooses another)");
    default:
        throw PlatformError(status, std::string("cannot connect to the message bus: ") + KnStatusText(status));
    }
    route = found;
    NkBosTransport_Init(&transport, handle, nullptr, 0);
}

std::int32_t StatusOf(std::int32_t stubResult) noexcept {
    return br_MessageBus_IsErrorResult(stubResult) ? br_MessageBus_ErrorValue(stubResult) : stubResult;
}

} // namespace msgbus
