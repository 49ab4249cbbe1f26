#pragma once

#include "instruments/snapshot.h"
#include "instruments/trace_record.h"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace msgbus_monitor {

/// The process at the other end of a Unix socket, as of the moment when it connected.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
};

enum class DescribeOutcome {
    Done,
    UnknownTopic, ///< it has no publisher
    NotOwner,     ///< its publisher belongs to another process
    NoRoom,
};

/// What the monitor shows: a running server.
class IMonitored {
public:
    virtual ~IMonitored() = default;

    /// Returns: the account at this moment. Throws: instruments::AccountError. Threads: one at a time.
    virtual instruments::Snapshot Read() = 0;

    /// Returns: the events behind the one with the number `after`, oldest first. Must not block.
    /// Threads: one at a time, beside one in Read.
    virtual std::vector<instruments::Event> EventsAfter(std::uint64_t after) = 0;

    /// Returns: as ServerAccount::clockOffset. Threads: any.
    virtual std::int64_t ClockOffset() const noexcept = 0;

    /// Returns: nothing when the bus delivers; else the reason, a sentence. Must not block.
    /// Threads: one at a time, beside one in Read.
    virtual std::optional<std::string> WhyUnhealthy() = 0;

    /// Replaces the description of a topic, by the process that owns its publisher. `topic`: its raw bytes. `text`: a
    /// valid description in the text form of msgbus/codec.h. Threads: one at a time, not beside one in Read.
    virtual DescribeOutcome Describe(const Peer& peer, std::string_view topic, std::string_view text) = 0;

    // The way of single values through the bus. Threads: as Describe.

    /// Begins to follow the next `values` values of a topic. `topic`: its raw bytes, which need not be known yet.
    /// Returns: false while others are followed. Throws: std::bad_alloc.
    virtual bool StartTrace(std::string_view topic, std::size_t values) = 0;
    virtual void StopTrace() = 0;
    /// Returns: what is known by now; its topic is empty before the first trace. Throws: std::bad_alloc.
    virtual instruments::TraceRecord ReadTrace() = 0;
};

} // namespace msgbus_monitor
