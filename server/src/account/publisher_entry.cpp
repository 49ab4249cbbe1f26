#include "account/publisher_entry.h"

#include <algorithm>

namespace msgbus_server {

using instruments::layout::PublisherFlow;

void PublisherEntry::NoteAccepted(std::int64_t value, std::int64_t now, bool hasSubscriber) noexcept {
    rates.Note(now, flow.accepted);
    ++flow.accepted;
    flow.withoutSubscriber += hasSubscriber ? 0 : 1;
    if (hasPredecessor) {
        const std::int64_t gap = now - flow.lastAt;
        flow.smallestGap = std::min(flow.smallestGap, gap);
        flow.largestGap = std::max(flow.largestGap, gap);
    }
    hasPredecessor = true;
    flow.lastValue = value;
    flow.lastAt = now;
    slot.flow.Write(flow);
}

void PublisherEntry::Retract(bool hadSubscriber) noexcept {
    --flow.accepted;
    flow.withoutSubscriber -= hadSubscriber ? 0 : 1;
    flow.lastAt = instruments::layout::NoTime;
    hasPredecessor = false;
    slot.flow.Write(flow);
}

void PublisherEntry::Begin(std::int64_t now, bool isSameTopic) noexcept {
    const PublisherFlow none;
    flow.smallestGap = none.smallestGap;
    flow.largestGap = none.largestGap;
    if (!isSameTopic) {
        flow.lastAt = none.lastAt;
    }
    hasPredecessor = false;
    rates.Reset(now, flow.accepted);
    slot.flow.Write(flow);
}

} // namespace msgbus_server
