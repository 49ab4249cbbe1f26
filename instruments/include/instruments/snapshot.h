#pragma once

#include "instruments/latency.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The account of a bus at one moment, as a program reads it (read_account.h). Names and topics are raw bytes.

namespace instruments {

/// A point in time of CLOCK_MONOTONIC, in nanoseconds; 0: never.
using Nanoseconds = std::int64_t;

/// Values per second, over the last 1, 10 and 60 seconds. Since a client is younger than such a time: over its life,
/// but at least one second.
struct Rates {
    double last1 = 0;
    double last10 = 0;
    double last60 = 0;
};

/// The process that made a registration.
struct Process {
    std::int32_t pid = 0;        ///< 0: not known
    std::uint64_t startTime = 0; ///< in clock ticks since the system started; 0: not known
    std::string program;
};

struct PublisherAccount {
    std::int64_t id = 0;
    std::string topic;
    Process process;
    Nanoseconds since = 0;
    Nanoseconds leftAt = 0; ///< 0: it is registered; else what is left is its topic's last value

    std::uint64_t accepted = 0;          ///< values that the bus has taken
    std::uint64_t withoutSubscriber = 0; ///< of these: those of a moment when its topic had no subscriber
    std::uint64_t refusedFull = 0;       ///< pushes answered 2, of which clients repeat most
    std::uint64_t acceptedBefore = 0; ///< values of the earlier publishers of the topic, as far as they are remembered

    std::optional<std::int64_t> lastValue; ///< of the topic: it may be an earlier publisher's
    Nanoseconds lastAt = 0;
    std::optional<Nanoseconds> smallestGap; ///< between two values
    std::optional<Nanoseconds> largestGap;
    Rates rates; ///< of accepted values
};

/// Why values were dropped.
struct Drops {
    std::uint64_t oldest = 0;       ///< its limit, with the policy drop-oldest
    std::uint64_t newest = 0;       ///< its limit, with the policy drop-newest
    std::uint64_t cut = 0;          ///< unread when it was cut, or since
    std::uint64_t unregistered = 0; ///< unread when it unregistered, or its process ended
    std::uint64_t undelivered = 0;  ///< on their way to a client that was gone

    std::uint64_t Total() const noexcept { return oldest + newest + cut + unregistered + undelivered; }
    bool operator==(const Drops&) const = default;
};

/// What happened to the values that were due to a subscriber, or to several:
/// due == taken + offered + queued + handedOver + dropped.Total().
struct Flows {
    std::uint64_t due = 0;        ///< fanned out to it
    std::uint64_t taken = 0;      ///< its client has got them
    std::uint64_t offered = 0;    ///< lie in the memory that is shared with its client, which may take them meanwhile
    std::uint64_t queued = 0;     ///< unread in the server
    std::uint64_t handedOver = 0; ///< are being handed over
    Drops dropped;

    bool AddsUp() const noexcept { return due == taken + offered + queued + handedOver + dropped.Total(); }
    bool operator==(const Flows&) const = default;
};

struct SubscriberAccount {
    std::int64_t id = 0;
    std::string name;
    std::vector<std::string> topics;
    Process process;
    Nanoseconds since = 0;
    bool isWaiting = false; ///< a wait of its client is parked, or blocks in the bus
    bool isCut = false;     ///< and is about to be unregistered

    Flows flows;
    Nanoseconds oldestSince = 0; ///< when its oldest unread value was fanned out, up to 64 values early; 0: none is
    Rates rates;                 ///< of taken and offered values
    Latency latency;             ///< from fan-out to taken, of one value in 64; of an offered value: to the offer
};

/// What one process did wrong. There is none of a process without a mistake.
struct ClientAccount {
    Process process;
    Nanoseconds since = 0;
    std::uint64_t unknownPushes = 0;        ///< with an id that is no publisher of the process; answered 0 and dropped
    std::uint64_t unknownWaits = 0;         ///< with an id that is no subscriber of the process; answered 1 or 2
    std::uint64_t refusedRegistrations = 0; ///< answered other than 0
};

/// accepted == fannedOut + inbound + withoutSubscriber.
struct BusAccount {
    std::uint64_t accepted = 0;
    std::uint64_t fannedOut = 0;         ///< are in the queues of all of their subscribers
    std::uint64_t inbound = 0;           ///< have yet to be fanned out, or are being fanned out
    std::uint64_t withoutSubscriber = 0; ///< their topic had no subscriber
    std::uint64_t refusedFull = 0;       ///< pushes answered 2
    std::uint64_t mostInbound = 0;       ///< the highest `inbound`

    Flows flows; ///< sums of all subscribers, those that are gone included

    std::uint64_t unknownPushes = 0; ///< sums of all clients, those that are gone included
    std::uint64_t unknownWaits = 0;
    std::uint64_t refusedRegistrations = 0;
    std::uint64_t refusedConnections = 0; ///< beyond a limit
    std::uint64_t rescued = 0;            ///< values that a lost wake-up had left in the inbound queue
    std::uint64_t discrepancies = 0; ///< times that the account and the bus did not agree; 0 unless there is a fault
    std::uint64_t unlisted = 0;      ///< registrations without an account: there was no room, so the sums lack them

