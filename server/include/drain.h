#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace message_bus {
class MessageBus;
struct Subscriber;
} // namespace message_bus

namespace msgbus_server {

class ParkedWaits;

/// What clients have not read.
struct Unread {
    std::size_t values = 0;
    std::size_t subscribers = 0; ///< that have such values
    bool isInboundEmpty = true;  ///< false: values that no subscriber's queue has got yet are not counted
    bool IsNothing() const noexcept { return isInboundEmpty && values == 0; }
};

/// Waits until subscribers have read what was pushed, while nothing is registered or pushed any more.
/// Threads: all on the same one.
class Drain final {
public:
    /// `parkedWaits`: null when waits block in the bus. `subscribers`: the ids of all that count. Lifetime: `servedBus`
    /// and `parkedWaits` must outlive this object.
    Drain(message_bus::MessageBus& servedBus, ParkedWaits* parkedWaits, std::vector<long> subscribers);
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;
    ~Drain();

    /// `isCanceled` waits for the given time, and returns whether the drain is to end.
    /// Returns: what was left. Blocks: until nothing is, until `isCanceled` returns true, or for about `limit`.
    Unread Run(std::chrono::steady_clock::duration limit,
               const std::function<bool(std::chrono::steady_clock::duration)>& isCanceled);

private:
    Unread Count();
    std::size_t CountOf(long subscriberId);

    message_bus::MessageBus& bus;
    ParkedWaits* const waits;
    const std::vector<long> ids;
    /// Those that have not waited: the bus looks for each among all, so it is asked once.
    std::map<long, std::shared_ptr<message_bus::Subscriber>> found;
};

} // namespace msgbus_server
