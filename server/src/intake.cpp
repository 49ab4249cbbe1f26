#include "intake.h"

#include <algorithm>
#include <utility>

namespace msgbus_server {

using cor::ResultCode;

namespace {

/// Below this many subscribers the bus's own limit comes first.
constexpr std::size_t LeastCrowd = Intake::MostLooks / 1025;

} // namespace

Intake::Intake(message_bus::IProvider& publisher, const message_bus::MessageBus& observed,
               std::function<std::size_t()> subscriberCount, std::function<Clock::time_point()> time)
    : provider(publisher), bus(observed), subscribers(std::move(subscriberCount)), now(std::move(time)) {}

ResultCode Intake::Push(long publisherId, long message) {
    struct Service {
        explicit Service(std::atomic<std::uint32_t>& services) : count(services) { ++count; }
        ~Service() {
            if (--count == 0) {
                count.notify_all();
            }
        }
        std::atomic<std::uint32_t>& count;
    };
    const Service service(inService);
    if (isClosed || IsHeld() || !HasRoom()) {
        return ResultCode::Exhausted;
    }
    return provider.Push(publisherId, message);
}

void Intake::Close() noexcept {
    isClosed = true;
    while (const std::uint32_t count = inService) {
        inService.wait(count);
    }
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
