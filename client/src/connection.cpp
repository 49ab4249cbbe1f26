#include "connection.h"

#include "br_MessageBus.h"
#include "kn/connection_manager.h"
#include "kn/status.h"
#include "msgbus/error.h"
#include "service_locator.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace msgbus {

namespace {

constexpr std::size_t LongestText = sizeof(br_MessageBusCtl_RegisterPublisher_req::topic) - 1; // its NUL travels too

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

std::int32_t ResultCodeOf(std::int32_t status) noexcept {
    if (status == 0) {
        return 0;
    }
    return br_MessageBus_IsErrorResult(status) ? br_MessageBus_ErrorValue(status) : -1;
}

void ThrowUnlessOk(std::int32_t status, const std::string& sentence) {
    if (status == 0) {
        return;
    }
    if (const std::int32_t code = ResultCodeOf(status); code >= 0) {
        throw RefusedError(code, sentence.empty() ? DescribeResult(code) : sentence);
    }
    if (status == KnStatusClosed) {
        throw ServerGoneError(status, "the message bus server is gone");
    }
    throw PlatformError(status, std::string("the request to the message bus failed: ") + KnStatusText(status));
}

void CheckText(const std::string& text, const char* what) {
    if (text.empty()) {
        throw std::invalid_argument(std::string("the ") + what + " is empty");
    }
    if (text.size() > LongestText) {
        throw std::invalid_argument(std::string("the ") + what + " has " + std::to_string(text.size()) +
                                    " bytes; at most " + std::to_string(LongestText) + " can be sent");
    }
    if (text.find('\0') != std::string::npos) {
        throw std::invalid_argument(std::string("the ") + what + " contains a NUL byte");
    }
}

} // namespace msgbus
