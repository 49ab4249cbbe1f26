#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The way of single values of one topic through the bus: what a server notes while that is asked for.

namespace instruments {

/// A copy of a traced value, on its way to one subscriber. Times are of CLOCK_MONOTONIC, in nanoseconds; 0: not yet.
struct TracedCopy {
    std::int64_t subscriber = 0; ///< its id
    std::uint64_t number = 0;    ///< among the values of this subscriber
    std::int64_t queuedAt = 0;
    std::int64_t offeredAt = 0; ///< to memory that the client takes from by itself; 0 also: handed over with a reply
    std::int64_t takenAt = 0;   ///< of an offered value: when the client came back, so it may have taken it earlier
    std::int64_t droppedAt = 0;
    bool isUncertain = false; ///< another value of this subscriber was dropped from behind: what follows is not known

    bool HasEnded() const noexcept { return takenAt != 0 || droppedAt != 0 || isUncertain; }
};

struct TracedValue {
    std::int64_t value = 0;
    std::int64_t publisher = 0; ///< its id
    std::int64_t pushedAt = 0;
    std::uint32_t subscribers = 0; ///< when it was pushed
    std::int64_t fannedOutAt = 0;  ///< 0 also: it had no subscriber
    std::vector<TracedCopy> copies;

    /// Returns: whether nothing more will happen to it.
    bool HasEnded() const noexcept;
};

struct TraceRecord {
    std::string topic;           ///< empty: there was no trace
    std::size_t wanted = 0;      ///< values
    std::uint64_t lostSteps = 0; ///< for which there was no room
    std::vector<TracedValue> values;

    /// Returns: whether nothing more will happen to any value, and there are as many as were wanted.
    bool HasEnded() const noexcept;
};

/// Returns: the record as the server's answer has it, where times are nanoseconds since 1970, and null for what has not
/// happened. `clockOffset`: from the times of the record to those. The topic is escaped as in common/escape.h.
nlohmann::ordered_json TraceToJson(const TraceRecord& record, std::int64_t clockOffset);

/// Reads such an answer; the times are then nanoseconds since 1970, and the topic stays escaped.
/// Throws: std::runtime_error with a sentence.
TraceRecord TraceFromJson(const std::string& text);

} // namespace instruments
