#pragma once

#include "msgbus/error.h"
#include "msgbus/options.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#if __cplusplus >= 202002L
#include <span>
#endif

namespace msgbus {

/// The only publisher of a topic.
///
/// Threads: one call at a time. Different publishers are independent.
/// Signals: a handler that returns does not end a call. No call may be made from a handler.
/// Lifetime: registered from construction to Close or destruction, or to the end of the process. After a move, the
/// source may only be destroyed or assigned to.
/// In a child made by fork, every call on a publisher of the parent throws ServerGoneError, and its destructor leaves
/// the parent's registration alone; a new publisher works.
class __attribute__((visibility("default"))) Publisher final {
public:
    /// Connects to the bus and registers as the publisher of `topic`: 1 to 1023 bytes without NUL. Subscribers receive
    /// at most its first 1022 bytes.
    /// Throws: std::invalid_argument; RefusedError with code 8 when the topic already has a publisher, or with another
    /// code of the bus; NoServerError; ServerGoneError; TimedOutError; PlatformError.
    /// Blocks: until the replies; up to Options::connectTimeout for each of two connections, Options::callTimeout for
    /// the request, and as Options::waitForServer and Options::waitForTopic allow.
    explicit Publisher(std::string topic, Options options = {});
    /// Takes the registration over.
    Publisher(Publisher&&) noexcept;
    /// Unregisters, as the destructor does, and takes the registration over.
    Publisher& operator=(Publisher&&) noexcept;
    /// Unregisters; a failure is ignored. A server that does not answer in time is asked again before the next request
    /// of this process. Blocks: until the reply, up to Options::callTimeout.
    ~Publisher();

    /// Publishes `value`: returns when the bus has queued it for delivery. Retries while the bus is full.
    /// Throws: RefusedError with code 2 when the bus stays full for Options::fullQueueTimeout, or with another code of
    /// the bus; TimedOutError; ServerGoneError; PlatformError, also after Close; after a reconnection, what the
    /// constructor throws.
    /// Blocks: until the reply, up to Options::callTimeout, and as Options::fullQueueTimeout and Options::reconnectFor
    /// allow.
    void Push(std::int64_t value);

    /// The same, with `deadline` in place of the three times. One that has passed gives the bus one try, which is not
    /// waited for if it is not answered at once.
    void Push(std::int64_t value, Deadline deadline);

    /// Publishes `value` unless the bus is full.
    /// Returns: true when the value is queued, false when the bus is full.
    /// Throws: as Push, except for code 2.
    /// Blocks: until the reply, up to Options::callTimeout, and as Options::reconnectFor allows.
    [[nodiscard]] bool TryPush(std::int64_t value);

    /// Publishes `count` values, each as Push does.
    /// Returns: how many the bus has queued, always the first ones, in order. Fewer than `count` when the bus stayed
    /// full, or when another failure followed the first value: the next call of this publisher throws it then.
    /// Throws: as Push, for the first value, except for code 2. Blocks: as Push, for each value.
    std::size_t PushAll(const std::int64_t* values, std::size_t count);
    /// The same, with `deadline` for all of them.
    std::size_t PushAll(const std::int64_t* values, std::size_t count, Deadline deadline);
#if __cplusplus >= 202002L
    /// The same for a span.
    std::size_t PushAll(std::span<const std::int64_t> values) {
        return PushAll(values.data(), values.size());
    }
    /// The same for a span, with `deadline` for all of its values.
    std::size_t PushAll(std::span<const std::int64_t> values, Deadline deadline) {
        return PushAll(values.data(), values.size(), deadline);
    }
#endif

    /// Waits until no push of this publisher is unanswered: one that ended with TimedOutError may still be under way.
    /// Returns: false at the deadline.
    /// Throws: ServerGoneError, and then does not know the outcome; PlatformError.
    [[nodiscard]] bool Drain(Deadline deadline);

    /// Asks how many subscribers the topic has. The first call, if there is no Options::onSubscribers, makes a
    /// connection and a registration for this, of which the server counts one as that of a subscriber; every later one
    /// takes what has arrived meanwhile, and so may lag behind for as long as a value takes. Returns: the number.
    /// Throws: as the constructor; std::invalid_argument for a topic of more than 1021 bytes; PlatformError when the
    /// server does not count subscribers. Blocks: the first call as the constructor; later ones while
    /// Options::reconnectFor looks for a restarted server, up to 0.1 s.
    std::size_t Subscribers();

    /// Unregisters. Afterwards every other call throws PlatformError; a second Close does nothing.
    /// Throws: RefusedError with code 8 when another client has unregistered this publisher, or with another code of
    /// the bus; TimedOutError; ServerGoneError; PlatformError.
    /// Blocks: until the reply, up to Options::callTimeout.
    void Close();

    /// Returns: the topic as the constructor got it.
    const std::string& Topic() const noexcept;
    /// Returns: the id on the bus, a new one after a reconnection; -1 when not registered.
    std::int64_t Id() const noexcept;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace msgbus
