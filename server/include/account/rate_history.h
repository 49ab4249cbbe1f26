#pragma once

#include "instruments/account_layout.h"

#include <algorithm>
#include <cstdint>

namespace msgbus_server {

/// Writes how often something had happened at the beginning of each second. Costs a comparison, but for the first time
/// in a second. Threads: one at a time.
class RateHistory final {
public:
    explicit RateHistory(instruments::layout::RateHistory& written) : record(written) {}

    /// It is about to happen at `now`, and had happened `count` times.
    void Note(std::int64_t now, std::uint64_t count) noexcept {
        if (now >= nextSecondAt) {
            Fill(now, count);
        }
    }

    /// Forgets what was noted: from now on it is as if it had happened `count` times for ever.
    void Reset(std::int64_t now, std::uint64_t count) noexcept {
        record.second.store(now / Second - Length, std::memory_order_release);
        Fill(now, count);
    }

private:
    static constexpr std::int64_t Second = 1'000'000'000;
    static constexpr std::int64_t Length = instruments::layout::RateHistory::Seconds;

    void Fill(std::int64_t now, std::uint64_t count) noexcept {
        const std::int64_t second = now / Second;
        const std::int64_t last = record.second.load(std::memory_order_relaxed);
        for (std::int64_t i = std::max(last + 1, second - Length + 1); i <= second; ++i) {
            record.counts[static_cast<std::size_t>(i) % record.counts.size()].store(count, std::memory_order_release);
        }
        record.second.store(second, std::memory_order_release);
        nextSecondAt = (second + 1) * Second;
    }

    instruments::layout::RateHistory& record;
    std::int64_t nextSecondAt = 0;
};

} // namespace msgbus_server
