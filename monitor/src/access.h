#pragma once

#include <string_view>

// Who may ask over TCP, where the kernel does not say who it is.

namespace msgbus_monitor {

/// Returns: whether the value of the header "Authorization" is "Bearer" and the token. Takes the same time for every
/// token of the same length.
bool IsAuthorized(std::string_view authorization, std::string_view token);

/// Returns: whether the value of the header "Host" names this machine by a loopback address or as "localhost". A page
/// from elsewhere whose name has been made to lead here has its own name there.
bool IsLoopbackHost(std::string_view host);

} // namespace msgbus_monitor
