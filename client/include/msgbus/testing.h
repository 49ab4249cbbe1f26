#pragma once

#include "msgbus/options.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// For tests of programs that use the bus.

namespace msgbus::testing {

/// The requests that can be made to fail.
enum class Request { Connect, RegisterPublisher, RegisterSubscriber, Push, Receive, Unregister };

/// A bus within the test program, without a server: `msgbus::Publisher` and `msgbus::Subscriber` that get its
/// MakeOptions use it. It keeps to the rules of the real one: one publisher per topic, each value once and in order,
/// nothing from before a subscription but what Options::startWithLast asks for; its inbound queue is full when the test
/// says so. Threads: any.
class __attribute__((visibility("default"))) Bus final {
public:
    Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    /// As Stop.
    ~Bus();

    /// Returns: `options` with this bus in place of a server.
    Options MakeOptions(Options options = {}) const;

    /// Publishes a value as another program would. It need not be registered. While the bus is stopped, the value is
    /// lost.
    void Push(const std::string& topic, std::int64_t value);

    /// The process of the topic's publisher dies, as far as its subscribers see: see Options::onPublisher. Does nothing
    /// when the topic has no publisher.
    void KillPublisher(const std::string& topic);

    /// Makes the next `times` requests of this kind fail: `code` 1 to 10 as the bus's answer, or a negative platform
    /// status such as -3 (the server is gone) or -6 (no answer in time); of Connect only the latter. A push that fails
    /// is not delivered, and a registration that fails not made. A receive that fails may already be waiting. With the
    /// codes 1 and 9 of a receive the bus has unregistered the subscriber, and with -3 the client has lost its
    /// registrations as if the server had died; it finds this bus when it looks for a restarted one.
    /// Throws: std::invalid_argument for another code, and for `times` below 1.
    void FailNext(Request request, std::int32_t code, int times = 1);

    /// The server dies and another one takes its place: every registration and unread value is gone. Clients notice
    /// with their next request; with Options::reconnectFor they register again.
    void Restart();

    /// The server dies.
    void Stop();
    /// The server comes back, as after Restart.
    void Start();

    /// Returns: every value that was accepted for `topic` since construction, in order.
    std::vector<std::int64_t> Pushed(const std::string& topic) const;
    /// Returns: the Options::description of the topic's publisher; empty without either.
    std::string DescriptionOf(const std::string& topic) const;
    /// Returns: how many publishers and subscribers are registered, but for those of Publisher::Subscribers.
    std::size_t RegisteredCount() const;

private:
    class State;
    std::shared_ptr<State> state;
};

} // namespace msgbus::testing
