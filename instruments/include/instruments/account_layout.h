#pragma once

#include "instruments/latency.h"
#include "instruments/twin.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>

// The layout of the account file, in the byte order and with the alignments of the machine that writes it.
//
//     Header | threads | errors | events | publishers | subscribers | clients | text | latency pages
//
// One server writes, any number of programs read, and neither waits for the other. What has to agree with itself is a
// Twin, everything else a word of its own. Where two writers meet, each has its own counters that only grow: a value
// that enters is counted by the one, a value that leaves by the other.
//
// Counters of a publisher, a subscriber or a client belong to its slot and are never reset: the next tenant of the slot
// notes where they stood. So the sums over all slots are those since the server started, and a client that goes moves
// nothing.
//
// A reader that copies several records at one moment reads their versions, copies them, and starts again unless no
// version has changed: see read_account.cpp.

namespace instruments::layout {

inline constexpr std::uint64_t Magic = 0x54'43'41'53'55'42'47'4D; ///< "MGBUSACT" in the bytes of the file
inline constexpr std::uint32_t Version = 1;

inline constexpr std::size_t ProgramSize = 32;
inline constexpr std::size_t ThreadCapacity = 64;
inline constexpr std::size_t ErrorCapacity = 65; ///< the last one stands for all places beyond the others
inline constexpr std::size_t EventCapacityInFile = 1024;
inline constexpr std::int64_t NoTime = 0;

// No account has more than this, so a reader takes no more from a damaged one.
inline constexpr std::size_t MostSlots = 65536; ///< for publishers, and for subscribers
inline constexpr std::size_t MostClients = 4096;
inline constexpr std::size_t MostTextBytes = 128U << 20; ///< in the text region
inline constexpr std::size_t MostTextSize = 16U << 20;   ///< of one text; by default a process may have a quarter of it
inline constexpr std::size_t MostLatencyPages = 8192;

using Counter = std::atomic<std::uint64_t>;
using Time = std::atomic<std::int64_t>; ///< nanoseconds of CLOCK_MONOTONIC; 0: never

/// Bytes in the text region.
struct Text {
    std::uint32_t offset = 0; ///< in words of eight bytes
    std::uint32_t size = 0;   ///< in bytes
};

struct Program {
    std::uint64_t startTime = 0;
    std::int64_t pid = 0;
    std::array<char, ProgramSize> name{}; ///< NUL-terminated unless it fills the array
};

/// How often something had happened at the beginning of each of the last seconds.
struct RateHistory {
    static constexpr std::size_t Seconds = 64;

    std::atomic<std::int64_t> second{0}; ///< of CLOCK_MONOTONIC: the last one that is noted
    std::array<Counter, Seconds> counts{};
};

// -- the bus

/// Written by pushes, one at a time.
struct PushTotals {
    std::uint64_t accepted = 0;
    std::uint64_t entered = 0; ///< the inbound queue, for subscribers
    std::uint64_t withoutSubscriber = 0;
};

/// Written by the events thread.
struct FanOutTotals {
    std::uint64_t left = 0; ///< the inbound queue
    std::uint64_t fannedOut = 0;
    std::uint64_t leftIndex = 0; ///< so many of all accepted values have left for certain
};

struct alignas(64) Bus {
    Twin<PushTotals> pushes;
    Counter refusedFull{0};
    Counter mostInbound{0};

    alignas(64) Twin<FanOutTotals> fanOut;

