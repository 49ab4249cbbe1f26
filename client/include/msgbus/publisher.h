#pragma once

#include "msgbus/options.h"

#include <cstdint>
#include <memory>
#include <string>

namespace msgbus {

/// The one publisher of a topic.
///
/// Threads: one at a time; different publishers are independent.
/// Lifetime: registered from construction to Close or destruction. A process that is killed leaves its topic taken
/// until the server ends.
class Publisher final {
public:
    /// Finds the bus and registers as the publisher of `topic`: 1 to 1023 bytes without NUL. Subscribers see at most
    /// its first 1022 bytes. Throws: std::invalid_argument; RefusedError 8 when the topic has a publisher;
    /// NoServerError; ServerGoneError; PlatformError.
    explicit Publisher(std::string topic, Options options = {});
    Publisher(Publisher&&) noexcept;
    Publisher& operator=(Publisher&&) noexcept;
    /// Unregisters; a failure to do so is dropped.
    ~Publisher();

    /// Publishes `value` and returns when the bus has it. Tries again while the bus is full.
    /// Throws: RefusedError 2 when it stayed full for Options::fullQueueTimeout; ServerGoneError; PlatformError; what
    /// the constructor throws, when a restarted server was found. Blocks: for the reply, and as the options allow.
    void Push(std::int64_t value);

    /// Publishes `value` unless the bus is full.
    /// Returns: false when it is. Throws: as Push.
    [[nodiscard]] bool TryPush(std::int64_t value);

    /// Unregisters. Nothing but destruction may follow.
    /// Throws: RefusedError 8 when somebody else has unregistered this publisher; ServerGoneError; PlatformError.
    void Close();

    const std::string& Topic() const noexcept;
    /// The bus-wide id; another one after a reconnection.
    std::int64_t Id() const noexcept;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace msgbus
