#pragma once

#include <cstdint>

/// Status of a platform call: 0 is success, everything else is negative.
enum KnStatus : std::int32_t {
    KnStatusOk = 0,
    KnStatusInvalidArgument = -1, ///< a null pointer, an unknown handle, a name that is empty or too long
    KnStatusUnimplemented = -2,   ///< the addressed interface or method does not exist
    KnStatusClosed = -3,          ///< the server closed the channel or died; nothing will ever arrive on it again
    KnStatusPeerGone = -4,        ///< the client that would receive the reply has disconnected
    KnStatusBadRecord = -5,       ///< a record has the wrong size, or its size word disagrees with it
    KnStatusTimedOut = -6,        ///< the caller's own time-out expired
    KnStatusBusy = -7,            ///< a limit of the server is reached (clients, pending connections)
    KnStatusDenied = -8,          ///< the peer belongs to another user, or the interface is not the one accepted
    KnStatusNoResources = -9,     ///< memory, descriptors or threads ran out
    KnStatusAbandoned = -10,      ///< the server thread that owned the request dropped it without a reply
    KnStatusNotFound = -11,       ///< no live server offers that name
    KnStatusAlreadyExists = -12,  ///< a live server already owns that name
    KnStatusBadReply = -13,       ///< the reply is not valid for the called method
    KnStatusOtherVersion = -14,   ///< the server does not speak the client's version of the protocol
    KnStatusNoReply = -42,        ///< returned by a dispatcher for a request that gets no reply
};

/// Returns: a description of `status` for log lines and messages. Never null; static storage.
const char* KnStatusText(std::int32_t status) noexcept;
