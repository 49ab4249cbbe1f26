#pragma once

#include "msgbus/options.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace msgbus {

/// One published value.
struct Message {
    std::string topic; ///< at most the first 1022 bytes of the publisher's topic
    std::int64_t value;
};

/// A named receiver of the values of some topics.
///
/// Threads: Next on one thread at a time, Cancel and Id on any thread meanwhile. Different subscribers are independent.
/// Lifetime: registered from construction to Cancel or destruction, or to the end of the process. While it is
/// registered, the bus queues every value of its topics until Next takes it, up to the limits of the server
/// (docs/limits.md). After a move, the source may only be destroyed or assigned to.
class Subscriber final {
public:
    /// Connects to the bus and registers. `name`, which need not be unique, and each topic: 1 to 1023 bytes without
    /// NUL. Throws: std::invalid_argument; RefusedError with code 8 when a topic is named twice, or with another code
    /// of the bus; NoServerError; ServerGoneError; PlatformError. Blocks: until the replies; up to
    /// Options::connectTimeout for each of two connections.
    Subscriber(std::string name, std::vector<std::string> topics, Options options = {});
    /// Requires: no call in progress on either side.
    Subscriber(Subscriber&&) noexcept;
    Subscriber& operator=(Subscriber&&) noexcept;
    /// Unregisters; a failure is ignored. Requires: no call in progress. Blocks: until the reply.
    ~Subscriber();

    /// Takes the next value.
    /// Returns: the value; nothing after Cancel.
    /// Throws: RefusedError with code 1 when another client has unregistered this subscriber, with code 9 when the
    /// server has cut it because it left too many values unread, or with another code of the bus; ServerGoneError;
    /// PlatformError; after a reconnection, what the constructor throws. Blocks: until a value arrives, Cancel is
    /// called or the server is gone; then as Options::reconnectFor allows.
    std::optional<Message> Next();

    /// Unregisters, drops the values that were not taken, and ends a blocked Next. Cannot be undone.
    /// Blocks: until the reply. Threads: any.
    void Cancel() noexcept;

    /// Returns: how many values the server has dropped because this subscriber had not taken them in time, as far as
    /// the last Next shows. Threads: any.
    std::uint64_t Lost() const;

    const std::string& Name() const noexcept;
    /// Returns: the id on the bus, a new one after a reconnection; -1 after Cancel.
    /// Blocks: while Cancel does. Threads: any.
    std::int64_t Id() const;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace msgbus
