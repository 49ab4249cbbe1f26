#pragma once

#include "msgbus/error.h"
#include "msgbus/options.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace msgbus {

/// One published value.
struct Message {
    std::string topic;      ///< at most the first 1022 bytes of the publisher's topic
    std::int64_t value = 0; ///< as it was pushed
};

/// How a receive with a time limit ended.
enum class Outcome { Value, TimedOut, Canceled };

/// What a receive with a time limit returns.
struct Received {
    Outcome outcome = Outcome::TimedOut; ///< whether there is a value
    Message message;                     ///< only with Outcome::Value

    /// Returns: whether there is a value.
    explicit operator bool() const noexcept { return outcome == Outcome::Value; }
    /// Returns: the value. Requires: there is one.
    const Message& operator*() const noexcept { return message; }
    /// The same.
    const Message* operator->() const noexcept { return &message; }
};

/// Values that a subscriber has missed, as far as the server has counted them.
struct Loss {
    std::uint64_t values = 0; ///< how many
    /// Why: 0 while the subscriber is registered and has lost nothing or only what a limit of the server dropped; 9
    /// when the server has cut it, see DescribeResult.
    std::int32_t reason = 0;
    /// How often it registered with a restarted server: what was published meanwhile is lost too, and counted nowhere.
    std::uint64_t reconnections = 0;
};

/// A named receiver of the values of some topics.
///
/// Threads: the receiving calls (Next, NextFor, NextUntil, TryNext, a range, Descriptor) on one thread at a time;
/// Cancel, Lost and Id on any thread meanwhile. Different subscribers are independent, and the library starts no
/// thread.
/// Signals: a handler that returns does not end a call. No call may be made from a handler; msgbus/stop_signals.h
/// calls Cancel for SIGINT and SIGTERM.
/// Lifetime: registered from construction to Cancel or destruction, or to the end of the process. While it is
/// registered, the bus queues every value of its topics until it is received, up to the limits of the server
/// (docs/limits.md). After a move, the source may only be destroyed or assigned to.
/// In a child made by fork, Cancel on a subscriber of the parent does nothing, other calls throw ServerGoneError, and
/// its destructor leaves the parent's registration alone; a new subscriber works.
class __attribute__((visibility("default"))) Subscriber final {
public:
    class Iterator;
    /// What ends a loop over a subscriber.
    struct End {};

    /// Connects to the bus and registers. `name`, which need not be unique, and each topic: 1 to 1023 bytes without
    /// NUL.
    /// Throws: std::invalid_argument; RefusedError with code 8 when a topic is named twice, or with another code of the
    /// bus; NoServerError; ServerGoneError; TimedOutError; PlatformError.
    /// Blocks: until the replies; up to Options::connectTimeout for each of two connections, Options::callTimeout for
    /// each request, and as Options::waitForServer allows.
    Subscriber(std::string name, std::vector<std::string> topics, Options options = {});
    /// Takes the registration over. Requires: no call in progress on either side.
    Subscriber(Subscriber&&) noexcept;
    /// Unregisters, as the destructor does, and takes the registration over.
    /// Requires: no call in progress on either side.
    Subscriber& operator=(Subscriber&&) noexcept;
    /// Unregisters; a failure is ignored. A server that does not answer in time is asked again before the next request
    /// of this process. Requires: no call in progress. Blocks: until the reply, up to Options::callTimeout.
    ~Subscriber();

    /// Takes the next value.
    /// Returns: the value; nothing after Cancel.
    /// Throws: RefusedError with code 1 when another client has unregistered this subscriber, with code 9 when the
    /// server has cut it because it left too many values unread, or with another code of the bus; ServerGoneError;
    /// PlatformError; after a reconnection, what the constructor throws. Blocks: until a value arrives, Cancel is
    /// called or the server is gone; then as Options::reconnectFor allows.
    std::optional<Message> Next();

    /// The same, for a time. A value that arrives later is not lost: the next receiving call returns it.
    /// Returns: a value, Outcome::TimedOut or Outcome::Canceled. Resolution: milliseconds, rounded up.
    /// Blocks: for that time; while Options::reconnectFor looks for a restarted server, as TryNext longer.
    Received NextFor(std::chrono::nanoseconds duration);
    /// The same, until a point in time.
    Received NextUntil(Deadline deadline);

    /// The same, without waiting for a value.
    /// Blocks: not for a value; while Options::reconnectFor looks for a restarted server, up to 0.1 s per attempt.
    Received TryNext();

    /// Gives a descriptor for poll, epoll or an event loop. It is readable when TryNext would return a value or
    /// Outcome::Canceled, throw, or report something (Options::onPublisher), and stays readable until TryNext has
    /// returned Outcome::TimedOut. It may be readable without a reason: TryNext then returns Outcome::TimedOut. It
    /// stays the same over reconnections. It must not be read, written or closed. Returns: the descriptor, which lives
    /// as long as the subscriber. Throws: as TryNext.
    int Descriptor();

    /// Iterates over Next: `for (const auto& [topic, value] : subscriber)` ends after Cancel. One loop at a time.
    Iterator begin();
    /// Returns: what ends such a loop.
    End end() const noexcept { return {}; }

    /// Unregisters, drops the values that were not taken, and ends a blocked receiving call. Cannot be undone.
    /// Blocks: until the reply, up to Options::callTimeout. Threads: any.
    void Cancel() noexcept;

    /// Returns: what this subscriber has missed, as far as the last value that it has received shows. Threads: any.
    Loss Lost() const;

    /// Returns: the name as the constructor got it.
    const std::string& Name() const noexcept;
    /// Returns: the id on the bus, a new one after a reconnection; -1 after Cancel. Threads: any.
    std::int64_t Id() const;

private:
    class State;
    std::unique_ptr<State> state;
};

/// An input iterator over the values that a subscriber receives.
class Subscriber::Iterator final {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Message;
    using difference_type = std::ptrdiff_t;
    using pointer = const Message*;
    using reference = const Message&;

    explicit Iterator(Subscriber& source) : subscriber(&source), message(source.Next()) {}

    reference operator*() const noexcept { return *message; }
    pointer operator->() const noexcept { return &*message; }
    Iterator& operator++() {
        message = subscriber->Next();
        return *this;
    }
    void operator++(int) { ++*this; }

    friend bool operator==(const Iterator& iterator, End) noexcept { return !iterator.message; }
    friend bool operator!=(const Iterator& iterator, End) noexcept { return iterator.message.has_value(); }

private:
    Subscriber* subscriber;
    std::optional<Message> message;
};

inline Subscriber::Iterator Subscriber::begin() {
    return Iterator(*this);
}

} // namespace msgbus
