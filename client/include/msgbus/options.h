#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace msgbus {

/// How to connect to the bus.
enum class Route {
    Automatic, ///< the mode in BORVEN_BUS ("static" or "dynamic"); if unset, dynamic, then static if nothing is found
    Dynamic,   ///< the services that a server publishes
    Static,    ///< the channel that a server opens under a fixed name
};

/// Settings of one publisher or subscriber.
struct Options {
    Route route = Route::Automatic;

    /// How long a running server may take to accept one connection.
    std::chrono::milliseconds connectTimeout{5000};

    /// How long to look for a restarted server after the server is gone. Zero: throw ServerGoneError at once. A client
    /// that finds a restarted server registers with it, under a new id, and continues. The new server has no memory of
    /// the old one:
    /// - a subscriber loses the values that it had not read, and those published before it is registered again;
    /// - a publisher pushes the unacknowledged value again, so that the value may arrive twice; values that were
    ///   acknowledged but not yet read by every subscriber are lost.
    std::chrono::milliseconds reconnectFor{0};

    /// How long Push retries while the server's inbound queue is full.
    std::chrono::milliseconds fullQueueTimeout{10000};

    /// With `reconnectFor`, called with a sentence when the server is gone, and with another one, which names what may
    /// be lost, after a restarted server was found. May be empty.
    /// Threads: called inside Push, TryPush or Next, on their thread. Must not call the publisher or subscriber.
    std::function<void(const std::string& sentence)> onNotice{};
};

} // namespace msgbus
