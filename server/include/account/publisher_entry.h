#pragma once

#include "account/rate_history.h"
#include "instruments/account_layout.h"

#include <cstdint>

namespace msgbus_server {

/// Writes the account of one publisher slot. Threads: one at a time.
class PublisherEntry final {
public:
    explicit PublisherEntry(instruments::layout::Publisher& written)
        : slot(written), flow(written.flow.Read()), rates(written.rates) {}

    /// A value was accepted that was pushed at `now`, in nanoseconds of CLOCK_MONOTONIC.
    void NoteAccepted(std::int64_t value, std::int64_t now, bool hasSubscriber) noexcept;
    /// The value that was noted last was not accepted after all. Its place as the last value is lost.
    void Retract(bool hadSubscriber) noexcept;
    void NoteRefused() noexcept {
        slot.refusedFull.store(slot.refusedFull.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    /// A new publisher begins, of the same topic or of another one.
    void Begin(std::int64_t now, bool isSameTopic) noexcept;

    const instruments::layout::PublisherFlow& Flow() const noexcept { return flow; }
    instruments::layout::Publisher& Slot() noexcept { return slot; }

private:
    instruments::layout::Publisher& slot;
    instruments::layout::PublisherFlow flow;
    RateHistory rates;
    bool hasPredecessor = false; ///< the next value is not the first of this publisher
};

} // namespace msgbus_server
