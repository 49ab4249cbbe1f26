#include "connection.h"

#include "msgbus/error.h"

#include "br_MessageBus.h"
#include "kn/connection_manager.h"
#include "kn/status.h"
#include "service_locator.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace msgbus {

namespace {

constexpr const char* staticConnection = "msgbus_connection_id";
constexpr std::size_t longestText = 1023; // requests carry texts in arrays of 1024 bytes, NUL included

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
        status = ServiceLocatorConnect(staticConnection, timeoutMs, &handle);
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
    default:
        throw PlatformError(status, std::string("cannot connect to the message bus: ") + KnStatusText(status));
    }
    route = found;
    NkBosTransport_Init(&transport, handle, nullptr, 0);
}

std::int32_t ResultCodeOf(std::int32_t status) noexcept {
    // The bus sends code c as -(2c + 1) * 0x4000; the statuses of the platform are small negative numbers.
    const std::uint32_t negated = 0U - static_cast<std::uint32_t>(status);
    if (status == 0) {
        return 0;
    }
    return (negated & 0x4000U) != 0 ? static_cast<std::int32_t>(negated >> 15U) : -1;
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
    if (text.size() > longestText) {
        throw std::invalid_argument(std::string("the ") + what + " has " + std::to_string(text.size()) +
                                    " bytes; at most " + std::to_string(longestText) + " can be sent");
    }
    if (text.find('\0') != std::string::npos) {
        throw std::invalid_argument(std::string("the ") + what + " contains a NUL byte");
    }
}

} // namespace msgbus
