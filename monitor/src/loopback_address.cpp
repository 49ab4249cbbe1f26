#include "loopback_address.h"

#include "common/escape.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <stdexcept>

namespace msgbus_monitor {

namespace {

[[noreturn]] void Refuse(std::string_view text, const char* reason) {
    throw std::invalid_argument("'" + common::Escaped(text) + "' " + reason);
}

bool IsLoopback4(const std::string& host) {
    constexpr std::uint32_t loopbackNetwork = 127;
    constexpr int bitsBelowNetwork = 24;
    in_addr address{};
    return ::inet_pton(AF_INET, host.c_str(), &address) == 1 &&
           ntohl(address.s_addr) >> bitsBelowNetwork == loopbackNetwork;
}

bool IsLoopback6(const std::string& host) {
    in6_addr address{};
    return ::inet_pton(AF_INET6, host.c_str(), &address) == 1 && IN6_IS_ADDR_LOOPBACK(&address);
}

} // namespace

LoopbackAddress LoopbackAddress::Parse(std::string_view text) {
    const auto colon = text.rfind(':');
    std::string_view host = text.substr(0, colon);
    LoopbackAddress address;
    address.isVersion6 = host.starts_with('[') && host.ends_with(']');
    if (address.isVersion6) {
        host = host.substr(1, host.size() - 2);
    }
    address.host = host;
    if (colon == std::string_view::npos ||
        !(address.isVersion6 ? IsLoopback6(address.host) : IsLoopback4(address.host))) {
        Refuse(text, "is not 127.0.0.1:PORT or [::1]:PORT; other addresses could be reached from other machines");
    }
    const std::string_view port = text.substr(colon + 1);
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
    if (error != std::errc() || end != port.data() + port.size()) {
        Refuse(text, "does not end in a port from 0 to 65535");
    }
    return address;
}

std::string LoopbackAddress::ToText() const {
    return (isVersion6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

} // namespace msgbus_monitor
