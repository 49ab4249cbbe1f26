#include "kn/status.h"

const char* KnStatusText(std::int32_t status) noexcept {
    switch (status) {
    case KnStatusOk:
        return "success";
    case KnStatusInvalidArgument:
        return "an argument is not valid";
    case KnStatusUnimplemented:
        return "the addressed interface or method does not exist";
    case KnStatusClosed:
        return "the server closed the channel or exited";
    case KnStatusPeerGone:
        return "the client that would receive the reply has disconnected";
    case KnStatusBadRecord:
        return "a record has the wrong size or format";
    case KnStatusTimedOut:
        return "the time-out expired";
    case KnStatusBusy:
        return "a limit of the server is reached";
    case KnStatusDenied:
        return "the peer is not permitted to do this";
    case KnStatusNoResources:
        return "memory, descriptors or threads ran out";
    case KnStatusAbandoned:
        return "the server dropped the request without a reply";
    case KnStatusNotFound:
        return "no server offers that name";
    case KnStatusAlreadyExists:
        return "a live server already owns that name";
    case KnStatusBadReply:
        return "the reply is not valid for the called method";
    case KnStatusOtherVersion:
        return "the server speaks another version of the protocol than this client";
    case KnStatusNoReply:
        return "the request gets no reply";
    default:
        return "unknown status";
    }
}
