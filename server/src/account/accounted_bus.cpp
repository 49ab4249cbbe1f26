#include "account/accounted_bus.h"

#include "account/away_time.h"
#include "account/probes.h"
#include "common/escape.h"
#include "diagnostics.h"
#include "kn/caller.h"
#include "request_time.h"
#include "wake_events_thread.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace msgbus_server {

using common::Presence;
using common::ReservedTopic;
using cor::ResultCode;
using instruments::EventKind;
using instruments::layout::Drop;
using message_bus::InboundState;
using message_bus::MessageBus;

namespace {

/// So many values fit into the inbound queue of the bus.
constexpr std::uint64_t InboundLimit = 1025;

constexpr long UnknownId = 0; // the bus counts from 1

/// So often at a stretch, a tenth of a millisecond apart, is the same number of values found in the inbound queue
/// before the events thread is taken for dead. One that runs takes a value within milliseconds; see Intake::MostLooks.
constexpr int MostIdleLooks = 50'000;
constexpr int MostIdleLooksInAStop = 1000;

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
      notices(std::move(topicNotices)), ring(written.Bus().fanOut) {}

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
    if (!HasRoom()) {
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

bool AccountedBus::HasRoom() noexcept {
    if (index - leftIndex < InboundLimit) {
        return true;
    }
    leftIndex = std::max(leftIndex, ring.Totals().leftIndex);
    if (index - leftIndex < InboundLimit) {
        return true;
    }
    leftIndex = std::max<std::uint64_t>(leftIndex, index - bus.InboundSize()); // those without subscribers leave unseen
    return index - leftIndex < InboundLimit;
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
    const bool isCounted = !isClosed.load(std::memory_order_relaxed);
    ++index;
    if (isCounted) {
        if (copies != 0) {
            ring.Put(copies, index, now);
        }
        CountAccepted(copies != 0, 1);
        NoteInbound();
    }
    if (publisher.entry != nullptr) {
        publisher.entry->NoteAccepted(message, now, copies != 0);
    }
    const ResultCode result = provider.Push(publisherId, message);
    if (result != ResultCode::Success) { // without memory, for example
        --index;
        if (isCounted) {
            CountAccepted(copies != 0, -1);
            if (copies != 0) {
                ring.Retract();
            }
        }
        if (publisher.entry != nullptr) {
            publisher.entry->Retract(copies != 0);
        }
    }
    return result;
}

/// Counts one value more, or less: with `count` -1.
void AccountedBus::CountAccepted(bool hasSubscriber, int count) noexcept {
    const auto change = static_cast<std::uint64_t>(count);
    totals.accepted += change;
    (hasSubscriber ? totals.entered : totals.withoutSubscriber) += change;
    keeper.Bus().pushes.Write(totals);
}

/// Follows how many values were in the inbound queue at most. Looks at what the events thread writes only when it may
/// have become more.
void AccountedBus::NoteInbound() noexcept {
    if (totals.entered - leftSeen <= most) {
        return;
    }
    leftSeen = ring.Totals().left;
    if (const std::uint64_t inbound = totals.entered - leftSeen; inbound > most) {
        most = inbound;
        keeper.Bus().mostInbound.store(most, std::memory_order_release);
    }
}

ResultCode AccountedBus::PushForNobody(long publisherId) {
    const common::MutexLock lock(turn);
    const ResultCode result = bus.Push(publisherId, 0);
    index += result == ResultCode::Success ? 1 : 0;
    return result;
}

void AccountedBus::NoteCopy() noexcept {
    if (isClosed.load(std::memory_order_relaxed)) {
        return;
    }
    const std::int64_t pushedAt = ring.PushedAt();
    const std::uint32_t copies = ring.Copies();
    if (!ring.NoteCopy()) {
        return;
    }
    probes::FanOut(copies);
    // Its loop waits for values: it has been away from it since it could have taken this one.
    const std::int64_t now = RoughTime();
    if (auto* const thread = keeper.ThisThread()) {
        AwayTime::Note(*thread, std::max(pushedAt, lastFanOut), now);
    }
    lastFanOut = now;
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
    AwaitEmptyInbound();
    TopicNotices::Wishes wishes = WishesFor(wanted);
    const ResultCode result = bus.RegisterSubscriber(name, wishes.topics, subscriberId);
    if (result == ResultCode::Success) {
        CheckNothingIsInbound();
        // Who gets notices only is no part of what others count and see.
        const bool isListed = !wishes.IsForNoticesOnly() && !isClosed.load(std::memory_order_relaxed);
        auto entry = isListed ? keeper.AddSubscriber(subscriberId, name, wishes.topics, ring) : nullptr;
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
    AwaitEmptyInbound();
    const ResultCode result = bus.UnregisterSubscriber(subscriberId);
    if (const auto found = subscribers.find(subscriberId);
        result == ResultCode::Success && found != subscribers.end()) {
        CheckNothingIsInbound();
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
            keeper.EndSubscriber(*ended.entry, ended.name, isStopping ? std::nullopt : std::optional(kind), lost);
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

/// Waits until the events thread has taken every value. None comes while the turn is held. A lost wake-up may have left
/// some behind, so the thread is woken, more than once: each wake-up can be lost as well.
void AccountedBus::AwaitEmptyInbound() {
    constexpr int quickLooks = 200;
    constexpr int looksBetweenWakes = 20;
    constexpr std::chrono::microseconds pause{100};
    int idleLooks = 0; // not the time, in which the process may have been stopped
    std::size_t before = bus.InboundSize();
    for (int looks = 0; !isClosed.load(std::memory_order_relaxed) && bus.InboundSize() != 0; ++looks) {
        if (looks < quickLooks) {
            std::this_thread::yield();
            continue;
        }
        if (bus.Inbound() == InboundState::LeftBehind || looks % looksBetweenWakes == 0) {
            WakeEventsThread(bus);
        }
        std::this_thread::sleep_for(pause);
        const std::size_t size = bus.InboundSize();
        idleLooks = size == std::exchange(before, size) ? idleLooks + 1 : 0;
        const bool stops = isStopping;
        if (idleLooks < (stops ? MostIdleLooksInAStop : MostIdleLooks)) {
            continue;
        }
        isClosed.store(true, std::memory_order_relaxed);
        if (!stops) {
            keeper.NoteDiscrepancy("the events thread takes no values, so what is fanned out is not counted any more");
        }
    }
}

/// Requires: the inbound queue was empty, and the bus has changed its list of subscribers since: so the events thread
/// has fanned out everything.
void AccountedBus::CheckNothingIsInbound() {
    if (!isClosed.load(std::memory_order_relaxed) && ring.Totals().left != totals.entered) {
        isClosed.store(true, std::memory_order_relaxed);
        keeper.NoteDiscrepancy("values have left the inbound queue, and were not fanned out");
    }
}

// -- notices

TopicNotices::Wishes AccountedBus::WishesFor(const std::set<std::string>& wanted) const {
    auto wishes = notices ? TopicNotices::Read(wanted) : std::nullopt;
    return wishes ? std::move(*wishes) : TopicNotices::Wishes{wanted, {}, {}};
}

/// Waits until the events thread has put every value into the queues, and then has none.
void AccountedBus::AwaitFanOut() {
    AwaitEmptyInbound();
    static_cast<void>(bus.GetSubscriberPtrById(NoId)); // takes the lock that it holds while it has a value
}

/// A topic has another publisher, or none.
void AccountedBus::NotePresence(const std::string& topic, common::PresenceValue value) {
    if (!notices || isStopping || !notices->IsAsked(ReservedTopic::Presence, topic)) {
        return;
    }
    AwaitFanOut();
    if (!isClosed.load(std::memory_order_relaxed)) {
        notices->Report(ReservedTopic::Presence, topic, value.Encode());
    }
}

/// Topics have another number of subscribers. Requires: the events thread has no value.
void AccountedBus::NoteCounts(const std::set<std::string>& changed) {
    if (!notices || isStopping || isClosed.load(std::memory_order_relaxed)) {
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
    if (!notices || isStopping || isClosed.load(std::memory_order_relaxed)) {
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
