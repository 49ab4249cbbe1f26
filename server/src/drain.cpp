#include "drain.h"

#include "message_bus.h"
#include "parked_waits.h"
#include "wake_events_thread.h"

#include <utility>

namespace msgbus_server {

namespace {

using message_bus::InboundState;

constexpr std::chrono::milliseconds TimeBetweenLooks{10};
constexpr long NoId = -1;

} // namespace

Drain::Drain(message_bus::MessageBus& servedBus, ParkedWaits* parkedWaits, std::vector<long> subscribers)
    : bus(servedBus), waits(parkedWaits), ids(std::move(subscribers)) {}

Drain::~Drain() = default;

Unread Drain::Run(std::chrono::steady_clock::duration limit,
                  const std::function<bool(std::chrono::steady_clock::duration)>& isCanceled) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    Unread left = Count();
    while (!left.IsNothing() && std::chrono::steady_clock::now() < deadline && !isCanceled(TimeBetweenLooks)) {
        if (!left.isInboundEmpty) {
            WakeEventsThread(bus);
        }
        left = Count();
    }
    return left;
}

Unread Drain::Count() {
    Unread left;
    left.isInboundEmpty = bus.Inbound() == InboundState::Empty;
    // The events thread holds the lock on the subscribers until the last value is in their queues.
    static_cast<void>(bus.GetSubscriberPtrById(NoId));
    for (const long id : ids) {
        if (const std::size_t count = CountOf(id); count != 0) {
            left.values += count;
            ++left.subscribers;
        }
    }
    return left;
}

std::size_t Drain::CountOf(long subscriberId) {
    if (const auto count = waits != nullptr ? waits->Unread(subscriberId) : std::nullopt) {
        found.erase(subscriberId);
        return *count;
    }
    auto [place, isNew] = found.try_emplace(subscriberId);
    if (isNew) {
        place->second = bus.GetSubscriberPtrById(subscriberId);
    }
    auto& subscriber = place->second;
    if (subscriber && subscriber->queue.IsCanceled()) {
        subscriber.reset(); // unregistered meanwhile: its values are gone with it
    }
    return subscriber ? subscriber->queue.Size() : 0;
}

} // namespace msgbus_server