    Latency latency; ///< of all subscribers since the server started

    bool AddsUp() const noexcept { return accepted == fannedOut + inbound + withoutSubscriber && flows.AddsUp(); }
};

/// A thread of the server, and how long it was away from the loop in which it waits for work.
struct ThreadAccount {
    std::string name;
    Nanoseconds awaySince = 0;               ///< 0: it is in its loop
    std::chrono::nanoseconds longestAway{0}; ///< resolution: some milliseconds
    Nanoseconds longestAt = 0;               ///< when that ended
};

/// An error or warning that was logged, once for all of its occurrences.
struct ErrorAccount {
    bool isError = false; ///< false: a warning
    std::string place;    ///< file and line
    std::uint64_t count = 0;
    Nanoseconds firstAt = 0;
    Nanoseconds lastAt = 0;
    std::string text; ///< of the last one
};

enum class EventKind : std::uint32_t {
    PublisherRegistered = 1,
    SubscriberRegistered = 2,
    PublisherGone = 3,  ///< unregistered by its process
    SubscriberGone = 4, ///< unregistered by its process
    PublisherDied = 5,  ///< unregistered because its process has ended
    SubscriberDied = 6, ///< unregistered because its process has ended
    SubscriberCut = 7,
    Refused = 8, ///< a registration was answered other than 0
    Serving = 9,
    Draining = 10,
    Stopping = 11,
};

/// Returns: the name of a kind, such as "publisher-registered".
std::string_view NameOf(EventKind kind) noexcept;

/// One thing that happened. The last EventCapacity of them are kept.
struct Event {
    std::uint64_t number = 0; ///< counts from 1
    Nanoseconds at = 0;
    EventKind kind{};
    std::int64_t id = 0;    ///< of the publisher or subscriber; 0: none
    std::int32_t code = 0;  ///< of the refusal
    std::uint64_t lost = 0; ///< values that were unread
    Process process;
    std::string name; ///< topic of a publisher, name of a subscriber; its first 160 bytes
};
inline constexpr std::size_t EventCapacity = 1024;

enum class ServerState : std::uint32_t { Starting = 0, Serving = 1, Draining = 2, Stopping = 3, Stopped = 4 };

/// Returns: the name of a state, such as "serving".
std::string_view NameOf(ServerState state) noexcept;

struct ServerAccount {
    std::string version;
    std::int32_t pid = 0;
    std::uint64_t startTime = 0; ///< of the process, in clock ticks since the system started
    bool isAlive = false;        ///< the process exists
    bool isPaused = false;       ///< it does, but a signal or a debugger has stopped it
    ServerState state = ServerState::Starting;
    bool isStatic = false; ///< mode
    Nanoseconds startedAt = 0;
    std::int64_t clockOffset = 0;  ///< nanoseconds from CLOCK_MONOTONIC to CLOCK_REALTIME, as of about `gaugesAt`
    std::string options;           ///< those that differ from the defaults, as on the command line
    std::uint32_t workers = 0;     ///< threads that serve requests, as of `gaugesAt`
    std::uint32_t threads = 0;     ///< of the process, as of `gaugesAt`
    std::uint32_t descriptors = 0; ///< open ones, as of `gaugesAt`
    std::uint64_t memoryBytes = 0; ///< resident, as of `gaugesAt`
    Nanoseconds gaugesAt = 0;
};

/// The description of a topic, in the text form of msgbus/codec.h, as its publisher has declared it.
struct TopicDescription {
    std::string topic;
    std::string text;
};

/// Publishers by topic, subscribers by id.
struct Snapshot {
    Nanoseconds readAt = 0; ///< for a server that is not alive: when it was read all the same
    ServerAccount server;
    BusAccount bus;
    std::vector<PublisherAccount> publishers; ///< those that have left included, as far as they are remembered
    std::vector<SubscriberAccount> subscribers;
    std::vector<ClientAccount> clients;
    std::vector<TopicDescription> descriptions;
    std::vector<ThreadAccount> threads;
    std::vector<ErrorAccount> errors;
    std::vector<Event> events; ///< oldest first
};

/// What belongs to one topic. Indices into the snapshot.
struct TopicView {
    std::string_view topic;
    std::optional<std::size_t> publisher; ///< also one that has left
    std::vector<std::size_t> subscribers;
    std::string_view description; ///< empty: none
};

/// Returns: every topic that has a publisher, had one that is remembered, or has a subscriber, in the order of their
/// bytes. Lifetime: the snapshot's.
std::vector<TopicView> TopicsOf(const Snapshot& snapshot);
/// Returns: that of them with these bytes.
std::optional<TopicView> TopicOf(const Snapshot& snapshot, std::string_view topic);

} // namespace instruments
