#include "parked_waits.h"

#include "kn/status.h"
#include "message_bus.h"
#include "subscriber_waits.h"

#include <exception>
#include <utility>

namespace msgbus_server {

using cor::ResultCode;
using message_bus::MessageBus;

namespace {

constexpr long NoId = -1;

} // namespace

ParkedWaits::~ParkedWaits() {
    decltype(waiting) left;
    {
        const common::MutexLock lock(mutex);
        left.swap(waiting);
    }
    for (const auto& [id, waits] : left) {
        waits->Unfollow();
    }
    // Queues change under the bus's lock on the subscribers: behind it, no change is left that still calls a listener.
    static_cast<void>(bus.GetSubscriberPtrById(NoId));
}

ResultCode ParkedWaits::Wait(long subscriberId, std::string& topic, long& message) {
    std::shared_ptr<SubscriberWaits> waits;
    try {
        waits = FindOrAdd(subscriberId);
    } catch (const std::exception& error) {
        MessageBus::BeginWait(subscriberId);
        return MessageBus::FailWait(error);
    }
    if (!waits) {
        return bus.Wait(subscriberId, topic, message); // which refuses it
    }
    NkDeferredReply reply;
    if (NkDeferReply(&reply) != KnStatusOk) {
        return WaitInTheBus(*waits, subscriberId, topic, message);
    }
    // From here on the reply is owed by this object, whatever happens. A second answer would not be sent.
    try {
        MessageBus::BeginWait(subscriberId);
        if (!waits->Park(reply) && !bus.GetSubscriberPtrById(subscriberId)) {
            Forget(subscriberId); // it may have been added behind the cancel, which then did not report to it
        }
    } catch (const std::exception& error) {
        SubscriberWaits::Fail(reply, error);
    } catch (...) {
        SubscriberWaits::Refuse(reply, ResultCode::Failed);
        throw; // as from the bus
    }
    return ResultCode::Success;
}

std::optional<std::size_t> ParkedWaits::Unread(long subscriberId) {
    std::shared_ptr<SubscriberWaits> waits;
    {
        const common::MutexLock lock(mutex);
        if (const auto found = waiting.find(subscriberId); found != waiting.end()) {
            waits = found->second;
        }
    }
    return waits ? std::optional(waits->Unread()) : std::nullopt;
}

/// Returns: null when the bus does not know the subscriber.
std::shared_ptr<SubscriberWaits> ParkedWaits::FindOrAdd(long subscriberId) {
    {
        const common::MutexLock lock(mutex);
        if (const auto found = waiting.find(subscriberId); found != waiting.end()) {
            return found->second;
        }
    }
    auto subscriber = bus.GetSubscriberPtrById(subscriberId);
    if (!subscriber) {
        return nullptr;
    }
    auto added = std::make_shared<SubscriberWaits>(
        std::move(subscriber), [this, subscriberId] { Forget(subscriberId); }, onDelivery);
    const common::MutexLock lock(mutex);
    const auto [place, isNew] = waiting.try_emplace(subscriberId, std::move(added));
    if (isNew) {
        place->second->Follow();
    }
    return place->second;
}

void ParkedWaits::Forget(long subscriberId) {
    std::shared_ptr<SubscriberWaits> gone;
    {
        const common::MutexLock lock(mutex);
        if (const auto found = waiting.find(subscriberId); found != waiting.end()) {
            gone = std::move(found->second);
            waiting.erase(found);
        }
    }
    if (gone) {
        gone->Unfollow();
    }
}

/// Where the reply cannot be deferred. What has left the queue for an earlier wait goes first.
ResultCode ParkedWaits::WaitInTheBus(SubscriberWaits& waits, long subscriberId, std::string& topic, long& message) {
    const auto next = waits.TakeKept();
    if (!next) {
        return bus.Wait(subscriberId, topic, message);
    }
    MessageBus::BeginWait(subscriberId);
    try {
        std::string text = next->topic; // all that can fail, before either output is written
        message = next->value;
        topic = std::move(text);
        return ResultCode::Success;
    } catch (const std::exception& error) {
        return MessageBus::FailWait(error);
    }
}

} // namespace msgbus_server
