#pragma once

#include "loopback_address.h"
#include "monitored.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace msgbus_monitor {

/// The monitor cannot be offered: what() is a sentence for the operator.
class MonitorError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What clients may take. The defaults are for use; tests set others.
struct MonitorLimits {
    /// Beyond it a new connection takes the place of one that has been answered, or of the one that has waited longest
    /// for its first request, but not for less than `leastWait`: so a flood cannot push out a client that is about to
    /// ask.
    std::size_t unixConnections = 48;
    std::size_t tcpConnections = 16;
    std::chrono::milliseconds leastWait{50};

    std::size_t eventStreams = 4; ///< of all connections
    std::uint32_t headerBytes = 8 * 1024;
    std::uint64_t bodyBytes = 64 * 1024;
    std::size_t answerBytes = 64 << 20; ///< of all different answers that are being read
    std::size_t listedTopics = 50'000;  ///< of publishers and subscribers together, in an answer that lists all

    std::chrono::milliseconds idleTime{60'000};   ///< between requests
    std::chrono::milliseconds requestTime{5'000}; ///< from the first byte of a request to the last
    std::chrono::milliseconds answerTime{5'000};  ///< until there is an answer
    std::chrono::milliseconds writeTime{10'000};  ///< until the client has read it; of a stream: each part of it

    /// An account, and each text made of it, is shown for ten times as long as making them took, within these bounds:
    /// so that readers take a tenth of a CPU at most, and see no old account of a small bus.
    std::chrono::milliseconds leastCacheTime{0};
    std::chrono::milliseconds mostCacheTime{1000};
    std::chrono::milliseconds pollTime{100};         ///< between looks for events, while there is a stream
    std::chrono::milliseconds keepAliveTime{10'000}; ///< between signs of life in a stream
};

struct MonitorOptions {
    std::optional<std::string> socketPath; ///< of the Unix socket; only processes of this user and of root are served
    std::optional<LoopbackAddress> address;
    std::string token; ///< which requests over TCP must bring; required with `address`
    /// Called with sentences for the operator. Threads: that of the constructor, and the monitor's own.
    std::function<void(const std::string& sentence)> warn = [](const std::string&) {};
    /// Called by each of the monitor's threads as it begins. A thread handles exceptions, std::bad_alloc too.
    std::function<void()> onThreadStart = [] {};
    MonitorLimits limits;
};

/// The account of a bus over HTTP: docs/observing.md describes the resources. Two threads of its own, "monitor-1" for
/// connections and "monitor-2" for answers, both at low priority. Whatever clients do, they take no more than the
/// limits, and /healthz is answered.
class Monitor final {
public:
    /// Serves from now on. A socket file that no server listens on is replaced; where one does, or the file cannot be
    /// made, there is a warning, and no Unix socket. Lifetime: `monitored` must outlive this object.
    /// Throws: MonitorError when the address is not free; std::system_error when a thread cannot be started.
    Monitor(IMonitored& monitored, MonitorOptions options);
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;
    /// Sends event streams what they lack, closes all connections and removes the socket file. Blocks: while an
    /// operation of IMonitored is under way.
    ~Monitor();

    bool HasUnixSocket() const noexcept;
    /// Returns: the address with the port that the system has chosen; nothing without an address.
    std::optional<LoopbackAddress> Address() const;

private:
    class Server;
    std::unique_ptr<Server> server;
};

} // namespace msgbus_monitor
