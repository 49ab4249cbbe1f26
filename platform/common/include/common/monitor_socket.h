#pragma once

namespace common {

/// The Unix socket in the runtime directory on which a server is asked about itself, over HTTP.
inline constexpr auto MonitorSocketName = "monitor.sock";

} // namespace common