    alignas(64) Counter refusedConnections{0};
    Counter rescued{0};
    Counter discrepancies{0};
    Counter unlisted{0}; ///< registrations that have no slot: there is no more room
    Counter lastEvent{0};
    std::array<std::atomic<std::uint32_t>, LatencyBuckets::Pages> latency{}; ///< as Subscriber::latency
};

struct Gauges {
    std::uint64_t workers = 0;
    std::uint64_t threads = 0;
    std::uint64_t descriptors = 0;
    std::uint64_t memoryBytes = 0;
    std::int64_t at = NoTime;
};

// -- slots

struct PublisherIdentity {
    std::int64_t id = 0; ///< 0: the slot is free
    Text topic;
    Text description; ///< size 0: none
    Program program;
    std::int64_t since = NoTime;
    std::int64_t leftAt = NoTime;
    std::uint64_t acceptedBefore = 0;
    std::uint64_t acceptedBase = 0; ///< where the slot's counters stood, as the next two
    std::uint64_t withoutBase = 0;
    std::uint64_t refusedBase = 0;
};

struct PublisherFlow {
    std::uint64_t accepted = 0;
    std::uint64_t withoutSubscriber = 0;
    std::int64_t lastValue = 0;
    std::int64_t lastAt = NoTime;                                        ///< never: there is no value
    std::int64_t smallestGap = std::numeric_limits<std::int64_t>::max(); ///< of the tenant; the highest: none
    std::int64_t largestGap = -1;                                        ///< likewise; -1: none
};

struct alignas(64) Publisher {
    Twin<PublisherFlow> flow;
    Counter refusedFull{0};
    Twin<PublisherIdentity> identity;
    RateHistory rates;
};

enum class Drop : std::size_t { Oldest, Newest, Cut, Unregistered, Undelivered };
inline constexpr std::size_t DropCount = 5;
using DropCounts = std::array<std::uint64_t, DropCount>;

struct SubscriberIdentity {
    std::int64_t id = 0; ///< 0: the slot is free
    Text text;           ///< the name, then each topic: each behind its size in four bytes
    Program program;
    std::int64_t since = NoTime;
    std::uint64_t dueBase = 0; ///< where the slot's counters stood, as all below
    std::uint64_t takenBase = 0;
    DropCounts droppedBase{};
};

/// Written by the thread that holds the lock on the subscriber's waits. left == taken + offered + handedOver + dropped.
struct SubscriberFlow {
    std::uint64_t left = 0; ///< the queue; with what came back to it taken off
    std::uint64_t taken = 0;
    std::uint64_t offered = 0;
    std::uint64_t handedOver = 0;
    DropCounts dropped{};
    std::uint32_t waiting = 0; ///< waits that are parked, or block in the bus
    std::uint32_t isCut = 0;
    std::int64_t oldestFloor = NoTime; ///< when a value was fanned out that came before the oldest unread one
};

struct alignas(64) Subscriber {
    Counter due{0};        ///< written by the events thread, as the next one
    Time nonEmptySince{0}; ///< when a value was fanned out that found no unread one before it
    alignas(64) Twin<SubscriberFlow> flow;
    Twin<SubscriberIdentity> identity;
    RateHistory rates;
    /// Its histogram: the page for each octave, numbered from 1; 0: none. A page is an array of 32-bit counts.
    std::array<std::atomic<std::uint32_t>, LatencyBuckets::Pages> latency{};
};

struct ClientIdentity {
    std::uint64_t caller = 0; ///< 0: the slot is free
    Program program;
    std::int64_t since = NoTime;
    std::uint64_t unknownPushesBase = 0;
    std::uint64_t unknownWaitsBase = 0;
    std::uint64_t refusedRegistrationsBase = 0;
};

struct alignas(64) Client {
    Twin<ClientIdentity> identity;
    Counter unknownPushes{0};
    Counter unknownWaits{0};
    Counter refusedRegistrations{0};
};

// -- what a server says about itself

struct alignas(64) Thread {
    Time awaySince{0};
    std::atomic<std::int64_t> longestAway{0}; ///< nanoseconds
    Time longestAt{0};
    std::array<std::atomic<std::uint64_t>, 2> name{}; ///< 16 bytes, NUL-terminated; none: the slot is free
};

struct Error {
    std::uint64_t isError = 0;
    std::uint64_t count = 0; ///< 0: the slot is free
    std::int64_t firstAt = NoTime;
    std::int64_t lastAt = NoTime;
    std::array<char, 64> place{};
    std::array<char, 240> text{};
};

struct Event {
    std::uint64_t number = 0;
    std::int64_t at = NoTime;
    std::uint32_t kind = 0;
    std::int32_t code = 0;
    std::int64_t id = 0;
    std::uint64_t lost = 0;
    Program program;
    std::uint64_t nameSize = 0;
    std::array<char, 160> name{};
};

/// Where a region lies, and of how many elements it is.
struct Region {
    std::uint64_t offset = 0; ///< in bytes
    std::uint64_t count = 0;
    std::uint64_t elementSize = 0;
};

struct Regions {
    Region threads, errors, events, publishers, subscribers, clients;
    Region text;         ///< in words of eight bytes
    Region latencyPages; ///< in pages
};

inline constexpr std::size_t LatencyPageSize = LatencyBuckets::PerPage * sizeof(std::uint32_t);
using LatencyPage = std::array<std::atomic<std::uint32_t>, LatencyBuckets::PerPage>;

struct Header {
    std::atomic<std::uint64_t> magic{0}; ///< written last
    std::uint32_t version = Version;
    std::uint32_t headerSize = sizeof(Header);
    std::uint64_t fileSize = 0;
    Regions regions;

    std::int64_t pid = 0;
    std::uint64_t startTime = 0;
    std::int64_t startedAt = NoTime;
    std::atomic<std::int64_t> clockOffset{0}; ///< refreshed with the gauges: the clock may be set
    std::uint64_t isStatic = 0;
    std::array<char, 64> programVersion{};
    std::array<char, 2048> options{};

    std::atomic<std::uint64_t> state{0}; ///< ServerState
    Twin<Gauges> gauges;
    Bus bus;

    // In use: slots and words beyond these are free, and need not exist on the disk.
    alignas(64) Counter publishersUsed{0};
    Counter subscribersUsed{0};
    Counter clientsUsed{0};
};

} // namespace instruments::layout
