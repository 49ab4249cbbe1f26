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

    /// The values of a subscriber of `caller` take `now` bytes, and took `before`. Returns: what is exceeded now.
    Exceeded Change(std::uint64_t caller, std::size_t before, std::size_t now);

    std::size_t MostOfCaller() const noexcept { return mostOfCaller; }
    std::size_t MostOfAll() const noexcept { return mostOfAll; }

private:
    const std::size_t mostOfCaller;
    const std::size_t mostOfAll;

    common::Mutex mutex;
    std::unordered_map<std::uint64_t, std::size_t> ofCallers GUARDED_BY(mutex); ///< none is 0
    std::size_t total GUARDED_BY(mutex) = 0;
};

} // namespace msgbus_server
