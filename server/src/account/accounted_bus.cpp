#include "account/accounted_bus.h"

#include "account/probes.h"
#include "common/escape.h"
#include "diagnostics.h"
#include "kn/caller.h"
#include "request_time.h"

#include <chrono>
#include <utility>

namespace msgbus_server {

using common::Presence;
using common::ReservedTopic;
using cor::ResultCode;
using instruments::EventKind;
using instruments::layout::Drop;
using message_bus::MessageBus;

namespace {

constexpr long UnknownId = 0; // the bus counts from 1

std::int64_t MonotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool IsRequest() {
    return KnCallerId() != 0;
}

std::uint64_t UnreadAtTheEnd(const instruments::layout::Subscriber& slot) {
    const auto identity = slot.identity.Read();
    const auto flow = slot.flow.Read();
    std::uint64_t count = 0;
    for (const auto reason : {Drop::Cut, Drop::Unregistered}) {
        const auto i = static_cast<std::size_t>(reason);
        count += flow.dropped[i] - identity.droppedBase[i];
    }
    return count;
}

} // namespace

AccountedBus::AccountedBus(common::Mutex& pushTurn, MessageBus& accounted, message_bus::IProvider& publisher,
                           AccountKeeper& written, FollowAction followAction, std::optional<TopicNotices> topicNotices)
    : turn(pushTurn), bus(accounted), provider(publisher), keeper(written), follow(std::move(followAction)),
      notices(std::move(topicNotices)), inbound(accounted, written) {}

// -- pushes

ResultCode AccountedBus::Push(long publisherId, long message) {
    const ResultCode result = CountedPush(publisherId, message);
    probes::Push(publisherId, message, static_cast<std::uint32_t>(result));
    return result;
}

ResultCode AccountedBus::CountedPush(long publisherId, long message) {
    const auto found = publishers.find(publisherId);
    if (found == publishers.end()) {
        const ResultCode result = provider.Push(publisherId, message);
        if (result == ResultCode::Success) {
            keeper.NoteUnknownPush();
        } else {
            CountRefused(nullptr);
        }
        return result;
    }
    if (!inbound.HasRoom()) {
        // The bus refuses it, in its own words; the queue is full for unknown publishers too. Not with the id, since
        // there may be room meanwhile, and what is accepted has to be counted before.
        const ResultCode result = provider.Push(UnknownId, message);
        if (result != ResultCode::Success) {
            CountRefused(found->second.entry);
            return result;
        }
    }
    return PushKnown(found->second, publisherId, message);
}

void AccountedBus::NoteRefused(long publisherId) noexcept {
    const auto found = publishers.find(publisherId);
    CountRefused(found == publishers.end() ? nullptr : found->second.entry);
}

void AccountedBus::CountRefused(PublisherEntry* publisher) noexcept {
    keeper.Bus().refusedFull.fetch_add(1, std::memory_order_relaxed);
    if (publisher != nullptr) {
        publisher->NoteRefused();
    }
}

ResultCode AccountedBus::PushKnown(Publisher& publisher, long publisherId, long message) {
    const std::int64_t now = RequestTime::Now().time_since_epoch().count();
    const std::uint32_t copies = publisher.topic->copies;
    inbound.Enter(copies, now);
    if (publisher.entry != nullptr) {
        publisher.entry->NoteAccepted(message, now, copies != 0);
    }
    Trace& trace = keeper.Following();
    if (trace.IsOn()) {
        trace.NotePushed(*publisher.name, inbound.LastIndex(), publisherId, message, now, copies);
    }
    const ResultCode result = provider.Push(publisherId, message);
    if (result != ResultCode::Success) { // without memory, for example
        trace.Retract(inbound.LastIndex());
        inbound.TakeBack(copies);
        if (publisher.entry != nullptr) {
            publisher.entry->Retract(copies != 0);
        }
    }
    return result;
}

ResultCode AccountedBus::PushForNobody(long publisherId) {
    const common::MutexLock lock(turn);
    const ResultCode result = bus.Push(publisherId, 0);
    if (result == ResultCode::Success) {
        inbound.EnterUncounted();
    }
    return result;
}

// -- registrations

ResultCode AccountedBus::RegisterPublisher(const std::string& topic, long& publisherId) {
    if (notices && common::IsReserved(topic)) {
        publisherId = NoId;
        diagnostics::Log(diagnostics::LogLevel::Warning, "A publisher of the reserved topic ({}) is refused",
                         common::Escaped(topic));
        return ResultCode::Conflict;
    }
    const common::MutexLock lock(turn);
    const ResultCode result = bus.RegisterPublisher(topic, publisherId);
    if (result == ResultCode::Success) {
        const auto known = topics.try_emplace(topic).first;
        known->second.publisher = publisherId;
        publishers.emplace(publisherId,
                           Publisher{&known->first, &known->second, keeper.AddPublisher(publisherId, topic)});
        NotePresence(topic, {Presence::Came, publisherId});
    }
    return result;
}

ResultCode AccountedBus::UnregisterPublisher(long publisherId) {
    const common::MutexLock lock(turn);
    const ResultCode result = bus.UnregisterPublisher(publisherId);
    if (const auto found = publishers.find(publisherId); result == ResultCode::Success && found != publishers.end()) {
        const std::string topic = *found->second.name;
        if (const auto last = LastValueOf(topic); notices && last) {
            notices->Keep(topic, *last);
        }
        const Publisher ended = found->second;
        publishers.erase(found);
        if (ended.entry != nullptr) {
            keeper.EndPublisher(*ended.entry, topic, !IsRequest());
        }
        ended.topic->publisher = NoId;
        NotePresence(topic, {IsRequest() ? Presence::Left : Presence::Died, publisherId});
        ForgetTopic(topic);
    }
    return result;
}

ResultCode AccountedBus::RegisterSubscriber(const std::string& name, const std::set<std::string>& wanted,
                                            long& subscriberId) {
    const common::MutexLock lock(turn);
    inbound.AwaitEmpty();
    TopicNotices::Wishes wishes = WishesFor(wanted);
    const ResultCode result = bus.RegisterSubscriber(name, wishes.topics, subscriberId);
    if (result == ResultCode::Success) {
        inbound.CheckEmpty();
        // Who gets notices only is no part of what others count and see.
        const bool isListed = !wishes.IsForNoticesOnly() && !inbound.IsClosed();
        auto entry = isListed ? keeper.AddSubscriber(subscriberId, name, wishes.topics, inbound.Ring()) : nullptr;
        for (const auto& topic : wishes.topics) {
            ++topics[topic].copies;
        }
        NoteCounts(wishes.topics);
        const auto& added = subscribers.emplace(subscriberId, Subscriber{name, std::move(wishes), entry}).first->second;
        follow(subscriberId, std::move(entry));
        PutFirst(subscriberId, added.wishes);
    }
    return result;
}

ResultCode AccountedBus::UnregisterSubscriber(long subscriberId) {
    const common::MutexLock lock(turn);
    inbound.AwaitEmpty();
    const ResultCode result = bus.UnregisterSubscriber(subscriberId);
    if (const auto found = subscribers.find(subscriberId);
        result == ResultCode::Success && found != subscribers.end()) {
        inbound.CheckEmpty();
        const Subscriber ended = std::move(found->second);
        subscribers.erase(found);
        for (const auto& topic : ended.wishes.topics) {
            --topics[topic].copies;
        }
        if (notices) {
            notices->Remove(subscriberId, ended.wishes);
        }
        NoteCounts(ended.wishes.topics);
        for (const auto& topic : ended.wishes.topics) {
            ForgetTopic(topic);
        }
        if (ended.entry) {
            const bool wasCut = ended.entry->Slot().flow.Read().isCut != 0;
            const EventKind kind = wasCut        ? EventKind::SubscriberCut
                                   : IsRequest() ? EventKind::SubscriberGone
                                                 : EventKind::SubscriberDied;
            const std::uint64_t lost = UnreadAtTheEnd(ended.entry->Slot());
            keeper.EndSubscriber(*ended.entry, ended.name, inbound.IsStopping() ? std::nullopt : std::optional(kind),
                                 lost);
        }
    }
    return result;
}

void AccountedBus::ForgetTopic(const std::string& topic) {
    const auto found = topics.find(topic);
    if (found != topics.end() && found->second.publisher == NoId && found->second.copies == 0) {
        topics.erase(found);
    }
}

// -- notices

TopicNotices::Wishes AccountedBus::WishesFor(const std::set<std::string>& wanted) const {
    auto wishes = notices ? TopicNotices::Read(wanted) : std::nullopt;
    return wishes ? std::move(*wishes) : TopicNotices::Wishes{wanted, {}, {}};
}

/// A topic has another publisher, or none.
void AccountedBus::NotePresence(const std::string& topic, common::PresenceValue value) {
    if (!notices || inbound.IsStopping() || !notices->IsAsked(ReservedTopic::Presence, topic)) {
        return;
    }
    inbound.AwaitFanOut();
    if (!inbound.IsClosed()) {
        notices->Report(ReservedTopic::Presence, topic, value.Encode());
    }
}

/// Topics have another number of subscribers. Requires: the events thread has no value.
void AccountedBus::NoteCounts(const std::set<std::string>& changed) {
    if (!notices || inbound.IsStopping() || inbound.IsClosed()) {
        return;
    }
    for (const auto& topic : changed) {
        if (notices->IsAsked(ReservedTopic::SubscriberCount, topic)) {
            notices->Report(ReservedTopic::SubscriberCount, topic, topics[topic].copies);
        }
    }
}

/// Gives a new subscriber what comes before everything else. Requires: as NoteCounts.
void AccountedBus::PutFirst(long subscriberId, const TopicNotices::Wishes& wishes) {
    if (!notices || inbound.IsStopping() || inbound.IsClosed()) {
        return;
    }
    for (const auto& asked : wishes.asked) {
        notices->Put(subscriberId, asked, PresentAnswer(*common::ParseReserved(asked)));
    }
    notices->Add(subscriberId, wishes);
    for (const auto& topic : wishes.topics) {
        if (wishes.startWithLast.contains(topic) || notices->Retains(topic)) {
            if (const auto last = LastValueOf(topic)) {
                notices->Put(subscriberId, topic, *last);
            }
        }
    }
}

std::int64_t AccountedBus::PresentAnswer(const common::Reserved& asked) const {
    const auto found = topics.find(asked.topic);
    const Topic topic = found == topics.end() ? Topic{} : found->second;
    if (asked.kind == ReservedTopic::SubscriberCount) {
        return topic.copies;
    }
    return (topic.publisher == NoId ? common::PresenceValue{} : common::PresenceValue{Presence::Came, topic.publisher})
        .Encode();
}

/// Returns: the last value that was pushed under the topic, by a publisher that there is or was.
std::optional<long> AccountedBus::LastValueOf(const std::string& topic) const {
    const auto found = topics.find(topic);
    const long id = found == topics.end() ? NoId : found->second.publisher;
    const auto publisher = publishers.find(id);
    if (publisher != publishers.end() && publisher->second.entry != nullptr) {
        const auto& flow = publisher->second.entry->Flow();
        if (flow.lastAt != instruments::layout::NoTime) {
            return flow.lastValue;
        }
    }
    return notices ? notices->LastValueOf(topic) : std::nullopt;
}

// -- requests about single topics

bool AccountedBus::StartTrace(std::string_view topic, std::size_t values) {
    const common::MutexLock lock(turn);
    return keeper.Following().Start(topic, values, MonotonicNs());
}

void AccountedBus::StopTrace() {
    const common::MutexLock lock(turn);
    keeper.Following().Stop();
}

instruments::TraceRecord AccountedBus::ReadTrace() {
    const common::MutexLock lock(turn);
    return keeper.Following().Read(MonotonicNs());
}

Described AccountedBus::Describe(const std::string& topic, std::int32_t pid, std::string_view text) {
    const common::MutexLock lock(turn);
    const auto found = topics.find(topic);
    const auto known = publishers.find(found == topics.end() ? NoId : found->second.publisher);
    if (known == publishers.end()) {
        return Described::NoPublisher;
    }
    PublisherEntry* const publisher = known->second.entry;
    if (publisher == nullptr) {
        return Described::NoRoom;
    }
    const auto owner = publisher->Slot().identity.Read().program.pid;
    if (owner == 0 || owner != pid) {
        return Described::OtherOwner;
    }
    return keeper.Describe(*publisher, text) ? Described::Done : Described::NoRoom;
}

} // namespace msgbus_server
