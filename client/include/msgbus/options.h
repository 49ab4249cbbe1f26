#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace msgbus {

/// How to reach the bus.
enum class Route {
    Automatic, ///< what BORVEN_BUS says ("static" or "dynamic"); else the dynamic services, else the static channel
    Dynamic,   ///< services that are connected to at run time
    Static,    ///< the one channel that is arranged beforehand
};

/// What happens around the calls to the bus.
struct Options {
    Route route = Route::Automatic;

    /// How long a server that is there may take to accept one connection.
    std::chrono::milliseconds connectTimeout{5000};

    /// How long to look for a restarted server when the server is gone; zero: not at all, ServerGoneError is thrown at
    /// once. A client that finds one registers anew, under a new id, and goes on. A restarted server remembers nothing:
    /// - a subscriber has lost what it had not read yet, and what is published until it is registered again;
    /// - a publisher pushes the value again that was not acknowledged, so that it may arrive twice; values that were
    ///   acknowledged but not read by every subscriber are lost.
    std::chrono::milliseconds reconnectFor{0};

    /// How long Push retries while the server's inbound queue is full.
    std::chrono::milliseconds fullQueueTimeout{10000};

    /// Told in a sentence when the server is gone, and what may have been lost when another one was found. Called on
    /// the thread that noticed it; must not call back into the client.
    std::function<void(const std::string& sentence)> onNotice{};
};

} // namespace msgbus
