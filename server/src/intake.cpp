#include "intake.h"

#include <algorithm>
#include <utility>

namespace msgbus_server {

using cor::ResultCode;

namespace {

/// Below this many subscribers the bus's own limit comes first.
constexpr std::size_t LeastCrowd = Intake::MostLooks / 1025;

} // namespace

Intake::Intake(common::Mutex& pushTurn, message_bus::IProvider& publisher, const message_bus::MessageBus& observed,
               std::function<std::size_t()> subscriberCount, RefusalAction refusalAction,
               std::function<Clock::time_point()> time)
    : turn(pushTurn), provider(publisher), bus(observed), subscribers(std::move(subscriberCount)),
      noteRefusal(std::move(refusalAction)), now(std::move(time)) {}

ResultCode Intake::Push(long publisherId, long message) {
    if (isClosed.load(std::memory_order_relaxed) || IsHeld() || !HasRoom()) {
        if (noteRefusal) {
            noteRefusal(publisherId);
        }
        return ResultCode::Exhausted;
    }
    return provider.Push(publisherId, message);
}

void Intake::Close() noexcept {
    const common::MutexLock lock(turn);
    isClosed.store(true, std::memory_order_relaxed);
}

void Intake::HoldFor(Clock::duration duration) noexcept {
    heldUntil.store((now() + duration).time_since_epoch().count(), std::memory_order_relaxed);
}

bool Intake::IsHeld() noexcept {
    auto until = heldUntil.load(std::memory_order_relaxed);
    if (until == 0) {
        return false;
    }
    if (now().time_since_epoch().count() < until) {
        return true;
    }
    heldUntil.compare_exchange_strong(until, 0, std::memory_order_relaxed);
    return false;
}

bool Intake::HasRoom() const {
    const std::size_t count = subscribers();
    return count <= LeastCrowd || bus.InboundSize() < std::max(MostLooks / count, LeastBacklog);
}

} // namespace msgbus_server
