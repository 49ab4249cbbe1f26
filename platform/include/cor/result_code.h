#pragma once

#include <cstdint>

namespace cor {

/// Result of an operation. The numbers are part of the wire format, the names are not.
enum class ResultCode : std::int32_t {
    Success = 0,
    NotRegistered = 1, ///< not registered, or cancelled
    Exhausted = 2,     ///< the inbound queue is full, or the id is -1
    TooManyRegistrations = 3,
    TooManyHandshakes = 4,
    DispatchFailed = 5,
    InitFailed = 6,    ///< initialisation or run failed
    TooManyBytes = 7,  ///< of names and topics
    Conflict = 8,      ///< already registered, or not found
    TooManyValues = 9, ///< more values were queued than the subscriber may leave unread
    Failed = 10,       ///< an exception was caught, or another failure
};

} // namespace cor
