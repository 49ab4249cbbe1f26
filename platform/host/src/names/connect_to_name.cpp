#include "names/connect_to_name.h"

#include "base/log.h"
#include "kn/status.h"
#include "names/handshake.h"
#include "names/peer.h"
#include "names/runtime_directory.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

/// Limits how long connect and send block. 0 means no limit to the kernel, so a deadline that has passed becomes 1 ms.
void SetSendTimeout(int socket, Deadline deadline) {
    const int leftMs = PollTimeout(deadline);
    const timeval limit{leftMs < 0 ? 0 : leftMs / 1000, leftMs < 0 ? 0 : std::max(leftMs % 1000 * 1000, 1000)};
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

} // namespace

std::int32_t ConnectToName(NameKind kind, std::string_view name, Deadline deadline, UniqueFd& socket) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(RuntimeDirectoryPath(), Purpose::Connects, Missing::Fails, directory);
        status != KnStatusOk) {
        return status;
    }
    struct stat owner {};
    if (::fstat(directory.Get(), &owner) != 0) {
        return KnStatusNoResources;
    }
    UniqueFd connecting = OpenSocket(0);
    if (!connecting) {
        return KnStatusNoResources;
    }
    SetSendTimeout(connecting.Get(), deadline); // for Unix sockets it is the time-out of connect, too
    if (const int error = ConnectToEntry(directory.Get(), PathOf(kind, name), connecting.Get()); error != 0) {
        return StatusOfErrno(error);
    }
    Peer server;
    if (const auto status = IdentifyPeer(connecting.Get(), server); status != KnStatusOk) {
        return status == KnStatusPeerGone ? KnStatusNotFound : status;
    }
    if (server.uid != owner.st_uid) {
        Log(LogLevel::Error, {"the server at the name ", name, " belongs to another user"});
        return KnStatusDenied;
    }
    const Greeting greeting = MakeGreeting();
    // Fails only when the server has closed the socket, and then the wait for its answer notices that.
    static_cast<void>(::send(connecting.Get(), &greeting, sizeof greeting, MSG_NOSIGNAL));
    SetSendTimeout(connecting.Get(), Deadline::max());
    socket = std::move(connecting);
    return KnStatusOk;
}

} // namespace borven_host
