#include "access.h"

#include "common/secret.h"
#include "loopback_address.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <string>

namespace msgbus_monitor {

namespace {

bool AreEqualIgnoringCase(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

} // namespace

bool IsAuthorized(std::string_view authorization, std::string_view token) {
    constexpr std::string_view scheme = "Bearer ";
    if (token.empty() || !AreEqualIgnoringCase(authorization.substr(0, scheme.size()), scheme)) {
        return false;
    }
    return common::IsSecret(token, authorization.substr(scheme.size()));
}

bool IsLoopbackHost(std::string_view host) {
    const bool hasPort = !host.ends_with(']') && host.find(':') != std::string_view::npos;
    constexpr std::string_view name = "localhost";
    std::string address(host);
    if (AreEqualIgnoringCase(host.substr(0, host.find(':')), name)) {
        address.replace(0, name.size(), "127.0.0.1"); // so that the port is looked at
    }
    try {
        LoopbackAddress::Parse(hasPort ? address : address + ":0");
        return true;
    } catch (const std::invalid_argument&) {
        return false;
    }
}

} // namespace msgbus_monitor
