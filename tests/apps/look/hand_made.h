#pragma once

#include "instruments/snapshot.h"

#include <string>
#include <utility>
#include <vector>

// Accounts for tests, made by hand.

namespace hand_made {

inline constexpr instruments::Nanoseconds Second = 1'000'000'000;
inline constexpr instruments::Nanoseconds Now = 1000 * Second;
inline constexpr std::int64_t ClockOffset = 1'700'000'000 * Second;

inline instruments::PublisherAccount Publisher(std::int64_t id, std::string topic) {
    instruments::PublisherAccount publisher;
    publisher.id = id;
    publisher.topic = std::move(topic);
    publisher.process = {300, 1, "sensor"};
    publisher.since = Now - 60 * Second;
    return publisher;
}

inline instruments::SubscriberAccount Subscriber(std::int64_t id, std::string name, std::vector<std::string> topics) {
    instruments::SubscriberAccount subscriber;
    subscriber.id = id;
    subscriber.name = std::move(name);
    subscriber.topics = std::move(topics);
    subscriber.process = {400, 1, "display"};
    subscriber.since = Now - 30 * Second;
    subscriber.isWaiting = true;
    return subscriber;
}

/// A subscriber that is behind: with `queued` values unread, the oldest of them so many seconds old.
inline instruments::SubscriberAccount Behind(std::int64_t id, std::string name, std::uint64_t queued,
                                             std::int64_t seconds) {
    auto subscriber = Subscriber(id, std::move(name), {"a"});
    subscriber.isWaiting = false;
    subscriber.flows.due = queued + 5;
    subscriber.flows.taken = 5;
    subscriber.flows.queued = queued;
    subscriber.oldestSince = Now - seconds * Second;
    return subscriber;
}

inline instruments::Event Event(std::uint64_t number, instruments::Nanoseconds at, instruments::EventKind kind) {
    instruments::Event event;
    event.number = number;
    event.at = at;
    event.kind = kind;
    return event;
}

/// A server that serves, without clients.
inline instruments::Snapshot Account() {
    instruments::Snapshot account;
    account.readAt = Now;
    account.server.version = "0.1.0";
    account.server.pid = 200;
    account.server.isAlive = true;
    account.server.state = instruments::ServerState::Serving;
    account.server.startedAt = Now - 100 * Second;
    account.server.clockOffset = ClockOffset;
    return account;
}

} // namespace hand_made
