#include "slot_reader.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace instruments {

namespace {

constexpr Nanoseconds Second = 1'000'000'000;

/// Returns: how often it had happened at the beginning of a second.
std::uint64_t CountAt(const layout::RateHistory& history, std::int64_t second, std::uint64_t present) {
    const auto last = history.second.load(std::memory_order_acquire);
    return second > last ? present : Load(history.counts[static_cast<std::size_t>(second) % history.counts.size()]);
}

Rates RatesOf(const layout::RateHistory& history, std::uint64_t present, std::uint64_t base, Nanoseconds since,
              Nanoseconds now) {
    const std::int64_t second = now / Second;
    const auto last = history.second.load(std::memory_order_acquire);
    const auto over = [&](std::int64_t seconds) {
        const std::int64_t oldest =
            std::max(second, last) - static_cast<std::int64_t>(layout::RateHistory::Seconds) + 1;
        const std::uint64_t end = CountAt(history, second, present);
        const bool isYounger = since / Second > second - seconds;
        const std::uint64_t begin = isYounger ? base : CountAt(history, std::max(second - seconds, oldest), present);
        if (end <= begin) {
            return 0.0;
        }
        // Whole seconds, but for a client that has not lived that long.
        const double life = isYounger ? static_cast<double>(second * Second - since) / static_cast<double>(Second)
                                      : static_cast<double>(seconds);
        return static_cast<double>(end - begin) / std::max(1.0, life);
    };
    constexpr std::int64_t medium = 10;
    constexpr std::int64_t longest = 60;
    return {over(1), over(medium), over(longest)};
}

} // namespace

void SlotReader::Charge(std::size_t textBytes) {
    if (textBytes > textBytesLeft) {
        account.ThrowDamaged();
    }
    textBytesLeft -= textBytes;
}

/// Finds the parts of a subscriber's text: its name, then its topics, which are a set in its order.
void SlotReader::Separate(std::string_view text, SubscriberAccount& subscriber) const {
    const auto next = [&] {
        std::uint32_t size = 0;
        if (text.size() < sizeof size) {
            account.ThrowDamaged();
        }
        std::memcpy(&size, text.data(), sizeof size);
        text.remove_prefix(sizeof size);
        if (size > text.size()) {
            account.ThrowDamaged();
        }
        std::string part(text.substr(0, size));
        text.remove_prefix(size);
        return part;
    };
    if (text.empty()) {
        return; // there was no room for it
    }
    subscriber.name = next();
    while (!text.empty()) {
        std::string topic = next();
        // So there is an end also to topics of no byte.
        if (!subscriber.topics.empty() && topic <= subscriber.topics.back()) {
            account.ThrowDamaged();
        }
        subscriber.topics.push_back(std::move(topic));
    }
}

Latency SlotReader::ReadLatency(const std::array<std::atomic<std::uint32_t>, LatencyBuckets::Pages>& pages) {
    Latency latency;
    for (std::size_t octave = 0; octave < pages.size(); ++octave) {
        const std::uint32_t page = pages[octave].load(std::memory_order_acquire);
        if (page == 0) {
            continue;
        }
        const layout::Region& region = account.Regions().latencyPages;
        if (page > region.count || pagesLeft == 0) {
            account.ThrowDamaged();
        }
        --pagesLeft;
        const auto& counts = account.At<layout::LatencyPage>(region, page - 1);
        for (std::size_t i = 0; i < counts.size(); ++i) {
            latency.Append(octave * LatencyBuckets::PerPage + i, counts[i].load(std::memory_order_relaxed));
        }
    }
    return latency;
}

void SlotReader::ReadPublisher(const layout::Publisher& slot) {
    layout::PublisherIdentity identity;
    layout::PublisherFlow flow;
    PublisherAccount publisher;
    std::string description;
    AtOneMoment([&] {
        const auto identityVersion = slot.identity.Version();
        const auto flowVersion = slot.flow.Version();
        slot.identity.Copy(identityVersion, identity);
        slot.flow.Copy(flowVersion, flow);
        publisher.refusedFull = Load(slot.refusedFull);
        if (!slot.identity.IsStill(identityVersion) || !slot.flow.IsStill(flowVersion)) {
            return false;
        }
        publisher.topic = account.Copy(identity.topic);
        description = account.Copy(identity.description);
        return slot.identity.IsStill(identityVersion);
    });
    if (identity.id == 0) {
        return;
    }
    Charge(publisher.topic.size() + description.size());
    publisher.id = identity.id;
    publisher.process = ProcessOf(identity.program);
    publisher.since = TimeIn(identity.since);
    publisher.leftAt = TimeIn(identity.leftAt);
    publisher.accepted = flow.accepted - identity.acceptedBase;
    publisher.withoutSubscriber = flow.withoutSubscriber - identity.withoutBase;
    publisher.refusedFull -= std::min(publisher.refusedFull, identity.refusedBase);
    publisher.acceptedBefore = identity.acceptedBefore;
    if (flow.lastAt != layout::NoTime) {
        publisher.lastValue = flow.lastValue;
        publisher.lastAt = TimeIn(flow.lastAt);
    }
    if (flow.largestGap >= 0) {
        publisher.smallestGap = TimeIn(flow.smallestGap);
        publisher.largestGap = TimeIn(flow.largestGap);
    }
    publisher.rates = RatesOf(slot.rates, flow.accepted, identity.acceptedBase, publisher.since, snapshot.readAt);
    if (!description.empty() && identity.leftAt == layout::NoTime) {
        snapshot.descriptions.push_back({publisher.topic, std::move(description)});
    }
    snapshot.publishers.push_back(std::move(publisher));
}

