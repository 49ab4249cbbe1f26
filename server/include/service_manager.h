#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace msgbus_server {

/// Reports to the service manager that started the program, by the protocol of sd_notify(3): datagrams to the socket
/// that NOTIFY_SOCKET names. Does nothing without one. Threads: any, but for construction and destruction.
class ServiceManager final {
public:
    /// Reads the environment.
    ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;
    ~ServiceManager();

    /// Returns: whether there is one to report to.
    bool IsPresent() const noexcept { return socket >= 0; }

    /// Sends assignments, one a line: "READY=1\nSTATUS=...". A failure is logged as a warning.
    /// Blocks: for a second at most, if the manager does not read.
    void Report(std::string_view assignments) const;

    /// Returns: how often the manager wants to hear WATCHDOG=1 at least; nothing when it does not watch this process.
    static std::optional<std::chrono::microseconds> WatchdogPeriod();

private:
    int socket = -1; ///< owned; -1: there is no manager
};

} // namespace msgbus_server
