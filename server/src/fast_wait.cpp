#include "fast_wait.h"

namespace msgbus_server {

namespace {

using cor::ResultCode;

constexpr std::chrono::milliseconds LingerTime{1};
constexpr std::chrono::microseconds QuickGap{200};
constexpr int QuickDeliveriesOfAStream = 4;

} // namespace

ResultCode FastWait::Wait(long subscriberId, std::string& topic, long& message) {
    const bool isDue = IsDueAnyMoment(subscriberId);
    auto result = ready.TryWait(subscriberId, isDue ? LingerTime : LingerTime.zero(), topic, message);
    if (!result) {
        if (isDue) {
            quickDeliveries.store(0, std::memory_order_relaxed); // the stream has ended
        }
        result = blocking.Wait(subscriberId, topic, message);
    }
    if (result == ResultCode::Success) {
        NoteDelivery(subscriberId);
    }
    return *result;
}

bool FastWait::IsDueAnyMoment(long subscriberId) const {
    return linger == Linger::InAStream && lastSubscriber.load(std::memory_order_relaxed) == subscriberId &&
           quickDeliveries.load(std::memory_order_relaxed) >= QuickDeliveriesOfAStream;
}

void FastWait::NoteDelivery(long subscriberId) {
    if (linger == Linger::Never) {
        return;
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto before =
        std::chrono::steady_clock::duration(lastDelivery.exchange(now.count(), std::memory_order_relaxed));
    if (lastSubscriber.exchange(subscriberId, std::memory_order_relaxed) == subscriberId && now - before < QuickGap) {
        quickDeliveries.fetch_add(1, std::memory_order_relaxed);
    } else {
        quickDeliveries.store(0, std::memory_order_relaxed);
    }
}

} // namespace msgbus_server
