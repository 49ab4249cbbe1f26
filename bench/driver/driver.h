#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace bench {

/// A bus that failed. The message goes into the report.
class DriverError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One publishing connection.
/// Threads: one at a time.
class IPublisher {
public:
    virtual ~IPublisher() = default;

    /// Hands `value` to the bus.
    /// Returns: true when the bus has acknowledged it, false when the bus refused it for lack of room.
    /// Blocks: until the acknowledgement.
    [[nodiscard]] virtual bool Publish(std::int64_t value) = 0;
};

/// Publishes `value` until the bus accepts it, and counts the refusals.
inline void PublishSurely(IPublisher& publisher, std::int64_t value, std::int64_t& refused) {
    while (!publisher.Publish(value)) {
        ++refused;
        std::this_thread::yield();
    }
}

/// One subscribing connection.
/// Threads: one at a time.
class ISubscriber {
public:
    virtual ~ISubscriber() = default;

    /// Returns: the next value in the order in which the bus delivers. Blocks: until there is one.
    virtual std::int64_t Next() = 0;
};

/// The client side of one bus. Every failure is a DriverError.
class IDriver {
public:
    virtual ~IDriver() = default;

    /// Connects the publisher of topic number `topic`.
    virtual std::unique_ptr<IPublisher> MakePublisher(int topic) = 0;

    /// Connects a subscriber of the topics 0 to `topics` - 1.
    /// Blocks: until the bus is certain to deliver every value published from now on.
    virtual std::unique_ptr<ISubscriber> MakeSubscriber(int topics) = 0;
};

/// The name of topic number `topic`, for a bus that needs names.
inline std::string TopicName(int topic) {
    return "bench." + std::to_string(topic);
}

/// Makes the driver of the server at `address`, which has the form that `start` in harness/systems.py returns.
using MakeDriver = std::function<std::unique_ptr<IDriver>(const std::string& address)>;

/// The body of every driver's main: `publish` or `subscribe`, or these `-on-schedule`, see bench/README.md.
/// Returns: the exit code of the process.
int RunDriver(const MakeDriver& makeDriver, int argc, char** argv);

} // namespace bench
