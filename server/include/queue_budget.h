#pragma once

#include "common/mutex.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace msgbus_server {

/// The memory that unread values take: of each caller, and all together. Threads: any.
class QueueBudget final {
public:
    enum class Exceeded { Nothing, OfCaller, Total };

    QueueBudget(std::size_t ofEachCaller, std::size_t ofAll) : mostOfCaller(ofEachCaller), mostOfAll(ofAll) {}

    /// The values of a subscriber of `caller` take `now` bytes, and took `before`. Returns: what is exceeded by more
    /// now; nothing while the same was returned before and is not acknowledged.
    Exceeded Change(std::uint64_t caller, std::size_t before, std::size_t now);

    /// What Change has returned is about to be acted on, and may be returned again.
    void Acknowledge(Exceeded what, std::uint64_t caller);

    std::size_t MostOfCaller() const noexcept { return mostOfCaller; }
    std::size_t MostOfAll() const noexcept { return mostOfAll; }

private:
    struct Usage {
        std::size_t bytes = 0;
        bool isReported = false; ///< that it is too much, and not yet acknowledged
    };

    const std::size_t mostOfCaller;
    const std::size_t mostOfAll;

    common::Mutex mutex;
    std::unordered_map<std::uint64_t, Usage> ofCallers GUARDED_BY(mutex); ///< none has 0 bytes
    Usage total GUARDED_BY(mutex);
};

} // namespace msgbus_server
