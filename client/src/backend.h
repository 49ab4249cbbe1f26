#pragma once

#include "msgbus/options.h"
#include "msgbus/subscriber.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// What publishers and subscribers need of a bus: a server (server_backend.h), or a double for tests.
//
// A status is 0, a result code of the bus (1 to 10) or a negative platform status (kn/status.h). Of the latter,
// KnStatusTimedOut says that a request was not answered in time, so that its outcome is unknown; KnStatusBusy that it
// was not sent, because an earlier one is still unanswered; KnStatusClosed that the server is gone.

namespace msgbus {

inline constexpr std::uint32_t Forever = 0xFFFFFFFF; ///< as a time-out in milliseconds

/// Registrations with one server. Threads: any.
class IControl {
public:
    virtual ~IControl() = default;

    virtual std::int32_t RegisterPublisher(const std::string& topic, std::chrono::milliseconds timeout,
                                           std::int64_t& id) = 0;

    /// `refused`: the topic that was refused, if it was one. A registration that fails half-way leaves nothing behind.
    virtual std::int32_t RegisterSubscriber(const std::string& name, const std::vector<std::string>& topics,
                                            std::chrono::milliseconds timeout, std::int64_t& id,
                                            std::string& refused) = 0;

    /// A server that has lately not answered in time is not waited for: the request is sent before the next one.
    virtual std::int32_t UnregisterPublisher(std::int64_t id, std::chrono::milliseconds timeout) noexcept = 0;
    virtual std::int32_t UnregisterSubscriber(std::int64_t id, std::chrono::milliseconds timeout) noexcept = 0;
};

/// The pushes of one publisher. Threads: one at a time.
class IPusher {
public:
    virtual ~IPusher() = default;

    virtual std::int32_t Push(std::int64_t id, std::int64_t value, std::uint32_t timeoutMs) noexcept = 0;

    /// Waits for the answer to a push that was not answered in time. Returns: 0 when there is none; else the status.
    virtual std::int32_t Drain(std::uint32_t timeoutMs) noexcept = 0;
};

/// The waits of one subscriber. Threads: one at a time; Lost and Close on any thread meanwhile.
class IReceiver {
public:
    virtual ~IReceiver() = default;

    /// Takes the next value. After KnStatusTimedOut the wait goes on: a later call returns what it brings.
    virtual std::int32_t Receive(std::int64_t id, std::uint32_t timeoutMs, Message& message) = 0;

    /// The descriptor, see Subscriber::Descriptor.
    virtual std::int32_t Descriptor(int& descriptor) noexcept = 0;
    /// Takes the descriptor of a receiver that has lost its server over. Requires: no call on this one before.
    virtual std::int32_t TakeDescriptorOf(IReceiver& former) noexcept = 0;
    /// Of a receiver that has lost its server: makes the descriptor readable in `afterMs` milliseconds, not before.
    virtual std::int32_t WakeDescriptor(std::uint32_t afterMs) noexcept = 0;

    /// What the server has counted for this receiver; also after it is gone.
    virtual Loss Lost() noexcept = 0;

    /// Ends a Receive in progress and every later one with KnStatusClosed.
    virtual void Close() noexcept = 0;
};

struct PublisherLinks {
    std::shared_ptr<IControl> control;
    std::unique_ptr<IPusher> pusher;
};

struct SubscriberLinks {
    std::shared_ptr<IControl> control;
    std::unique_ptr<IReceiver> receiver;
};

/// A bus. Threads: any.
class Backend {
public:
    virtual ~Backend() = default;

    /// Connects to the server.
    /// Throws: NoServerError, ServerGoneError, PlatformError. Blocks: up to `timeout` for each of two connections.
    virtual PublisherLinks ConnectPublisher(std::chrono::milliseconds timeout) = 0;
    virtual SubscriberLinks ConnectSubscriber(std::chrono::milliseconds timeout) = 0;

    /// A publisher of this process has been registered; `description`: see Options::description. Blocks: never.
    virtual void Declare(const std::string& topic, const std::string& description) noexcept = 0;
};

} // namespace msgbus