void SlotReader::ReadSubscriber(const layout::Subscriber& slot) {
    layout::SubscriberIdentity identity;
    layout::SubscriberFlow flow;
    std::uint64_t due = 0;
    Nanoseconds nonEmptySince = 0;
    std::string text;
    AtOneMoment([&] {
        const auto identityVersion = slot.identity.Version();
        const auto flowVersion = slot.flow.Version();
        due = Load(slot.due);
        nonEmptySince = Load(slot.nonEmptySince);
        slot.identity.Copy(identityVersion, identity);
        slot.flow.Copy(flowVersion, flow);
        if (Load(slot.due) != due || !slot.flow.IsStill(flowVersion) || !slot.identity.IsStill(identityVersion)) {
            return false;
        }
        text = account.Copy(identity.text);
        return slot.identity.IsStill(identityVersion);
    });
    const auto drops = [](const layout::DropCounts& counts, const layout::DropCounts& base) {
        const auto of = [&](layout::Drop drop) {
            return counts[static_cast<std::size_t>(drop)] - base[static_cast<std::size_t>(drop)];
        };
        using enum layout::Drop;
        return Drops{of(Oldest), of(Newest), of(Cut), of(Unregistered), of(Undelivered)};
    };
    const std::uint64_t queued = due - flow.left;
    Flows& sum = snapshot.bus.flows;
    const Drops all = drops(flow.dropped, {});
    sum.due += due;
    sum.taken += flow.taken;
    sum.offered += flow.offered;
    sum.queued += queued;
    sum.handedOver += flow.handedOver;
    sum.dropped.oldest += all.oldest;
    sum.dropped.newest += all.newest;
    sum.dropped.cut += all.cut;
    sum.dropped.unregistered += all.unregistered;
    sum.dropped.undelivered += all.undelivered;
    if (identity.id == 0) {
        return;
    }
    SubscriberAccount subscriber;
    subscriber.id = identity.id;
    Charge(text.size());
    Separate(text, subscriber);
    subscriber.process = ProcessOf(identity.program);
    subscriber.since = TimeIn(identity.since);
    subscriber.isWaiting = flow.waiting != 0;
    subscriber.isCut = flow.isCut != 0;
    subscriber.flows = {due - identity.dueBase, flow.taken - identity.takenBase,          flow.offered, queued,
                        flow.handedOver,        drops(flow.dropped, identity.droppedBase)};
    if (queued != 0) {
        subscriber.oldestSince = std::max(nonEmptySince, TimeIn(flow.oldestFloor));
    }
    subscriber.rates =
        RatesOf(slot.rates, flow.taken + flow.offered, identity.takenBase, subscriber.since, snapshot.readAt);
    if (depth == AccountReader::Depth::Everything) {
        subscriber.latency = ReadLatency(slot.latency);
    }
    snapshot.subscribers.push_back(std::move(subscriber));
}

void SlotReader::ReadClient(const layout::Client& slot) {
    ClientAccount client;
    layout::ClientIdentity identity;
    std::uint64_t pushes = 0;
    std::uint64_t waits = 0;
    std::uint64_t refusals = 0;
    AtOneMoment([&] {
        const auto version = slot.identity.Version();
        slot.identity.Copy(version, identity);
        pushes = Load(slot.unknownPushes);
        waits = Load(slot.unknownWaits);
        refusals = Load(slot.refusedRegistrations);
        return slot.identity.IsStill(version);
    });
    snapshot.bus.unknownPushes += pushes;
    snapshot.bus.unknownWaits += waits;
    snapshot.bus.refusedRegistrations += refusals;
    if (identity.caller == 0) {
        return;
    }
    client.process = ProcessOf(identity.program);
    client.since = TimeIn(identity.since);
    client.unknownPushes = pushes - identity.unknownPushesBase;
    client.unknownWaits = waits - identity.unknownWaitsBase;
    client.refusedRegistrations = refusals - identity.refusedRegistrationsBase;
    snapshot.clients.push_back(std::move(client));
}

} // namespace instruments
