#pragma once

#include "instruments/snapshot.h"

namespace instruments::samples {

inline constexpr Nanoseconds Second = 1'000'000'000;
inline constexpr std::int64_t ClockOffset = 1'700'000'000 * Second;

/// A server that is 100 s old, with one publisher of "temperature", one subscriber of it and of "pressure", and numbers
/// that are all different.
inline Snapshot OneOfEach() {
    Snapshot snapshot;
    snapshot.readAt = 110 * Second;
    snapshot.server = {.version = "1.2.3",
                       .pid = 4711,
                       .startTime = 99,
                       .isAlive = true,
                       .isPaused = false,
                       .state = ServerState::Serving,
                       .isStatic = false,
                       .startedAt = 10 * Second,
                       .clockOffset = ClockOffset,
                       .options = "--no-placement",
                       .workers = 4,
                       .threads = 11,
                       .descriptors = 23,
                       .memoryBytes = 5'000'000,
                       .gaugesAt = 109 * Second};
    snapshot.bus.accepted = 1000;
    snapshot.bus.fannedOut = 900;
    snapshot.bus.inbound = 7;
    snapshot.bus.withoutSubscriber = 93;
    snapshot.bus.refusedFull = 5;
    snapshot.bus.mostInbound = 41;
    snapshot.bus.flows = {900, 800, 20, 30, 1, {10, 11, 12, 13, 3}};
    snapshot.bus.unknownPushes = 2;
    snapshot.bus.unknownWaits = 3;
    snapshot.bus.refusedRegistrations = 4;
    snapshot.bus.refusedConnections = 6;
    snapshot.bus.rescued = 8;
    snapshot.bus.latency.Append(LatencyBuckets::Of(1000), 2);
    snapshot.bus.latency.Append(LatencyBuckets::Of(1'000'000), 1);

    PublisherAccount publisher;
    publisher.id = 17;
    publisher.topic = "temperature";
    publisher.process = {4712, 100, "sensor"};
    publisher.since = 20 * Second;
    publisher.accepted = 600;
    publisher.withoutSubscriber = 50;
    publisher.refusedFull = 5;
    publisher.acceptedBefore = 61;
    publisher.lastValue = -21;
    publisher.lastAt = 108 * Second;
    publisher.smallestGap = 1500;
    publisher.largestGap = 2 * Second;
    publisher.rates = {10.5, 9, 8};
    snapshot.publishers.push_back(publisher);

    SubscriberAccount subscriber;
    subscriber.id = 18;
    subscriber.name = "display";
    subscriber.topics = {"pressure", "temperature"};
    subscriber.process = {4713, 101, "screen"};
    subscriber.since = 30 * Second;
    subscriber.isWaiting = true;
    subscriber.flows = {450, 400, 10, 15, 1, {5, 6, 7, 4, 2}};
    subscriber.oldestSince = 107 * Second;
    subscriber.rates = {10.25, 7, 6};
    subscriber.latency.Append(LatencyBuckets::Of(3000), 4);
    snapshot.subscribers.push_back(subscriber);

    snapshot.clients.push_back({{4712, 100, "sensor"}, 19 * Second, 1, 2, 3});
    snapshot.descriptions.push_back({"temperature", "fixed;step=1/1000;unit=K;remark=outside"});
    snapshot.threads.push_back({"events", 0, std::chrono::milliseconds(3), 50 * Second});
    snapshot.errors.push_back({false, "file.cpp:12", 9, 40 * Second, 60 * Second, "something failed"});
    snapshot.events.push_back(
        {5, 20 * Second, EventKind::PublisherRegistered, 17, 0, 0, {4712, 100, "sensor"}, "temperature"});
    snapshot.events.push_back({6, 30 * Second, EventKind::SubscriberCut, 18, 0, 12, {4713, 101, "screen"}, "display"});
    return snapshot;
}

} // namespace instruments::samples
