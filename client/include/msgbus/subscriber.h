#pragma once

#include "msgbus/options.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace msgbus {

/// One value that was published.
struct Message {
    std::string topic; ///< cut to its first 1022 bytes
    std::int64_t value;
};

/// A named receiver of the values of some topics.
///
/// Threads: Next by one thread at a time; Cancel from any thread meanwhile; different subscribers are independent.
/// Lifetime: registered from construction to Cancel or destruction. From then on the bus keeps every value of the
/// topics until Next takes it, without a limit. A process that is killed leaves its subscriber registered until the
/// server ends.
class Subscriber final {
public:
    /// Finds the bus and registers. `name`, which need not be unique, and each topic: 1 to 1023 bytes without NUL.
    /// Throws: std::invalid_argument; RefusedError 8 when a topic is named twice; NoServerError; ServerGoneError;
    /// PlatformError.
    Subscriber(std::string name, std::vector<std::string> topics, Options options = {});
    /// Requires: no Next or Cancel under way on either side.
    Subscriber(Subscriber&&) noexcept;
    Subscriber& operator=(Subscriber&&) noexcept;
    /// Cancels. Requires: no Next under way.
    ~Subscriber();

    /// Takes the next value.
    /// Returns: nothing once canceled.
    /// Throws: RefusedError 1 when somebody else has unregistered this subscriber; ServerGoneError; PlatformError; what
    /// the constructor throws, when a restarted server was found.
    /// Blocks: until a value arrives, Cancel is called or the server is gone.
    std::optional<Message> Next();

    /// Unregisters, which drops the values that were not taken, and ends a blocked Next. Cannot be undone.
    /// Blocks: for the server's reply. Threads: any.
    void Cancel() noexcept;

    const std::string& Name() const noexcept;
    /// The bus-wide id; another one after a reconnection. Threads: any.
    std::int64_t Id() const;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace msgbus
