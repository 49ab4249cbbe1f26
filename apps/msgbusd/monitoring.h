#pragma once

#include "bus_server.h"
#include "health.h"
#include "loopback_address.h"
#include "monitor.h"
#include "monitored_account.h"

#include <optional>
#include <string>

namespace msgbusd {

struct MonitorSettings {
    bool isOn = true;
    std::optional<msgbus_monitor::LoopbackAddress> address;
    std::string tokenFile; ///< empty: a token is made, for which "monitor.token" in the runtime directory is written
};

/// The server's account over HTTP, as the options of the program say: on "monitor.sock" in the runtime directory, and
/// on an address with a token.
class Monitoring final {
public:
    /// `directory`: the runtime directory; none: there is no Unix socket. Requires: the server has an account.
    /// Lifetime: the server must outlive this object. Throws: msgbus_monitor::MonitorError, msgbus_monitor::TokenError,
    /// std::system_error.
    Monitoring(msgbus_server::BusServer& server, const MonitorSettings& settings,
               const std::optional<std::string>& directory);
    Monitoring(const Monitoring&) = delete;
    Monitoring& operator=(const Monitoring&) = delete;
    ~Monitoring();

private:
    void Publish(const std::string& token, const std::optional<std::string>& directory);

    msgbus_server::Health health;
    msgbus_monitor::MonitoredAccount account;
    std::optional<msgbus_monitor::Monitor> monitor;
    std::string ownTokenFile; ///< was written, and goes with this object; empty: none
};

} // namespace msgbusd
