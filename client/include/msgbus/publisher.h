#pragma once

#include "msgbus/options.h"

#include <cstdint>
#include <memory>
#include <string>

namespace msgbus {

/// The only publisher of a topic.
///
/// Threads: one call at a time. Different publishers are independent.
/// Lifetime: registered from construction to Close or destruction, or to the end of the process. After a move, the
/// source may only be destroyed or assigned to.
class Publisher final {
public:
    /// Connects to the bus and registers as the publisher of `topic`: 1 to 1023 bytes without NUL. Subscribers receive
    /// at most its first 1022 bytes.
    /// Throws: std::invalid_argument; RefusedError with code 8 when the topic already has a publisher, or with another
    /// code of the bus; NoServerError; ServerGoneError; PlatformError.
    /// Blocks: until the replies; up to Options::connectTimeout for each of two connections.
    explicit Publisher(std::string topic, Options options = {});
    Publisher(Publisher&&) noexcept;
    Publisher& operator=(Publisher&&) noexcept;
    /// Unregisters; a failure is ignored. Blocks: until the reply.
    ~Publisher();

    /// Publishes `value`: returns when the bus has queued it for delivery. Retries while the bus is full.
    /// Throws: RefusedError with code 2 when the bus stays full for Options::fullQueueTimeout, or with another code of
    /// the bus; ServerGoneError; PlatformError; after a reconnection, what the constructor throws.
    /// Blocks: until the reply, and as Options::fullQueueTimeout and Options::reconnectFor allow.
    void Push(std::int64_t value);

    /// Publishes `value` unless the bus is full.
    /// Returns: true when the value is queued, false when the bus is full.
    /// Throws: as Push, except for code 2. Blocks: until the reply, and as Options::reconnectFor allows.
    [[nodiscard]] bool TryPush(std::int64_t value);

    /// Unregisters. A later Push or TryPush throws PlatformError.
    /// Throws: RefusedError with code 8 when another client has unregistered this publisher, or with another code of
    /// the bus; ServerGoneError; PlatformError.
    /// Blocks: until the reply.
    void Close();

    const std::string& Topic() const noexcept;
    /// Returns: the id on the bus, a new one after a reconnection; -1 when not registered.
    std::int64_t Id() const noexcept;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace msgbus
