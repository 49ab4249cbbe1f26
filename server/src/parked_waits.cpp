#include "parked_waits.h"

#include "kn/status.h"
#include "message_bus.h"

#include <algorithm>
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
        waits = FindOrAdd(subscriberId, 0);
    } catch (const std::exception& error) {
        MessageBus::BeginWait(subscriberId);
        return MessageBus::FailWait(error);
    }
    NkDeferredReply reply;
    if (!waits) {
        if (const auto lost = LostOfCut(subscriberId)) {
            MessageBus::BeginWait(subscriberId);
            if (NkDeferReply(&reply) != KnStatusOk) {
                return ResultCode::TooManyValues;
            }
            SubscriberWaits::RefuseCut(reply, *lost);
            return ResultCode::Success;
        }
        if (control.unknownWait) {
            control.unknownWait();
        }
        return bus.Wait(subscriberId, topic, message); // which refuses it
    }
    if (!defers || NkDeferReply(&reply) != KnStatusOk) {
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

void ParkedWaits::Follow(long subscriberId, std::uint64_t caller, SubscriberWaits::Account account) {
    FindOrAdd(subscriberId, caller, std::move(account));
}

std::shared_ptr<SubscriberWaits> ParkedWaits::Find(long subscriberId) {
    const common::MutexLock lock(mutex);
    const auto found = waiting.find(subscriberId);
    return found == waiting.end() ? nullptr : found->second;
}

std::optional<std::size_t> ParkedWaits::Unread(long subscriberId) {
    const auto waits = Find(subscriberId);
    return waits ? std::optional(waits->Unread()) : std::nullopt;
}

/// Returns: null when the bus does not know the subscriber.
std::shared_ptr<SubscriberWaits> ParkedWaits::FindOrAdd(long subscriberId, std::uint64_t caller,
                                                        SubscriberWaits::Account account) {
    if (auto found = Find(subscriberId)) {
        return found;
    }
    auto subscriber = bus.GetSubscriberPtrById(subscriberId);
    if (!subscriber) {
        return nullptr;
    }
    SubscriberWaits::Allowance allowance;
    if (control.limitOf) {
        allowance = {control.limitOf(*subscriber), control.budget, caller};
    }
    auto added = std::make_shared<SubscriberWaits>(std::move(subscriber), static_cast<SubscriberWaits::IEvents&>(*this),
                                                   allowance, std::move(account));
    const common::MutexLock lock(mutex);
    const auto [place, isNew] = waiting.try_emplace(subscriberId, std::move(added));
    if (isNew) {
        place->second->Follow();
    }
    return place->second;
}

void ParkedWaits::OnEnd(long subscriberId) noexcept {
    Forget(subscriberId);
}

void ParkedWaits::OnDelivery() noexcept {
    if (onDelivery) {
        onDelivery();
    }
}

void ParkedWaits::OnCut(long subscriberId) noexcept {
    control.cut(subscriberId);
}

void ParkedWaits::OnExceeded(QueueBudget::Exceeded what, std::uint64_t caller) noexcept {
    control.exceeded(what, caller);
}

void ParkedWaits::OnDiscrepancy(long subscriberId) noexcept {
    control.discrepancy(subscriberId);
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
    if (!gone) {
        return;
    }
    gone->Unfollow();
    if (gone->IsCut()) {
        const std::uint64_t lost = gone->Lost();
        const common::MutexLock lock(mutex);
        cut[subscriberId] = lost;
        if (cut.size() > MostCut) {
            cut.erase(cut.begin());
        }
    }
}

/// Returns: what a subscriber lost that was cut and unregistered.
std::optional<std::uint64_t> ParkedWaits::LostOfCut(long subscriberId) {
    const common::MutexLock lock(mutex);
    const auto found = cut.find(subscriberId);
    return found == cut.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::shared_ptr<SubscriberWaits>> ParkedWaits::All() {
    std::vector<std::shared_ptr<SubscriberWaits>> all;
    const common::MutexLock lock(mutex);
    all.reserve(waiting.size());
    for (const auto& [id, waits] : waiting) {
        all.push_back(waits);
    }
    return all;
}

void ParkedWaits::CutLargest(std::optional<std::uint64_t> caller, std::size_t most) {
    std::vector<std::pair<std::size_t, std::shared_ptr<SubscriberWaits>>> candidates;
    std::size_t sum = 0;
    for (auto& waits : All()) {
        if (!caller || waits->Caller() == *caller) {
            const std::size_t charge = waits->Recount();
            sum += charge;
            candidates.emplace_back(charge, std::move(waits));
        }
    }
    std::sort(candidates.begin(), candidates.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    for (const auto& [charge, waits] : candidates) {
        if (sum <= most) {
            return;
        }
        waits->Cut();
        sum -= charge;
    }
}

/// Where the reply cannot be deferred. What has left the queue for an earlier wait goes first.
ResultCode ParkedWaits::WaitInTheBus(SubscriberWaits& waits, long subscriberId, std::string& topic, long& message) {
    const auto next = waits.TakeKept();
    if (!next) {
        const SubscriberWaits::Blocking blocking(waits);
        const ResultCode result = bus.Wait(subscriberId, topic, message);
        if (result == ResultCode::Success) {
            waits.NoteTakenInTheBus();
        }
        return result;
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
