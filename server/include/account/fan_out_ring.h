#pragma once

#include "instruments/account_layout.h"

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>

namespace msgbus_server {

/// What the events thread will do, in the order in which it will: for each accepted value with subscribers, how many
/// copies it will put into queues. The subscribers do not change while a value is in the inbound queue (AccountedBus),
/// so each copy that is reported belongs to the first value that lacks one.
///
/// No lock: an entry is written before its value is pushed and read when a copy of it is reported, and the locks of the
/// bus's own queue order the two. The ring is longer than that queue, so no entry is replaced before it was read.
class FanOutRing final {
public:
    /// Lifetime: `written` must outlive this object.
    explicit FanOutRing(instruments::Twin<instruments::layout::FanOutTotals>& written) : record(written) {}

    // Of the thread that pushes.

    /// Adds the next value. `index`: its number among all accepted values, from 1. Requires: copies != 0.
    void Put(std::uint32_t copies, std::uint64_t index, std::int64_t pushedAt) noexcept {
        entries[tail++ % Size] = {copies, index, pushedAt};
    }
    /// Takes back the last one: its push has failed.
    void Retract() noexcept { --tail; }

    /// Returns: what the events thread has done so far.
    instruments::layout::FanOutTotals Totals() const noexcept { return record.Read(); }

    // Of the events thread.

    /// Returns: when the value was pushed whose copies are being put into queues.
    std::int64_t PushedAt() const noexcept { return entries[head % Size].pushedAt; }
    /// Returns: its number among all accepted values.
    std::uint64_t Index() const noexcept { return entries[head % Size].index; }
    /// Returns: how many copies of it there are.
    std::uint32_t Copies() const noexcept { return entries[head % Size].copies; }

    /// One more copy is in its queue. Returns: whether it was the last one of its value.
    bool NoteCopy() noexcept {
        const Entry& entry = entries[head % Size];
        if (++copiesDone < entry.copies) {
            return false;
        }
        copiesDone = 0;
        ++head;
        ++totals.left;
        ++totals.fannedOut;
        totals.leftIndex = entry.index;
        record.Write(totals);
        return true;
    }

private:
    static constexpr std::size_t Size = 2048; ///< more than the inbound queue holds
    struct Entry {
        std::uint32_t copies = 0;
        std::uint64_t index = 0;
        std::int64_t pushedAt = 0;
    };

    instruments::Twin<instruments::layout::FanOutTotals>& record;
    std::array<Entry, Size> entries{};

    alignas(64) std::uint64_t tail = 0; ///< of the thread that pushes

    alignas(64) std::uint64_t head = 0; ///< of the events thread, as all below
    std::uint32_t copiesDone = 0;
    instruments::layout::FanOutTotals totals;
};

} // namespace msgbus_server
