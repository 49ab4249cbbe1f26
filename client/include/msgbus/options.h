#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace msgbus {

class Backend;

/// How to connect to the bus.
enum class Route {
    Automatic, ///< the mode in BORVEN_BUS ("static" or "dynamic"); if unset, dynamic, then static if nothing is found
    Dynamic,   ///< the services that a server publishes
    Static,    ///< the channel that a server opens under a fixed name
};

/// What Options::onNotice reports.
enum class Notice {
    ServerLost,       ///< the server is gone; the library looks for a restarted one
    RegisteredAgain,  ///< with a restarted server; the sentence names what may be lost
    WaitingForServer, ///< Options::waitForServer: there is none yet
    WaitingForTopic,  ///< Options::waitForTopic: the topic has another publisher
};

/// When a call is to end at the latest.
using Deadline = std::chrono::steady_clock::time_point;

/// Settings of one publisher or subscriber.
struct Options {
    Route route = Route::Automatic; ///< how the server is found

    /// How long a running server may take to accept one connection.
    std::chrono::milliseconds connectTimeout{5000};

    /// How long a running server may take to answer one request, other than a subscriber's wait for a value; the turn
    /// on the connection that all requests of a process share is included. Afterwards TimedOutError is thrown. A server
    /// takes microseconds for a request unless it was stopped.
    std::chrono::milliseconds callTimeout{5000};

    /// How long a constructor looks for a server before it throws NoServerError.
    std::chrono::milliseconds waitForServer{0};

    /// How long the constructor of a publisher waits while its topic has another publisher. A subscriber never waits
    /// for a topic: it may subscribe before there is a publisher.
    std::chrono::milliseconds waitForTopic{0};

    /// How long to look for a restarted server after the server is gone. Zero: throw ServerGoneError at once. A client
    /// that finds a restarted server registers with it, under a new id, and continues. The new server has no memory of
    /// the old one:
    /// - a subscriber loses the values that it had not read, and those published before it is registered again. Those
    ///   of the publisher's own process are registered before the publisher goes on; `msgbusd --hold-pushes` gives the
    ///   subscribers of other processes time;
    /// - a publisher pushes the unacknowledged value again, so that the value may arrive twice; values that were
    ///   acknowledged but not yet read by every subscriber are lost.
    std::chrono::milliseconds reconnectFor{0};

    /// How long Push retries while the server's inbound queue is full.
    std::chrono::milliseconds fullQueueTimeout{10000};

    /// Called with what happens, and with a sentence for people. May be empty.
    /// Threads: called inside a constructor or a call, on its thread. Must not call the publisher or subscriber. What
    /// it throws ends that call, which may be repeated.
    std::function<void(Notice notice, const std::string& sentence)> onNotice{};

    /// Where requests go; empty: to the server that `route` finds. Set by msgbus/testing.h.
    std::shared_ptr<Backend> backend{};
};

} // namespace msgbus
